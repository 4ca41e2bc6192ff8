/* korvex demo: starts the library, lets a timer tick a few times on the event thread, and stops. */
#include <korvex/korvex.h>
#include <stdio.h>

static volatile int s_ticks;

static int on_tick(void *udata) {
    const char *name = (const char *)udata;
    s_ticks++;
    printf("%s: tick %d\n", name, s_ticks);
    fflush(stdout);
    return 0;
}

int main(void) {
    if (!sdk_os_startup(0, 4)) {
        fprintf(stderr, "korvex failed to start\n");
        return 1;
    }
    _SdkTimer *timer = sdk_timer_create(on_tick, 1000, (void *)"timer");
    if (timer == NULL) return 1;
    /* Timers fire on the event thread once a second; wait (bounded) for three ticks. */
    for (int i = 0; i < 100 && s_ticks < 3; i++) sdk_os_sleep(100);
    sdk_timer_destroy(timer);
    sdk_os_cleanup();
    printf("demo done after %d ticks\n", s_ticks);
    return s_ticks >= 3 ? 0 : 1;
}
