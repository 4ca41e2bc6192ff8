// Internals of the ciphers and digests: the shared tables of the table-driven AES, the start code of
// a clear frame, and the building blocks of the frame cipher modes.
#pragma once

#include <stdint.h>

#include <atomic>

#include "korvex/korvex.h"

enum { KX_AES_BLOCK = 16, KX_AES128_KEY = 16 };

// Tables of the table-driven AES, written once by gen_tabs and read-only afterwards.
extern uint8_t pow_tab[256];  // powers of the generator 3 in GF(2^8), polynomial 0x11B
extern uint8_t log_tab[256];  // their logarithms
extern uint8_t sbx_tab[256];  // S-box
extern uint8_t isb_tab[256];  // inverse S-box
extern uint32_t rco_tab[10];  // round constants
extern uint32_t ft_tab[4][256];  // forward round: SubBytes + MixColumns of one byte, per row
extern uint32_t it_tab[4][256];  // inverse round: InvSubBytes + InvMixColumns of one byte, per row
extern uint32_t fl_tab[4][256];  // forward last round: S-box value in byte k of the word
extern uint32_t il_tab[4][256];  // inverse last round
// 1 once every table above is complete (stored last, with release order).
extern std::atomic<int> tab_gen;

// One block of AES-128 with the table-driven cipher: the same result as set_key with 128 bits and
// encrypt, without the decryption schedule that set_key also builds.
void aes128_encrypt_block(const unsigned char *key, const unsigned char *in, unsigned char *out);

// 00 00 00 01: the Annex B start code with which the payload of a clear frame begins.
extern const unsigned char cValidFrameFlag[4];

// The key stream block S of the plain frame cipher: the counter (least significant byte first, then
// 12 zero bytes) enciphered with the table-driven AES under the key fitted by expand_key. A key that
// expand_key refuses leaves the AES key at 16 zero bytes.
void frame_key_stream_block(uint32_t counter, const unsigned char *key, int key_len, unsigned char s[16]);

// The 64-byte key stream K of the enhanced frame cipher: the MD5 of the counter's four bytes
// enciphered under a 16-byte key area and three further rotations of it. The area holds the first
// key_len bytes at `key` (at most 16), the rest zero: nothing past the caller's key is read, and a key
// followed by zeros in memory gives the same stream as before. -1 when a step fails.
int frame_key_stream_ex(uint32_t counter, const unsigned char *key, int key_len, unsigned char k[64]);

// The enhanced cipher with the start-code test as a switch. With check_start_code 0 it still refuses
// buffers below four bytes (they could never pass the test when deciphered) and bad arguments.
int video_aes_ctr_ex_apply(unsigned char *buf, int buf_len, uint32_t counter, const unsigned char *key, int key_len,
                           int check_start_code);
