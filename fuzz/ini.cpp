// Feeds arbitrary file contents to the INI reader and writer. The input is
// "section\nkey\nvalue\n" followed by the file's bytes.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "korvex/korvex.h"

namespace {

char s_path[64];

// Cuts the next field, up to '\n', at most 300 bytes, into out.
size_t take_field(const uint8_t *&data, size_t &size, char *out) {
    size_t n = 0;
    while (n < size && n < 300 && data[n] != '\n') n++;
    memcpy(out, data, n);
    out[n] = '\0';
    size_t used = n < size ? n + 1 : n;
    data += used;
    size -= used;
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (s_path[0] == '\0') {
        snprintf(s_path, sizeof(s_path), "/tmp/kx_fuzz_ini_%d.ini", (int)getpid());
        atexit([] { unlink(s_path); });
    }
    char section[301], key[301], value[301];
    take_field(data, size, section);
    take_field(data, size, key);
    take_field(data, size, value);
    FILE *fp = fopen(s_path, "wb");
    if (fp == nullptr) return 0;
    fwrite(data, 1, size, fp);
    fclose(fp);

    char out[256];
    memset(out, 0x5a, sizeof(out));
    out[255] = '\0';
    readStringValue(section, key, out, s_path);
    if (strlen(out) > 255) abort();
    IniReadValue(section, key, out, s_path);
    readIntValue(section, key, 7, s_path);
    writeStringVlaue(section, key, value, s_path);
    writeIntValue(section, key, (int)size, s_path);
    readIntValue(section, key, 7, s_path);
    return 0;
}
