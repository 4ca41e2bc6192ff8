/* korvex demo: one device session over loopback.
 *
 * The device side listens on 127.0.0.1 in a thread of its own. It adopts the accepted connection
 * with net_tcp_client_open, reads command packets from it directly and answers each through a link
 * of its own. The client side is a link on a client that the event thread serves: it sends three
 * commands and prints every packet its parser receives, then says "bye", and the device ends the
 * session. */
#include <arpa/inet.h>
#include <korvex/korvex.h>
#include <netinet/in.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static int s_listen_fd = -1;
static atomic_int s_answers;
static atomic_int s_closed;

/* ---- device side ---- */

/* Reads exactly n bytes from the adopted (blocking) connection. 0, or -1 once the peer has gone. */
static int read_full(_NetTcpClient *conn, char *buf, int n) {
    for (int got = 0; got < n;) {
        int r = net_tcp_client_read(conn, buf + got, (uint32_t)(n - got));
        if (r < 0) return -1;
        got += r;
    }
    return 0;
}

static void *device(void *arg) {
    (void)arg;
    _NetTcpClient *conn = net_tcp_client_create();
    _NetLink *answers = net_link_create();
    net_tcp_client_open(conn, accept(s_listen_fd, NULL, NULL));
    net_link_set_core(answers, conn);
    for (;;) {
        char head[20], body[1441];
        if (read_full(conn, head, 20) < 0) break;
        int len = (uint8_t)head[18] | (uint8_t)head[19] << 8; /* body length of a command head */
        if (len > 1440 || read_full(conn, body, len) < 0) break;
        body[len] = '\0';
        printf("device: command \"%s\"\n", body);
        if (strcmp(body, "bye") == 0) break;
        const char *answer = "error=unknown command";
        if (strcmp(body, "get_version") == 0) answer = "version=korvex demo device 1.0";
        if (strcmp(body, "get_channels") == 0) answer = "channels=4";
        net_link_send_command(answers, answer, (int)strlen(answer));
    }
    net_link_destroy(answers); /* closes the connection: the client sees the device go */
    return NULL;
}

/* ---- client side ---- */

static int on_packet(_NetLink *link, void *udata, int head_type, char *data, int len) {
    (void)link;
    (void)udata;
    if (head_type == LINK_HEAD_COMMAND && len >= 20) {
        unsigned seq = (uint8_t)data[4] | (uint8_t)data[5] << 8;
        printf("client: answer #%u: %.*s\n", seq, len - 20, data + 20);
    }
    atomic_fetch_add(&s_answers, 1);
    return 0;
}

static int on_disconnect(_NetLink *link, void *udata) {
    (void)link;
    (void)udata;
    printf("client: the device closed the session\n");
    atomic_store(&s_closed, 1);
    return 0;
}

/* Waits up to three seconds for *flag to reach want. */
static int wait_for(atomic_int *flag, int want) {
    for (int i = 0; i < 3000 && atomic_load(flag) < want; i++) sdk_os_sleep(1);
    return atomic_load(flag) >= want;
}

int main(void) {
    sdk_log_set_level(SDK_LOG_LEVEL_ERR, SDK_LOG_LEVEL_ERR, 0); /* errors only on the terminal */
    if (!sdk_os_startup(0, 4)) return 1;

    struct sockaddr_in addr = {0};
    socklen_t addr_len = sizeof(addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    s_listen_fd = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(s_listen_fd, (struct sockaddr *)&addr, addr_len) != 0 || listen(s_listen_fd, 1) != 0) return 1;
    getsockname(s_listen_fd, (struct sockaddr *)&addr, &addr_len);
    sdk_thread_t device_thread;
    if (!sdk_thread_create(&device_thread, 0, device, NULL)) return 1;

    /* Create and bind the link first, then hand it the client, then open. */
    _NetLink *link = net_link_create();
    net_link_bind_parase_protocol(link, on_packet);
    net_link_bind_disconnect_protocol(link, on_disconnect);
    _NetTcpClient *client = net_tcp_client_create();
    net_tcp_client_set_remote(client, "127.0.0.1", ntohs(addr.sin_port));
    net_link_set_core(link, client);
    net_tcp_client_open(client, -1);

    const char *commands[] = {"get_version", "get_channels", "reboot"};
    for (int i = 0; i < 3; i++) {
        printf("client: sending \"%s\"\n", commands[i]);
        fflush(stdout);
        net_link_send_command(link, commands[i], (int)strlen(commands[i]));
        if (!wait_for(&s_answers, i + 1)) return 1;
    }
    net_link_send_command(link, "bye", 3);
    int closed = wait_for(&s_closed, 1);

    sdk_thread_join(&device_thread);
    net_link_destroy(link);
    close(s_listen_fd);
    sdk_os_cleanup();
    printf("demo done: %d answers, session %s\n", atomic_load(&s_answers), closed ? "closed" : "still open");
    return closed ? 0 : 1;
}
