// Common helpers for library callers: guarded copies, clocks, the string splitter and small
// conversions. They keep no state and write no log line.
#include <ctype.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "korvex/korvex.h"
#include "platform/platform.h"

namespace {

// Entries of a split result behind the last piece point here, so a caller never reads a null.
const char kEmptyItem[] = "";

const char kSdkVersion[] = "The dev sdkversion is 5.5.0.0 build20250821 revision ";

struct VideoSize {
    int coded;
    int shown;
};

// Coded picture heights (a multiple of 8 or 16) and the height that is shown.
constexpr VideoSize kVideoSizes[] = {
    {1088, 1080}, {368, 360}, {1808, 1800}, {1968, 1960}, {1952, 1944}, {1624, 1620},
};

}  // namespace

extern "C" {

KX_API int os_memcpy(void *dest, size_t room, const void *src, size_t count) {
    if (dest == nullptr || src == nullptr) return EINVAL;
    memcpy(dest, src, count < room ? count : room);
    return 0;
}

KX_API int os_strcpy(char *dest, const char *src, int room) {
    if (dest == nullptr || src == nullptr) return -1;
    if (room <= 0) {
        // No room given: the caller vouches that the text fits.
        strcpy(dest, src);
        return 0;
    }
    size_t len = strnlen(src, (size_t)room - 1);
    memcpy(dest, src, len);
    dest[len] = '\0';
    return 0;
}

KX_API int64_t os_get_tick_count(void) { return kx_platform_wall_ms(); }

KX_API int os_usleep(int us) {
    if (us < 0) {
        errno = EINVAL;
        return -1;
    }
    return usleep((useconds_t)us);
}

KX_API int os_split_str_to_arr(char *text, char sep, tagOsStrArray *arr) {
    if (text == nullptr || arr == nullptr) return -1;
    for (int i = 0; i < OS_STR_ARRAY_MAX; i++) arr->apcItem[i] = const_cast<char *>(kEmptyItem);
    arr->iItemNum = 0;

    arr->apcItem[0] = text;
    int count = 1;
    size_t len = strlen(text);
    for (size_t i = 0; i < len; i++) {
        if (text[i] != sep) continue;
        text[i] = '\0';
        if (i + 1 == len) break;  // a trailing separator adds no empty piece
        if (count >= OS_STR_ARRAY_MAX) return -1;
        arr->apcItem[count++] = text + i + 1;
    }
    arr->iItemNum = count;
    return 0;
}

KX_API void os_to_lower(char *text) {
    if (text == nullptr) return;
    for (; *text != '\0'; text++) *text = (char)tolower((unsigned char)*text);
}

KX_API int os_convert_video_size(int size) {
    for (const VideoSize &v : kVideoSizes)
        if (v.coded == size) return v.shown;
    return size;
}

KX_API const char *os_get_sdk_version(void) {
    printf("%s", kSdkVersion);
    return kSdkVersion;
}

KX_API uintptr_t os_get_cur_thread_id(void) { return (uintptr_t)pthread_self(); }

}  // extern "C"
