// Table-driven AES (FIPS 197) for 128, 192 and 256-bit keys. The state is held as four 32-bit
// columns, least significant byte first; a round is four table look-ups per column. Decryption uses
// the equivalent inverse cipher, so it has the same shape as encryption. The tables are computed at
// run time, once per process.
#include <pthread.h>
#include <string.h>

#include "crypto/crypto_internal.h"
#include "platform/bytes.h"

static_assert(sizeof(STR_AES) == 4 + 2 * 64 * 4, "STR_AES: key words and two 64-word schedules");
static_assert(offsetof(STR_AES, auiEncSchedule) == 4, "encryption schedule after the key words");
static_assert(offsetof(STR_AES, auiDecSchedule) == 4 + 64 * 4, "decryption schedule last");

uint8_t pow_tab[256];
uint8_t log_tab[256];
uint8_t sbx_tab[256];
uint8_t isb_tab[256];
uint32_t rco_tab[10];
uint32_t ft_tab[4][256];
uint32_t it_tab[4][256];
uint32_t fl_tab[4][256];
uint32_t il_tab[4][256];
std::atomic<int> tab_gen{0};

namespace {

pthread_once_t s_tabs_once = PTHREAD_ONCE_INIT;

inline uint32_t rotl32(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }
inline uint8_t rotl8(uint8_t x, int n) { return (uint8_t)((x << n) | (x >> (8 - n))); }
inline uint8_t byte_of(uint32_t x, int n) { return (uint8_t)(x >> (8 * n)); }
inline uint8_t xtime(uint8_t x) { return (uint8_t)((x << 1) ^ ((x & 0x80) ? 0x1b : 0)); }

// Product in GF(2^8) through the power and logarithm tables.
inline uint8_t ff_mult(uint8_t a, uint8_t b) {
    return (a && b) ? pow_tab[(log_tab[a] + log_tab[b]) % 255] : 0;
}

inline uint32_t bytes_to_word(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3) {
    return (uint32_t)b0 | ((uint32_t)b1 << 8) | ((uint32_t)b2 << 16) | ((uint32_t)b3 << 24);
}

void build_tables(void) {
    // Powers of the generator 3 and their logarithms; 3^255 = 1 lands on log_tab[1], which must be 0.
    uint8_t x = 1;
    for (int i = 0; i < 256; ++i) {
        pow_tab[i] = x;
        log_tab[x] = (uint8_t)i;
        x ^= xtime(x);
    }
    log_tab[1] = 0;

    x = 1;
    for (int i = 0; i < 10; ++i) {
        rco_tab[i] = x;
        x = xtime(x);
    }

    // S-box: multiplicative inverse, then the affine transformation with the constant 0x63.
    for (int i = 0; i < 256; ++i) {
        uint8_t inv = i ? pow_tab[255 - log_tab[i]] : 0;
        uint8_t s = (uint8_t)(inv ^ rotl8(inv, 1) ^ rotl8(inv, 2) ^ rotl8(inv, 3) ^ rotl8(inv, 4) ^ 0x63);
        sbx_tab[i] = s;
        isb_tab[s] = (uint8_t)i;
    }

    for (int i = 0; i < 256; ++i) {
        uint8_t s = sbx_tab[i];
        uint32_t last = s;
        uint32_t round = bytes_to_word(ff_mult(2, s), s, s, ff_mult(3, s));
        for (int k = 0; k < 4; ++k) {
            fl_tab[k][i] = last << (8 * k);
            ft_tab[k][i] = k ? rotl32(round, 8 * k) : round;
        }
        s = isb_tab[i];
        last = s;
        round = bytes_to_word(ff_mult(14, s), ff_mult(9, s), ff_mult(13, s), ff_mult(11, s));
        for (int k = 0; k < 4; ++k) {
            il_tab[k][i] = last << (8 * k);
            it_tab[k][i] = k ? rotl32(round, 8 * k) : round;
        }
    }

    tab_gen.store(1, std::memory_order_release);
}

inline uint32_t sub_word(uint32_t w) {
    return fl_tab[0][byte_of(w, 0)] ^ fl_tab[1][byte_of(w, 1)] ^ fl_tab[2][byte_of(w, 2)] ^ fl_tab[3][byte_of(w, 3)];
}

// InvMixColumns of one column: it_tab includes the inverse S-box, so feed it S-box values.
inline uint32_t inv_mix_col(uint32_t w) {
    return it_tab[0][sbx_tab[byte_of(w, 0)]] ^ it_tab[1][sbx_tab[byte_of(w, 1)]] ^
           it_tab[2][sbx_tab[byte_of(w, 2)]] ^ it_tab[3][sbx_tab[byte_of(w, 3)]];
}

// The encryption round keys of a key of nk words: 4 * (nk + 7) words at w.
void expand_enc_schedule(uint32_t *w, const unsigned char *key, uint32_t nk) {
    const uint32_t total = 4 * (nk + 7);
    for (uint32_t i = 0; i < nk; ++i) w[i] = kx_rd32le(key + 4 * i);
    for (uint32_t i = nk; i < total; ++i) {
        uint32_t t = w[i - 1];
        if (i % nk == 0) {
            // RotWord moves byte 1 to byte 0: a right rotation of the little-endian word.
            t = sub_word(rotl32(t, 24)) ^ rco_tab[i / nk - 1];
        } else if (nk > 6 && i % nk == 4) {
            t = sub_word(t);
        }
        w[i] = w[i - nk] ^ t;
    }
}

inline bool key_words_ok(uint32_t nk) { return nk == 4 || nk == 6 || nk == 8; }

// One round on the state a0..a3 into b0..b3 with round key rk. Forward: row r of column c comes
// from column c + r (ShiftRows); inverse: from column c - r (InvShiftRows).
#define FWD_ROUND(t, a0, a1, a2, a3, b0, b1, b2, b3, rk)                                                     \
    b0 = t[0][byte_of(a0, 0)] ^ t[1][byte_of(a1, 1)] ^ t[2][byte_of(a2, 2)] ^ t[3][byte_of(a3, 3)] ^ (rk)[0]; \
    b1 = t[0][byte_of(a1, 0)] ^ t[1][byte_of(a2, 1)] ^ t[2][byte_of(a3, 2)] ^ t[3][byte_of(a0, 3)] ^ (rk)[1]; \
    b2 = t[0][byte_of(a2, 0)] ^ t[1][byte_of(a3, 1)] ^ t[2][byte_of(a0, 2)] ^ t[3][byte_of(a1, 3)] ^ (rk)[2]; \
    b3 = t[0][byte_of(a3, 0)] ^ t[1][byte_of(a0, 1)] ^ t[2][byte_of(a1, 2)] ^ t[3][byte_of(a2, 3)] ^ (rk)[3]
#define INV_ROUND(t, a0, a1, a2, a3, b0, b1, b2, b3, rk)                                                     \
    b0 = t[0][byte_of(a0, 0)] ^ t[1][byte_of(a3, 1)] ^ t[2][byte_of(a2, 2)] ^ t[3][byte_of(a1, 3)] ^ (rk)[0]; \
    b1 = t[0][byte_of(a1, 0)] ^ t[1][byte_of(a0, 1)] ^ t[2][byte_of(a3, 2)] ^ t[3][byte_of(a2, 3)] ^ (rk)[1]; \
    b2 = t[0][byte_of(a2, 0)] ^ t[1][byte_of(a1, 1)] ^ t[2][byte_of(a0, 2)] ^ t[3][byte_of(a3, 3)] ^ (rk)[2]; \
    b3 = t[0][byte_of(a3, 0)] ^ t[1][byte_of(a2, 1)] ^ t[2][byte_of(a1, 2)] ^ t[3][byte_of(a0, 3)] ^ (rk)[3]

// Runs a whole cipher with the given round macro, schedule and tables. The state lives in four
// locals, two rounds per pass, so that it stays in registers; nr is even (10, 12 or 14).
#define RUN_CIPHER(ROUND, rounds, sched, tab, last_tab)                                               \
    do {                                                                                              \
        const uint32_t nr = (rounds);                                                                 \
        const uint32_t *k = (sched);                                                                  \
        uint32_t s0 = kx_rd32le(in) ^ k[0], s1 = kx_rd32le(in + 4) ^ k[1];                            \
        uint32_t s2 = kx_rd32le(in + 8) ^ k[2], s3 = kx_rd32le(in + 12) ^ k[3];                       \
        uint32_t t0, t1, t2, t3;                                                                      \
        for (uint32_t r = 1; r + 1 < nr; r += 2) {                                                    \
            ROUND(tab, s0, s1, s2, s3, t0, t1, t2, t3, k + 4);                                        \
            ROUND(tab, t0, t1, t2, t3, s0, s1, s2, s3, k + 8);                                        \
            k += 8;                                                                                   \
        }                                                                                             \
        ROUND(tab, s0, s1, s2, s3, t0, t1, t2, t3, k + 4);                                            \
        ROUND(last_tab, t0, t1, t2, t3, s0, s1, s2, s3, k + 8);                                       \
        kx_wr32le(out, s0);                                                                           \
        kx_wr32le(out + 4, s1);                                                                       \
        kx_wr32le(out + 8, s2);                                                                       \
        kx_wr32le(out + 12, s3);                                                                      \
    } while (0)

}  // namespace

