// The locked list: a doubly linked list that owns its nodes, copies each element by value into its
// node, and carries a recursive mutex that its users take around their accesses.
#include <stdlib.h>
#include <string.h>

#include "platform/alloc.h"
#include "log/log_internal.h"

namespace {

// Node and element are one allocation: the element data sits right behind the two links.
constexpr size_t kDataOffset = sizeof(_OS_DListNode);

_OS_DListNode *new_node(_OS_DList *dlist, const void *elem) {
    _OS_DListNode *node = static_cast<_OS_DListNode *>(kx_malloc(kDataOffset + dlist->elem_size));
    if (node == nullptr) return nullptr;
    node->next = nullptr;
    node->prev = nullptr;
    if (dlist->elem_size > 0) {
        if (elem != nullptr)
            memcpy(reinterpret_cast<char *>(node) + kDataOffset, elem, dlist->elem_size);
        else
            memset(reinterpret_cast<char *>(node) + kDataOffset, 0, dlist->elem_size);
    }
    return node;
}

// Puts a new node with a copy of elem between prev and next (either null at an end of the list).
_OS_DListNode *put_between(_OS_DList *dlist, _OS_DListNode *prev, _OS_DListNode *next, const void *elem) {
    _OS_DListNode *node = new_node(dlist, elem);
    if (node == nullptr) return nullptr;
    node->prev = prev;
    node->next = next;
    if (prev != nullptr)
        prev->next = node;
    else
        dlist->head = node;
    if (next != nullptr)
        next->prev = node;
    else
        dlist->tail = node;
    dlist->count++;
    return node;
}

}  // namespace

