// Fuzzes the head scan: any run of bytes, read from an allocation of exactly its size.
#include <stdlib.h>
#include <string.h>

#include "link/link_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool quiet = (sdk_log_set_level(0, 0, 0), true);  // a bad head logs a line
    (void)quiet;
    if (size > 4 * LINK_BUF_SIZE) return 0;
    char *run = static_cast<char *>(malloc(size ? size : 1));
    if (size) memcpy(run, data, size);
    int package_len = 0;
    int at = protocol_parase_net_data(run, (int)size, &package_len);
    int len = (int)size;
    bool ok = len <= 4 ? (at == 0 && package_len == 0)
                       : (at >= 0 && at <= len - 4 && package_len >= 0 && package_len <= len - at);
    if (ok && package_len > 0) ok = link_head_type(run + at, len - at) >= 0;
    free(run);
    if (!ok) abort();
    return 0;
}
