// The I-frame index: counts the items of an index block that carry a sign type, or reports the n-th
// of them with the number of stamp restarts up to it. Runs on the caller's thread and keeps no state.
#include <stddef.h>
#include <string.h>

#include "log/log_internal.h"
#include "platform/bytes.h"

static_assert(sizeof(TIFrameIndexHead) == 44, "index head is 44 bytes");
static_assert(offsetof(TIFrameIndexHead, uiIndexCount) == 32, "uiIndexCount at 32");
static_assert(offsetof(TIFrameIndexHead, uiIndexItemSize) == 36, "uiIndexItemSize at 36");
static_assert(sizeof(TIFrameIndexItem) == 12, "the meaningful part of an item is 12 bytes");
static_assert(offsetof(TIFrameIndexItem, iItemStamp) == 4, "iItemStamp at 4");
static_assert(offsetof(TIFrameIndexItem, uiSignMask) == 8, "uiSignMask at 8");
static_assert(sizeof(TIFrameInfoQuery) == 24, "query record is 24 bytes");
static_assert(offsetof(TIFrameInfoQuery, iWantedOrdinal) == 4, "iWantedOrdinal at 4");
static_assert(offsetof(TIFrameInfoQuery, iRestartCount) == 8, "iRestartCount at 8");
static_assert(offsetof(TIFrameInfoQuery, tItem) == 12, "item copy at 12");

namespace {

constexpr int kHeadLen = (int)sizeof(TIFrameIndexHead);
constexpr int kItemLen = (int)sizeof(TIFrameIndexItem);
constexpr int kQueryLen = (int)sizeof(TIFrameInfoQuery);
// Sign types from this value on ask for a count of the same type.
constexpr int kCountModeBase = 100;
constexpr int kMaxSignType = 5;
constexpr int32_t kCountOrdinal = -1;

void log_short_block(int in_size) {
    KX_LOG_ERR("[SA_GetIFrameInfo] InBufSize(%d) less than TIFrameIndexHead(%d).", in_size, kHeadLen);
}

}  // namespace

extern "C" {

KX_API int SA_GetIFrameInfo(int _iSignType, const void *_pvInBuf, int _iInBufSize, void *_pvOutBuf,
                            int *_piOutLen) {
    if (_pvInBuf == nullptr || _piOutLen == nullptr || _pvOutBuf == nullptr) {
        KX_LOG_ERR("%s", "[Inner_GetSignEmphasisMark] NULL == _pvInBuf|| NULL == _piOutLen || NULL == _pvOutBuf.");
        return -101;
    }
    if (_iInBufSize <= kHeadLen) {
        log_short_block(_iInBufSize);
        return -104;
    }
    const uint8_t *block = static_cast<const uint8_t *>(_pvInBuf);
    const uint32_t count = kx_rd32le(block + offsetof(TIFrameIndexHead, uiIndexCount));
    const uint32_t item_size = kx_rd32le(block + offsetof(TIFrameIndexHead, uiIndexItemSize));
    // The length of the items is taken in 64 bits, so a table whose length does not fit in 32 bits
    // is refused rather than wrapped into something that seems to fit. Items of no size would make
    // the walk as long as the count says with nothing behind it: such a table is refused as well.
    const uint64_t need = (uint64_t)count * item_size + (uint64_t)kHeadLen;
    if (need > (uint64_t)_iInBufSize || (item_size == 0 && count > 0)) {
        log_short_block(_iInBufSize);
        return -104;
    }

    TIFrameInfoQuery *query = static_cast<TIFrameInfoQuery *>(_pvOutBuf);
    int type = _iSignType;
    int32_t ordinal;
    if (type >= kCountModeBase) {
        type -= kCountModeBase;
        ordinal = kCountOrdinal;
    } else {
        ordinal = query->iWantedOrdinal;
    }
    if (type < 0 || type > kMaxSignType) {
        KX_LOG_ERR("[SA_GetIFrameInfo] invalid sign type(%d) .", _iSignType);
        return -100;
    }
    const uint32_t mask = type == 0 ? 0xFFFFFFFFu : 1u << (type - 1);

    // The block holds count x item_size bytes behind the head, and item_size >= 1, so count and
    // the counters below stay under the block's int length.
    int32_t restarts = 0;
    int32_t last_stamp = 0;
    int32_t matches = 0;
    const size_t copy_len = item_size < (uint32_t)kItemLen ? item_size : (size_t)kItemLen;
    const uint8_t *item_at = block + kHeadLen;
    for (uint32_t i = 0; i < count; i++, item_at += item_size) {
        // A short item reads as if padded with zeros.
        uint8_t item[kItemLen] = {0};
        memcpy(item, item_at, copy_len);
        const int32_t stamp = (int32_t)kx_rd32le(item + offsetof(TIFrameIndexItem, iItemStamp));
        const uint32_t signs = kx_rd32le(item + offsetof(TIFrameIndexItem, uiSignMask));

        // A stamp that does not grow marks a restart, matching item or not.
        if (last_stamp >= stamp) restarts++;
        last_stamp = stamp;

        if (type != 0 && (signs & mask) == 0) continue;
        matches++;
        if (ordinal == kCountOrdinal || matches != ordinal) continue;

        int room = *_piOutLen;
        if (room > kQueryLen) {
            room = kQueryLen;
            *_piOutLen = kQueryLen;
        }
        const int head_room = (int)offsetof(TIFrameInfoQuery, tItem);
        if (room > head_room) {
            memcpy(&query->tItem, item, (size_t)(room - head_room));
            query->iRestartCount = restarts;
        }
        break;
    }
    if (ordinal == kCountOrdinal) query->iMatchCount = matches;
    return 0;
}

}  // extern "C"
