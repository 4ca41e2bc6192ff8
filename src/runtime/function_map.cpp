// Function maps: a key map is a locked list of pointers to heap items (name and function), searched
// from the head; an index map is a heap array of function slots. Neither takes a lock: the caller
// serialises binding against lookup.
#include <stdlib.h>
#include <string.h>

#include "platform/alloc.h"
#include "log/log_internal.h"

namespace {

constexpr int kKeyRoom = (int)sizeof(((FunctionMapItem *)nullptr)->key);

// The list element of a key map: one pointer to the item.
FunctionMapItem *item_of(_OS_DListNode *node) {
    FunctionMapItem *item = nullptr;
    memcpy(&item, adt_dlist_getdata(node), sizeof(item));
    return item;
}

}  // namespace

extern "C" {

KX_API int strcpy_safe(char *_cDest, const char *_cSrc, int size) {
    if (_cDest == nullptr || _cSrc == nullptr) {
        KX_LOG_ERR("%s", "[strcpy_safe] NULL == _cDest || NULL == _cSrc");
        return -1;
    }
    if (size < 1) {
        KX_LOG_ERR("[strcpy_safe] illegal size(%d)", size);
        return -1;
    }
    // Never reads the source beyond the room: it need not be terminated there.
    size_t len = strnlen(_cSrc, (size_t)size - 1);
    memcpy(_cDest, _cSrc, len);
    _cDest[len] = '\0';
    return 0;
}

KX_API FunctionMap *function_map_create(int type) {
    FunctionMap *map = static_cast<FunctionMap *>(kx_calloc(1, sizeof(FunctionMap)));
    if (map == nullptr) {
        KX_LOG_ERR("%s", "map == NULL");
        return nullptr;
    }
    if (type == MAP_TYPE_KEY) {
        map->key_map = adt_dlist_create((uint32_t)sizeof(FunctionMapItem *));
        if (map->key_map == nullptr) {
            KX_LOG_ERR("%s", "map->key_map == NULL");
            free(map);
            return nullptr;
        }
        map->type = MAP_TYPE_KEY;
        return map;
    }
    // An index map needs its size: only function_map_create_index makes one.
    if (type == MAP_TYPE_INDEX)
        KX_LOG_ERR("%s", "map->index_map == NULL");
    else
        KX_LOG_ERR("%s", "error type");
    free(map);
    return nullptr;
}

KX_API FunctionMap *function_map_create_key(void) { return nullptr; }

KX_API FunctionMap *function_map_create_index(int max_index) {
    if (max_index <= 0) {
        KX_LOG_ERR("%s", "illegal max_index <= 0");
        return nullptr;
    }
    FunctionMap *map = static_cast<FunctionMap *>(kx_calloc(1, sizeof(FunctionMap)));
    if (map == nullptr) {
        KX_LOG_ERR("%s", "map == NULL");
        return nullptr;
    }
    map->index_map = static_cast<FunctionMapFunc *>(kx_calloc((size_t)max_index, sizeof(FunctionMapFunc)));
    if (map->index_map == nullptr) {
        KX_LOG_ERR("%s", "map->index_map == NULL");
        free(map);
        return nullptr;
    }
    map->type = MAP_TYPE_INDEX;
    map->max_index = max_index;
    return map;
}

KX_API int function_map_destroy(FunctionMap *map) {
    if (map == nullptr) {
        KX_LOG_ERR("%s", "map == NULL");
        return -1;
    }
    // A key map lives for the whole process: its items may still be in callers' hands.
    if (map->type == MAP_TYPE_KEY) return -1;
    if (map->type == MAP_TYPE_INDEX) {
        free(map->index_map);
        free(map);
        return 0;
    }
    KX_LOG_ERR("illegal map type (%d)", map->type);
    free(map);
    return 0;
}

KX_API int function_map_bind_key(FunctionMap *map, const char *key, FunctionMapFunc func) {
    if (map == nullptr || key == nullptr || func == nullptr) {
        KX_LOG_ERR("%s", "map == NULL || key == NULL || func == NULL");
        return -1;
    }
    if (map->type != MAP_TYPE_KEY) {
        KX_LOG_ERR("%s", "map->type != MAP_TYPE_KEY");
        return -1;
    }
    if (map->key_map == nullptr) {
        KX_LOG_ERR("%s", "map->key_map == NULL");
        return -1;
    }
    FunctionMapItem *item = static_cast<FunctionMapItem *>(kx_calloc(1, sizeof(FunctionMapItem)));
    if (item == nullptr) {
        KX_LOG_ERR("%s", "item == NULL");
        return -1;
    }
    strcpy_safe(item->key, key, kKeyRoom);
    item->func = func;
    if (adt_dlist_add(map->key_map, nullptr, &item) == nullptr) {
        KX_LOG_ERR("%s", "item == NULL");
        free(item);
        return -1;
    }
    return 0;
}

KX_API int function_map_bind_index(FunctionMap *map, int index, FunctionMapFunc func) {
    if (map == nullptr || func == nullptr || map->index_map == nullptr) {
        KX_LOG_ERR("%s", "NULL == map || NULL == func || NULL == map->index_map");
        return -1;
    }
    if (map->type != MAP_TYPE_INDEX) {
        KX_LOG_ERR("map->type(%d) != MAP_TYPE_INDEX", map->type);
        return -1;
    }
    if (index >= map->max_index) {
        KX_LOG_ERR("%s", "index >= map->max_index");
        return -1;
    }
    if (index < 0) {
        KX_LOG_ERR("%s", "index < 0");
        return -1;
    }
    map->index_map[index] = func;
    return 0;
}

KX_API FunctionMapItem *function_map_get_key_map(FunctionMap *map, const char *key) {
    if (map == nullptr || key == nullptr) {
        KX_LOG_ERR("%s", "map == NULL || key == NULL");
        return nullptr;
    }
    if (map->key_map == nullptr) return nullptr;
    for (_OS_DListNode *node = adt_dlist_head(map->key_map); node != nullptr; node = adt_dlist_next(node)) {
        FunctionMapItem *item = item_of(node);
        if (item == nullptr) {
            KX_LOG_ERR("%s", "data error");
            continue;
        }
        if (strcmp(item->key, key) == 0) return item;
    }
    return nullptr;
}

KX_API FunctionMapFunc *function_map_get_index_map(FunctionMap *map, int index) {
    if (map == nullptr || map->index_map == nullptr || index < 0) {
        KX_LOG_ERR("%s", "NULL == map|| NULL == map->index_map || index < 0");
        return nullptr;
    }
    if (index >= map->max_index) {
        KX_LOG_ERR("%s", "index >= map->max_index");
        return nullptr;
    }
    return &map->index_map[index];
}

}  // extern "C"
