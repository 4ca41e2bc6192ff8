// MD5 message digest (RFC 1321) and the one-shot MD5_Encrypt built on it.
#include <string.h>

#include "crypto/crypto_internal.h"
#include "platform/bytes.h"

namespace {

struct MD5_CTX {
    uint32_t state[4];     // chaining words A, B, C, D
    uint32_t count[2];     // number of bits hashed, modulo 2^64, low word first
    unsigned char buffer[64];
};

inline uint32_t rotl(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

// The four auxiliary functions, in forms with one operation less than the textbook ones: F picks c
// or d by b, G picks b or c by d (the two terms share no bit, so they can be added).
inline uint32_t F(uint32_t x, uint32_t y, uint32_t z) { return z ^ (x & (y ^ z)); }
inline uint32_t G(uint32_t x, uint32_t y, uint32_t z) { return (x & z) + (y & ~z); }
inline uint32_t H(uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }
inline uint32_t I(uint32_t x, uint32_t y, uint32_t z) { return y ^ (x | ~z); }

// One step: a = b + ((a + fn(b, c, d) + x + t) <<< s). t is the sine-derived constant of the step,
// floor(2^32 * |sin(step)|).
#define MD5_STEP(fn, a, b, c, d, x, s, t) (a) = (b) + rotl((a) + fn((b), (c), (d)) + (x) + (uint32_t)(t), (s))

const unsigned char kPadding[64] = {0x80};

// Words to bytes, least significant byte first; len is a multiple of 4.
void Encode(unsigned char *out, const uint32_t *in, unsigned int len) {
    for (unsigned int i = 0, j = 0; j < len; ++i, j += 4) kx_wr32le(out + j, in[i]);
}

// The 64 steps on one block, unrolled so that every word index, rotation and constant is fixed.
void MD5Transform(uint32_t state[4], const unsigned char block[64]) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i) x[i] = kx_rd32le(block + 4 * i);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];

    MD5_STEP(F, a, b, c, d, x[0], 7, 0xd76aa478);
    MD5_STEP(F, d, a, b, c, x[1], 12, 0xe8c7b756);
    MD5_STEP(F, c, d, a, b, x[2], 17, 0x242070db);
    MD5_STEP(F, b, c, d, a, x[3], 22, 0xc1bdceee);
    MD5_STEP(F, a, b, c, d, x[4], 7, 0xf57c0faf);
    MD5_STEP(F, d, a, b, c, x[5], 12, 0x4787c62a);
    MD5_STEP(F, c, d, a, b, x[6], 17, 0xa8304613);
    MD5_STEP(F, b, c, d, a, x[7], 22, 0xfd469501);
    MD5_STEP(F, a, b, c, d, x[8], 7, 0x698098d8);
    MD5_STEP(F, d, a, b, c, x[9], 12, 0x8b44f7af);
    MD5_STEP(F, c, d, a, b, x[10], 17, 0xffff5bb1);
    MD5_STEP(F, b, c, d, a, x[11], 22, 0x895cd7be);
    MD5_STEP(F, a, b, c, d, x[12], 7, 0x6b901122);
    MD5_STEP(F, d, a, b, c, x[13], 12, 0xfd987193);
    MD5_STEP(F, c, d, a, b, x[14], 17, 0xa679438e);
    MD5_STEP(F, b, c, d, a, x[15], 22, 0x49b40821);

    MD5_STEP(G, a, b, c, d, x[1], 5, 0xf61e2562);
    MD5_STEP(G, d, a, b, c, x[6], 9, 0xc040b340);
    MD5_STEP(G, c, d, a, b, x[11], 14, 0x265e5a51);
    MD5_STEP(G, b, c, d, a, x[0], 20, 0xe9b6c7aa);
    MD5_STEP(G, a, b, c, d, x[5], 5, 0xd62f105d);
    MD5_STEP(G, d, a, b, c, x[10], 9, 0x02441453);
    MD5_STEP(G, c, d, a, b, x[15], 14, 0xd8a1e681);
    MD5_STEP(G, b, c, d, a, x[4], 20, 0xe7d3fbc8);
    MD5_STEP(G, a, b, c, d, x[9], 5, 0x21e1cde6);
    MD5_STEP(G, d, a, b, c, x[14], 9, 0xc33707d6);
    MD5_STEP(G, c, d, a, b, x[3], 14, 0xf4d50d87);
    MD5_STEP(G, b, c, d, a, x[8], 20, 0x455a14ed);
    MD5_STEP(G, a, b, c, d, x[13], 5, 0xa9e3e905);
    MD5_STEP(G, d, a, b, c, x[2], 9, 0xfcefa3f8);
    MD5_STEP(G, c, d, a, b, x[7], 14, 0x676f02d9);
    MD5_STEP(G, b, c, d, a, x[12], 20, 0x8d2a4c8a);

    MD5_STEP(H, a, b, c, d, x[5], 4, 0xfffa3942);
    MD5_STEP(H, d, a, b, c, x[8], 11, 0x8771f681);
    MD5_STEP(H, c, d, a, b, x[11], 16, 0x6d9d6122);
    MD5_STEP(H, b, c, d, a, x[14], 23, 0xfde5380c);
    MD5_STEP(H, a, b, c, d, x[1], 4, 0xa4beea44);
    MD5_STEP(H, d, a, b, c, x[4], 11, 0x4bdecfa9);
    MD5_STEP(H, c, d, a, b, x[7], 16, 0xf6bb4b60);
    MD5_STEP(H, b, c, d, a, x[10], 23, 0xbebfbc70);
    MD5_STEP(H, a, b, c, d, x[13], 4, 0x289b7ec6);
    MD5_STEP(H, d, a, b, c, x[0], 11, 0xeaa127fa);
    MD5_STEP(H, c, d, a, b, x[3], 16, 0xd4ef3085);
    MD5_STEP(H, b, c, d, a, x[6], 23, 0x04881d05);
    MD5_STEP(H, a, b, c, d, x[9], 4, 0xd9d4d039);
    MD5_STEP(H, d, a, b, c, x[12], 11, 0xe6db99e5);
    MD5_STEP(H, c, d, a, b, x[15], 16, 0x1fa27cf8);
    MD5_STEP(H, b, c, d, a, x[2], 23, 0xc4ac5665);

    MD5_STEP(I, a, b, c, d, x[0], 6, 0xf4292244);
    MD5_STEP(I, d, a, b, c, x[7], 10, 0x432aff97);
    MD5_STEP(I, c, d, a, b, x[14], 15, 0xab9423a7);
    MD5_STEP(I, b, c, d, a, x[5], 21, 0xfc93a039);
    MD5_STEP(I, a, b, c, d, x[12], 6, 0x655b59c3);
    MD5_STEP(I, d, a, b, c, x[3], 10, 0x8f0ccc92);
    MD5_STEP(I, c, d, a, b, x[10], 15, 0xffeff47d);
    MD5_STEP(I, b, c, d, a, x[1], 21, 0x85845dd1);
    MD5_STEP(I, a, b, c, d, x[8], 6, 0x6fa87e4f);
    MD5_STEP(I, d, a, b, c, x[15], 10, 0xfe2ce6e0);
    MD5_STEP(I, c, d, a, b, x[6], 15, 0xa3014314);
    MD5_STEP(I, b, c, d, a, x[13], 21, 0x4e0811a1);
    MD5_STEP(I, a, b, c, d, x[4], 6, 0xf7537e82);
    MD5_STEP(I, d, a, b, c, x[11], 10, 0xbd3af235);
    MD5_STEP(I, c, d, a, b, x[2], 15, 0x2ad7d2bb);
    MD5_STEP(I, b, c, d, a, x[9], 21, 0xeb86d391);

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
