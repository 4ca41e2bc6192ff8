/* The smallest C program on korvex: start, log a line, stop. */
#include <korvex/korvex.h>
#include <stdio.h>

int main(void) {
    if (!sdk_os_startup(0, 1)) return 1;
    sdk_log_msg("hello from C, library started: %d", (int)sdk_is_startup());
    sdk_os_cleanup();
    puts("hello.c ok");
    return 0;
}