void aes128_encrypt_block(const unsigned char *key, const unsigned char *in, unsigned char *out) {
    if (tab_gen.load(std::memory_order_acquire) == 0) gen_tabs();
    uint32_t sched[44];
    expand_enc_schedule(sched, key, 4);
    RUN_CIPHER(FWD_ROUND, 10, sched, ft_tab, fl_tab);
}

extern "C" {

KX_API void gen_tabs(void) { pthread_once(&s_tabs_once, build_tables); }

KX_API void set_key(STR_AES *aes, const unsigned char *key, unsigned long key_bits) {
    if (tab_gen.load(std::memory_order_acquire) == 0) gen_tabs();
    if (aes == nullptr) return;
    uint32_t nk = (uint32_t)((key_bits + 31) / 32);
    aes->uiKeyWords = nk;
    if (!key_words_ok(nk) || key_bits != nk * 32 || key == nullptr) {
        // Only whole 128, 192 and 256-bit keys have a schedule.
        aes->uiKeyWords = 0;
        memset(aes->auiEncSchedule, 0, sizeof(aes->auiEncSchedule));
        memset(aes->auiDecSchedule, 0, sizeof(aes->auiDecSchedule));
        return;
    }
    uint32_t *w = aes->auiEncSchedule;
    const uint32_t nr = nk + 6;
    expand_enc_schedule(w, key, nk);
    // Equivalent inverse cipher: round keys in reverse order, the inner ones through InvMixColumns.
    uint32_t *d = aes->auiDecSchedule;
    for (uint32_t r = 0; r <= nr; ++r) {
        const uint32_t *src = w + 4 * (nr - r);
        for (int c = 0; c < 4; ++c) d[4 * r + c] = (r == 0 || r == nr) ? src[c] : inv_mix_col(src[c]);
    }
}

KX_API void encrypt(const STR_AES *aes, const unsigned char *in, unsigned char *out) {
    if (out == nullptr) return;
    if (aes == nullptr || in == nullptr || !key_words_ok(aes->uiKeyWords)) {
        memset(out, 0, KX_AES_BLOCK);
        return;
    }
    RUN_CIPHER(FWD_ROUND, aes->uiKeyWords + 6, aes->auiEncSchedule, ft_tab, fl_tab);
}

KX_API void decrypt(const STR_AES *aes, const unsigned char *in, unsigned char *out) {
    if (out == nullptr) return;
    if (aes == nullptr || in == nullptr || !key_words_ok(aes->uiKeyWords)) {
        memset(out, 0, KX_AES_BLOCK);
        return;
    }
    RUN_CIPHER(INV_ROUND, aes->uiKeyWords + 6, aes->auiDecSchedule, it_tab, il_tab);
}

KX_API int expand_key(const unsigned char *key, int len, unsigned char *out) {
    if (out == nullptr || len < 0 || len > KX_AES128_KEY || (key == nullptr && len > 0)) return -1;
    if (len > 0) memcpy(out, key, (size_t)len);
    memset(out + len, 0xFF, (size_t)(KX_AES128_KEY - len));
    out[KX_AES128_KEY] = 0;
    return 0;
}

}  // extern "C"
