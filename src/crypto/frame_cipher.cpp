// Frame cipher modes: the scrambling of the first bytes of a frame's payload with a short AES key
// stream derived from the key and the frame number. These byte patterns are a storage format: a frame
// is only readable when writer and reader apply exactly the same steps.
#include <string.h>

#include "crypto/crypto_internal.h"
#include "platform/bytes.h"

const unsigned char cValidFrameFlag[4] = {0x00, 0x00, 0x00, 0x01};

namespace {

enum {
    kExStreamLen = 64,      // key stream of the enhanced form: four AES blocks
    kExUnit = 256,          // it covers the first 64 bytes of every unit of 256
    kExLimit = 0x40000,     // within the first 262,144 bytes
};

// XORs len bytes of buf with the 16-byte block s repeated from its start.
void xor_repeating16(unsigned char *buf, int len, const unsigned char s[16]) {
    uint64_t s0, s1;
    memcpy(&s0, s, 8);
    memcpy(&s1, s + 8, 8);
    int i = 0;
    for (; i + 16 <= len; i += 16) {
        uint64_t a, b;
        memcpy(&a, buf + i, 8);
        memcpy(&b, buf + i + 8, 8);
        a ^= s0;
        b ^= s1;
        memcpy(buf + i, &a, 8);
        memcpy(buf + i + 8, &b, 8);
    }
    for (; i < len; ++i) buf[i] ^= s[i & 15];
}

// XORs the 64 bytes at p with k, eight bytes at a time.
inline void xor64(unsigned char *p, const unsigned char *k) {
    for (int j = 0; j < kExStreamLen; j += 8) {
        uint64_t a, b;
        memcpy(&a, p + j, 8);
        memcpy(&b, k + j, 8);
        a ^= b;
        memcpy(p + j, &a, 8);
    }
}

// The first four bytes XORed with s give the start code.
inline bool deciphers_to_start_code(const unsigned char *buf, const unsigned char *s) {
    for (int i = 0; i < 4; ++i) {
        if ((unsigned char)(buf[i] ^ s[i]) != cValidFrameFlag[i]) return false;
    }
    return true;
}

}  // namespace

void frame_key_stream_block(uint32_t counter, const unsigned char *key, int key_len, unsigned char s[16]) {
    unsigned char key_area[KX_AES128_KEY + 1];
    memset(key_area, 0, sizeof(key_area));
    (void)expand_key(key, key_len, key_area);  // refused keys leave an all-zero AES key
    unsigned char block[KX_AES_BLOCK];
    memset(block, 0, sizeof(block));
    kx_wr32le(block, counter);
    aes128_encrypt_block(key_area, block, s);
}

int frame_key_stream_ex(uint32_t counter, const unsigned char *key, int key_len, unsigned char k[64]) {
    unsigned char counter_bytes[4];
    kx_wr32le(counter_bytes, counter);
    char digest[16];
    int digest_len = (int)sizeof(digest);
    int rc = MD5_Encrypt(digest, &digest_len, reinterpret_cast<const char *>(counter_bytes), 4);
    if (rc != 0) return rc;

    unsigned char key_area[KX_AES128_KEY + 1];
    memset(key_area, 0, sizeof(key_area));
    // Only the bytes the caller gave: a key from argv or a config string has no 16 readable bytes
    // behind it, and whatever follows it in memory must not change the key stream.
    if (key_len > 0) memcpy(key_area, key, key_len < KX_AES128_KEY ? (size_t)key_len : (size_t)KX_AES128_KEY);
    int text_len = (int)strnlen(reinterpret_cast<const char *>(key_area), KX_AES128_KEY);
    for (int i = 0; i < 4; ++i) {
        // One block under the 16-byte area: what AES_ENC_STR gives for a whole block (CBC from a zero
        // IV), through the faster table-driven cipher.
        aes128_encrypt_block(key_area, reinterpret_cast<const unsigned char *>(digest), k + KX_AES_BLOCK * i);
        // Only the text part rotates; the AES key is always all 16 bytes of the area.
        str_leftshift(key_area, text_len, text_len / 4);
    }
    return 0;
}