extern "C" {

KX_API _OS_DList *adt_os_dlist_create(uint32_t elem_size) {
    _OS_DList *dlist = static_cast<_OS_DList *>(kx_calloc(1, sizeof(_OS_DList)));
    if (dlist == nullptr) {
        KX_LOG_ERR("%s", "");
        return nullptr;
    }
    dlist->elem_size = elem_size;
    sdk_mutex_init(&dlist->mutex, 1);
    return dlist;
}

KX_API int adt_os_dlist_destroy(_OS_DList *dlist) {
    if (dlist == nullptr) {
        KX_LOG_ERR("%s", "");
        return 0;
    }
    _OS_DListNode *node = dlist->head;
    while (node != nullptr) {
        _OS_DListNode *next = node->next;
        free(node);
        node = next;
    }
    sdk_mutex_destroy(&dlist->mutex);
    free(dlist);
    return 1;
}

KX_API _OS_DListNode *adt_os_dlist_insert(_OS_DList *dlist, _OS_DListNode *ref, const void *elem) {
    if (dlist == nullptr) {
        KX_LOG_ERR("%s", "");
        return nullptr;
    }
    // Before ref, or at the head without one.
    if (dlist->head == nullptr) return put_between(dlist, nullptr, nullptr, elem);
    if (ref == nullptr) ref = dlist->head;
    return put_between(dlist, ref->prev, ref, elem);
}

KX_API _OS_DListNode *adt_os_dlist_add(_OS_DList *dlist, _OS_DListNode *ref, const void *elem) {
    if (dlist == nullptr) {
        KX_LOG_ERR("%s", "");
        return nullptr;
    }
    // Behind ref, or at the tail without one.
    if (dlist->head == nullptr) return put_between(dlist, nullptr, nullptr, elem);
    if (ref == nullptr) ref = dlist->tail;
    return put_between(dlist, ref, ref->next, elem);
}

KX_API _OS_DListNode *adt_os_dlist_next(_OS_DListNode *node) { return node ? node->next : nullptr; }

KX_API _OS_DListNode *adt_os_dlist_prev(_OS_DListNode *node) { return node ? node->prev : nullptr; }

KX_API _OS_DListNode *adt_os_dlist_head(_OS_DList *dlist) { return dlist ? dlist->head : nullptr; }

KX_API _OS_DListNode *adt_os_dlist_end(_OS_DList *dlist) {
    if (dlist == nullptr) {
        KX_LOG_ERR("%s", "");
        return nullptr;
    }
    return dlist->tail;
}

KX_API uint32_t adt_os_dlist_size(_OS_DList *dlist) {
    if (dlist == nullptr) {
        KX_LOG_ERR("%s", "");
        return 0;
    }
    return dlist->count;
}

// A null list has no head: it reads as empty rather than crashing.
KX_API int adt_os_dlist_empty(_OS_DList *dlist) { return (dlist == nullptr || dlist->head == nullptr) ? 1 : 0; }

KX_API int adt_os_dlist_delete(_OS_DList *dlist, _OS_DListNode *node) {
    if (dlist == nullptr || node == nullptr) {
        KX_LOG_ERR("%s", "");
        return 0;
    }
    if (node == dlist->head) {
        dlist->head = node->next;
        if (dlist->head != nullptr)
            dlist->head->prev = nullptr;
        else
            dlist->tail = nullptr;
    } else if (node == dlist->tail) {
        dlist->tail = node->prev;
        dlist->tail->next = nullptr;
    } else {
        node->prev->next = node->next;
        node->next->prev = node->prev;
    }
    free(node);
    dlist->count--;
    return 1;
}

KX_API _OS_DListNode *adt_os_dlist_delete_ex(_OS_DList *dlist, _OS_DListNode *node) {
    if (dlist == nullptr) {
        KX_LOG_ERR("dlist == NULL");
        return nullptr;
    }
    if (node == nullptr) {
        KX_LOG_ERR("node == NULL");
        return nullptr;
    }
    _OS_DListNode *next = node->next;
    if (!adt_os_dlist_delete(dlist, node)) {
        KX_LOG_ERR("dlist delete tmp failed!)");
        return nullptr;
    }
    return next;
}

// A null node has no data: null rather than a wild address.
KX_API void *adt_os_dlist_getdata(_OS_DListNode *node) {
    return node ? reinterpret_cast<char *>(node) + kDataOffset : nullptr;
}

KX_API int adt_os_dlist_lock(_OS_DList *dlist) {
    if (dlist == nullptr) {
        KX_LOG_ERR("%s", "");
        return 0;
    }
    return sdk_mutex_lock(&dlist->mutex);
}

KX_API int adt_os_dlist_unlock(_OS_DList *dlist) {
    if (dlist == nullptr) {
        KX_LOG_ERR("%s", "");
        return 0;
    }
    return sdk_mutex_unlock(&dlist->mutex);
}

// The short family forwards unchanged.
KX_API _OS_DList *adt_dlist_create(uint32_t elem_size) { return adt_os_dlist_create(elem_size); }
KX_API int adt_dlist_destroy(_OS_DList *dlist) { return adt_os_dlist_destroy(dlist); }
KX_API _OS_DListNode *adt_dlist_insert(_OS_DList *dlist, _OS_DListNode *ref, const void *elem) {
    return adt_os_dlist_insert(dlist, ref, elem);
}
KX_API _OS_DListNode *adt_dlist_add(_OS_DList *dlist, _OS_DListNode *ref, const void *elem) {
    return adt_os_dlist_add(dlist, ref, elem);
}
KX_API _OS_DListNode *adt_dlist_next(_OS_DListNode *node) { return adt_os_dlist_next(node); }
KX_API _OS_DListNode *adt_dlist_prev(_OS_DListNode *node) { return adt_os_dlist_prev(node); }
KX_API _OS_DListNode *adt_dlist_head(_OS_DList *dlist) { return adt_os_dlist_head(dlist); }
KX_API _OS_DListNode *adt_dlist_end(_OS_DList *dlist) { return adt_os_dlist_end(dlist); }
KX_API uint32_t adt_dlist_size(_OS_DList *dlist) { return adt_os_dlist_size(dlist); }
KX_API int adt_dlist_empty(_OS_DList *dlist) { return adt_os_dlist_empty(dlist); }
KX_API int adt_dlist_delete(_OS_DList *dlist, _OS_DListNode *node) { return adt_os_dlist_delete(dlist, node); }
KX_API _OS_DListNode *adt_dlist_delete_ex(_OS_DList *dlist, _OS_DListNode *node) {
    return adt_os_dlist_delete_ex(dlist, node);
}
KX_API void *adt_dlist_getdata(_OS_DListNode *node) { return adt_os_dlist_getdata(node); }
KX_API int adt_dlist_lock(_OS_DList *dlist) { return adt_os_dlist_lock(dlist); }
KX_API int adt_dlist_unlock(_OS_DList *dlist) { return adt_os_dlist_unlock(dlist); }

}  // extern "C"
