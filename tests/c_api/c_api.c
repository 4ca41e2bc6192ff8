/* Compiles the public header as C11 and links against the shared library: the C road stays open. */
#include <korvex/korvex.h>
#include <stdio.h>

static int ticks;
static int on_tick(void *udata) {
    (void)udata;
    ticks++;
    return 0;
}

int main(void) {
    int level = 0, file_level = 0;
    sdk_log_get_level(&level, &file_level);
    if (level != SDK_LOG_LEVEL_MSG || file_level != SDK_LOG_LEVEL_MSG) return 1;

    _OS_DList *list = adt_dlist_create(sizeof(int));
    int v = 7;
    _OS_DListNode *node = adt_dlist_add(list, NULL, &v);
    if (node == NULL || *(int *)adt_dlist_getdata(node) != 7 || adt_dlist_size(list) != 1) return 2;
    adt_dlist_destroy(list);

    if (sdk_os_startup(0, 1) != 1 || !sdk_is_startup()) return 3;
    _SdkTimer *timer = sdk_timer_create(on_tick, 1000, NULL);
    if (timer == NULL || sdk_timer_destroy(timer) != 1) return 4;
    if (sdk_os_cleanup() != 1) return 5;
    printf("C API ok\n");
    return 0;
}