int video_aes_ctr_ex_apply(unsigned char *buf, int buf_len, uint32_t counter, const unsigned char *key, int key_len,
                           int check_start_code) {
    if (buf == nullptr || key == nullptr || buf_len < 1 || key_len < 1) return -1;
    unsigned char k[kExStreamLen];
    int rc = frame_key_stream_ex(counter, key, key_len, k);
    if (rc != 0) return rc;
    if (check_start_code) {
        if (CheckDecrypt(buf, buf_len, k, kExStreamLen) != 0) return -1;
    } else if (buf_len < 4) {
        return -1;
    }
    int n = buf_len < kExLimit ? buf_len : kExLimit;
    int whole = n & ~(kExUnit - 1);
    int tail = n & (kExUnit - 1);
    for (int u = 0; u < whole; u += kExUnit) xor64(buf + u, k);
    for (int i = 0; i < tail && i < kExStreamLen; ++i) buf[whole + i] ^= k[i];
    return 0;
}

extern "C" {

KX_API int aes_crypt(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter, const unsigned char *_pucKey,
                     int _iKeyLen) {
    if (_pucBuf == nullptr || _pucKey == nullptr) return -1;
    if (_iBufLen <= 0) return 0;
    unsigned char s[KX_AES_BLOCK];
    frame_key_stream_block(_uiCounter, _pucKey, _iKeyLen, s);
    xor_repeating16(_pucBuf, _iBufLen, s);
    return 0;
}

KX_API int AES_CTR(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter, const unsigned char *_pucKey,
                   int _iKeyLen) {
    return aes_crypt(_pucBuf, _iBufLen, _uiCounter, _pucKey, _iKeyLen);
}

KX_API int video_AES_CTR(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter, const unsigned char *_pucKey,
                         int _iKeyLen) {
    // The start-code test reads four bytes; a shorter buffer could never pass it.
    if (_pucBuf == nullptr || _pucKey == nullptr || _iBufLen < 4) return -1;
    unsigned char s[KX_AES_BLOCK];
    frame_key_stream_block(_uiCounter, _pucKey, _iKeyLen, s);
    if (!deciphers_to_start_code(_pucBuf, s)) return -1;
    xor_repeating16(_pucBuf, _iBufLen, s);
    return 0;
}

KX_API int video_AES_CTR_EX(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter, const unsigned char *_pucKey,
                            int _iKeyLen) {
    return video_aes_ctr_ex_apply(_pucBuf, _iBufLen, _uiCounter, _pucKey, _iKeyLen, 1);
}

KX_API int AES_ENC_STR(const char *_pcSrc, int _iSrcLen, const unsigned char *_pucKey, int _iKeyLen,
                       unsigned char *_pucOut) {
    (void)_iKeyLen;
    if (_iSrcLen > KX_AES_BLOCK || _iSrcLen < 0 || _pcSrc == nullptr || _pucKey == nullptr || _pucOut == nullptr)
        return -1;
    static const uint8_t zero_iv[KX_AES_BLOCK] = {0};
    AES_ctx ctx;
    AES_init_ctx_iv(&ctx, _pucKey, zero_iv);
    if (_iSrcLen == 0) return 0;
    // A short source becomes one whole block, padded with zeros.
    memset(_pucOut, 0, KX_AES_BLOCK);
    memcpy(_pucOut, _pcSrc, (size_t)_iSrcLen);
    AES_CBC_encrypt_buffer(&ctx, _pucOut, KX_AES_BLOCK);
    return 0;
}

KX_API int CheckDecrypt(const unsigned char *_pucBuf, int _iBufLen, const unsigned char *_pucKey, int _iKeyLen) {
    if (_pucBuf == nullptr || _pucKey == nullptr || _iBufLen < 4 || _iKeyLen < 4) return -1;
    unsigned char head[4];
    for (int i = 0; i < 4; ++i) head[i] = (unsigned char)(_pucBuf[i] ^ _pucKey[i % _iKeyLen]);
    return memcmp(head, cValidFrameFlag, 4) == 0 ? 0 : -1;
}

KX_API void str_leftshift(unsigned char *_pucBuf, int _iBufLen, int _iShift) {
    if (_pucBuf == nullptr || _iBufLen < 1 || _iBufLen > 16 || _iShift < 1 || _iShift > _iBufLen - 1) return;
    unsigned char tmp[16];
    memcpy(tmp, _pucBuf + _iShift, (size_t)(_iBufLen - _iShift));
    memcpy(tmp + (_iBufLen - _iShift), _pucBuf, (size_t)_iShift);
    memcpy(_pucBuf, tmp, (size_t)_iBufLen);
}

}  // extern "C"
