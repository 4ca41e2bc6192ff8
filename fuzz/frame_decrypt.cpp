// Frame decryption on arbitrary bytes. Input: one byte key length (0-63), the key, then the frame.
// The key lies in a buffer of exactly max(length, 16) bytes (the enhanced cipher reads 16 key bytes)
// and the frame in one of exactly its length, so any read past either is caught.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "korvex/korvex.h"

static void check(bool ok) {
    if (!ok) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool quiet = (sdk_log_set_level(0, 0, 0), true);
    (void)quiet;
    if (size < 1) return 0;
    size_t key_len = data[0] & 63;
    if (size < 1 + key_len) return 0;
    std::vector<unsigned char> key(key_len < 16 ? 16 : key_len, 0);
    memcpy(key.data(), data + 1, key_len);
    const uint8_t *frame_bytes = data + 1 + key_len;
    size_t frame_len = size - 1 - key_len;

    std::vector<unsigned char> frame(frame_bytes, frame_bytes + frame_len);
    unsigned char *buf = frame.empty() ? nullptr : frame.data();
    int rc = SA_DecryptOneFrame(buf, (int)frame_len, key.data(), (int)key_len);
    // A refused frame is left exactly as it was.
    if (rc != 0) check(frame_len == 0 || memcmp(frame.data(), frame_bytes, frame_len) == 0);

    // Encrypting and decrypting with the same key restores a frame that both calls accept.
    for (int enhanced = 0; enhanced < 2; ++enhanced) {
        std::vector<unsigned char> f(frame_bytes, frame_bytes + frame_len);
        unsigned char *p = f.empty() ? nullptr : f.data();
        int enc = enhanced ? SA_EncryptOneFrameEx(p, (int)frame_len, key.data(), (int)key_len)
                           : SA_EncryptOneFrame(p, (int)frame_len, key.data(), (int)key_len);
        if (enc != 0 || frame_len < 96 || memcmp(frame_bytes + 32, "\x00\x00\x00\x01", 4) != 0) continue;
        if (memcmp(f.data(), frame_bytes, frame_len) == 0) continue;  // short frames stay clear
        uint16_t flags;
        memcpy(&flags, &f[30], 2);
        if ((flags & 3) != 2 || (((flags >> 6) & 3) == 2) != (enhanced == 1)) continue;
        check(SA_DecryptOneFrame(p, (int)frame_len, key.data(), (int)key_len) == 0);
        check(memcmp(f.data() + 32, frame_bytes + 32, frame_len - 32) == 0);
    }
    return 0;
}
