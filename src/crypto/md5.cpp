// MD5 message digest (RFC 1321) and the one-shot MD5_Encrypt built on it.
#include <string.h>

#include "crypto/crypto_internal.h"

namespace {

struct MD5_CTX {
    uint32_t state[4];     // chaining words A, B, C, D
    uint32_t count[2];     // number of bits hashed, modulo 2^64, low word first
    unsigned char buffer[64];
};

// Sine-derived constants T[1..64]: floor(2^32 * |sin(i)|).
const uint32_t kT[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Left-rotation amounts, four per round.
const int kS[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

const unsigned char kPadding[64] = {0x80};

inline uint32_t rotl(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

// Words to bytes, least significant byte first; len is a multiple of 4.
void Encode(unsigned char *out, const uint32_t *in, unsigned int len) {
    for (unsigned int i = 0, j = 0; j < len; ++i, j += 4) {
        out[j] = (unsigned char)in[i];
        out[j + 1] = (unsigned char)(in[i] >> 8);
        out[j + 2] = (unsigned char)(in[i] >> 16);
        out[j + 3] = (unsigned char)(in[i] >> 24);
    }
}

void Decode(uint32_t *out, const unsigned char *in, unsigned int len) {
    for (unsigned int i = 0, j = 0; j < len; ++i, j += 4) {
        out[i] = (uint32_t)in[j] | ((uint32_t)in[j + 1] << 8) | ((uint32_t)in[j + 2] << 16) |
                 ((uint32_t)in[j + 3] << 24);
    }
}

void MD5Transform(uint32_t state[4], const unsigned char block[64]) {
    uint32_t x[16];
    Decode(x, block, 64);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (int i = 0; i < 64; ++i) {
        uint32_t f;
        int g;
        switch (i >> 4) {
        case 0: f = (b & c) | (~b & d); g = i; break;
        case 1: f = (b & d) | (c & ~d); g = (5 * i + 1) & 15; break;
        case 2: f = b ^ c ^ d; g = (3 * i + 5) & 15; break;
        default: f = c ^ (b | ~d); g = (7 * i) & 15; break;
        }
        uint32_t next = b + rotl(a + f + x[g] + kT[i], kS[i >> 4][i & 3]);
        a = d;
        d = c;
        c = b;
        b = next;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

void MD5Init(MD5_CTX *ctx) {
    ctx->count[0] = ctx->count[1] = 0;
    ctx->state[0] = 0x67452301;
    ctx->state[1] = 0xefcdab89;
    ctx->state[2] = 0x98badcfe;
    ctx->state[3] = 0x10325476;
}

void MD5Update(MD5_CTX *ctx, const unsigned char *input, unsigned int len) {
    unsigned int index = (ctx->count[0] >> 3) & 0x3F;
    uint32_t bits = (uint32_t)len << 3;
    ctx->count[0] += bits;
    if (ctx->count[0] < bits) ++ctx->count[1];
    ctx->count[1] += (uint32_t)len >> 29;

    unsigned int part = 64 - index;
    unsigned int i = 0;
    if (len >= part) {
        memcpy(&ctx->buffer[index], input, part);
        MD5Transform(ctx->state, ctx->buffer);
        for (i = part; i + 63 < len; i += 64) MD5Transform(ctx->state, &input[i]);
        index = 0;
    }
    if (len > i) memcpy(&ctx->buffer[index], &input[i], len - i);
}

void MD5Final(unsigned char digest[16], MD5_CTX *ctx) {
    unsigned char bits[8];
    Encode(bits, ctx->count, 8);
    // Pad to 56 bytes modulo 64, then append the bit count.
    unsigned int index = (ctx->count[0] >> 3) & 0x3f;
    unsigned int pad_len = (index < 56) ? (56 - index) : (120 - index);
    MD5Update(ctx, kPadding, pad_len);
    MD5Update(ctx, bits, 8);
    Encode(digest, ctx->state, 16);
    memset(ctx, 0, sizeof(*ctx));
}

}  // namespace

extern "C" {

KX_API int MD5_Encrypt(char *_pcOut, int *_piOutLen, const char *_pcIn, int _iInLen) {
    if (_pcOut == nullptr || _piOutLen == nullptr || _pcIn == nullptr || _iInLen <= 0 || *_piOutLen < 16) return -1;
    MD5_CTX ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, reinterpret_cast<const unsigned char *>(_pcIn), (unsigned int)_iInLen);
    MD5Final(reinterpret_cast<unsigned char *>(_pcOut), &ctx);
    *_piOutLen = 16;
    return 0;
}

}  // extern "C"
