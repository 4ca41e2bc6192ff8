// The file interface for library callers: a stream is a FILE* handed around as void*. A null
// stream reads and writes nothing instead of reaching stdio, which would crash on it.
#include <errno.h>
#include <stdio.h>
#include <sys/types.h>

#include "korvex/korvex.h"

namespace {

inline FILE *file_of(void *stream) { return static_cast<FILE *>(stream); }

}  // namespace

extern "C" {

KX_API void *os_fopen(const char *path, const char *mode, int share, unsigned char a, unsigned char b) {
    (void)share;
    (void)a;
    (void)b;
    if (path == nullptr || mode == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    return fopen(path, mode);
}

KX_API size_t os_fread(void *buf, unsigned size, unsigned count, void *stream) {
    if (buf == nullptr || stream == nullptr) return 0;
    return fread(buf, size, count, file_of(stream));
}

KX_API size_t os_fwrite(const void *buf, unsigned size, unsigned count, void *stream) {
    if (buf == nullptr || stream == nullptr) return 0;
    return fwrite(buf, size, count, file_of(stream));
}

KX_API int os_fseek(void *stream, int64_t offset, int origin) {
    if (stream == nullptr) return -1;
    return fseeko(file_of(stream), (off_t)offset, origin);
}

KX_API int64_t os_ftell(void *stream) {
    if (stream == nullptr) return -1;
    return (int64_t)ftello(file_of(stream));
}

// A missing stream has nothing left to read: a loop waiting for the end ends.
KX_API int os_feof(void *stream) {
    if (stream == nullptr) return 1;
    return feof(file_of(stream));
}

KX_API int os_fclose(void *stream) {
    if (stream == nullptr) return EOF;
    return fclose(file_of(stream));
}

}  // extern "C"
