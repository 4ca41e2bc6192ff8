/* A program with globals and functions of its own that bear the names of internal ones of the library
 * (its AES tables, its log state), linked with the installed static library: it links, and both the
 * program's names and the library's AES and log work as they should. */
#include <korvex/korvex.h>
#include <stdio.h>
#include <string.h>

unsigned char pow_tab[256] = {1};
unsigned char log_tab[256] = {2};
int s_log_level = 3;
const char *s_log_path = "mine";
void tab_gen(void) {
    pow_tab[0] = 9;
}

int main(void) {
    /* FIPS 197, appendix C.1. */
    static const unsigned char key[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    static const unsigned char plain[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                            0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
    static const unsigned char want[16] = {0x69, 0xc4, 0xe0, 0xd8, 0x6a, 0x7b, 0x04, 0x30,
                                           0xd8, 0xcd, 0xb7, 0x80, 0x70, 0xb4, 0xc5, 0x5a};
    STR_AES aes;
    unsigned char out[16];
    memset(&aes, 0, sizeof(aes));
    set_key(&aes, key, 128);
    encrypt(&aes, plain, out);
    sdk_log_msg("clash.c: AES done");
    tab_gen();
    if (memcmp(out, want, 16) != 0 || pow_tab[0] != 9 || log_tab[0] != 2 || s_log_level != 3 ||
        strcmp(s_log_path, "mine") != 0)
        return 1;
    puts("clash.c ok");
    return 0;
}
