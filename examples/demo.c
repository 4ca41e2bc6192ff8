/* korvex demo: one device session over loopback.
 *
 * Device side (its own thread): a TCP server from the library's pool listens on 127.0.0.1; the
 * device polls it with net_tcp_server_accept, adopts the connection into a TCP client, reads the
 * command packets, and runs each package through its command engine. The command callbacks
 * answer over a link on the same connection.
 *
 * Client side: a link on a TCP client that the event thread serves. It sends a few command
 * packages and prints every answer its parser receives, then says "bye". */
#include <arpa/inet.h>
#include <korvex/korvex.h>
#include <netinet/in.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

static _NetTcpServer *s_server;
static atomic_int s_answers;
static atomic_int s_closed;

/* ---- device side ---- */

static int answer(tagAnalyzeParam *p, const char *text) {
    return net_link_send_command((_NetLink *)p->user_data, text, (int)strlen(text)) < 0 ? -1 : 0;
}

static int on_unknown(tagAnalyzeParam *p) { return answer(p, "CMD\tERROR\tunknown command\n\n\n"); }
static int on_get_version(tagAnalyzeParam *p) { return answer(p, "CMD\tGET\tVERSION\tkorvex demo device 1.0\n\n\n"); }
static int on_get_channels(tagAnalyzeParam *p) { return answer(p, "CMD\tGET\tCHANNELS\t4\n\n\n"); }

/* CMD SET TIME <time>: one parameter, behind the three keys. */
static int on_set_time(tagAnalyzeParam *p) {
    char reply[320];
    if (p->param_num != 1) return answer(p, "CMD\tSET\tTIME\tERROR\tone parameter expected\n\n\n");
    snprintf(reply, sizeof(reply), "CMD\tSET\tTIME\tOK\t%s\n\n\n", p->words[p->key_num]);
    return answer(p, reply);
}

/* Reads exactly n bytes from the adopted, non-blocking connection. 0, or -1 once the peer has gone. */
static int read_full(_NetTcpClient *conn, char *buf, int n) {
    for (int got = 0; got < n;) {
        int r = net_tcp_client_read(conn, buf + got, (uint32_t)(n - got));
        if (r < 0) return -1;
        if (r == 0) sdk_os_sleep(1); /* nothing yet */
        got += r;
    }
    return 0;
}

static void *device(void *arg) {
    (void)arg;
    _TProtFrame *commands = pap_init();
    /* Inner keys take the callback of the first path that creates them: register them first with
     * the answer for commands the device doesn't know. */
    pap_regist_cbk_cmd_analyze(commands, "CMD", on_unknown);
    pap_regist_cbk_cmd_analyze(commands, "CMD\tGET", on_unknown);
    pap_regist_cbk_cmd_analyze(commands, "CMD\tSET", on_unknown);
    pap_regist_cbk_cmd_analyze(commands, "CMD\tGET\tVERSION", on_get_version);
    pap_regist_cbk_cmd_analyze(commands, "CMD\tGET\tCHANNELS", on_get_channels);
    pap_regist_cbk_cmd_analyze(commands, "CMD\tSET\tTIME", on_set_time);

    int fd = -1;
    while (net_tcp_server_accept(s_server, &fd) == 0) sdk_os_sleep(1);
    _NetTcpClient *conn = net_tcp_client_create();
    net_tcp_client_open(conn, fd); /* adopts the accepted connection */
    _NetLink *link = net_link_create();
    net_link_set_core(link, conn);
    printf("device: accepted a connection\n");

    for (;;) {
        char head[20], body[1441];
        if (read_full(conn, head, 20) < 0) break;
        int len = (uint8_t)head[18] | (uint8_t)head[19] << 8; /* body length of a command head */
        if (len > 1440 || read_full(conn, body, len) < 0) break;
        body[len] = '\0';
        if (strcmp(body, "bye") == 0) break;
        if (pap_run_cmd_package(commands, body, len, link) < 0) {
            const char *err = "CMD\tERROR\tnot a command package\n\n\n";
            net_link_send_command(link, err, (int)strlen(err));
        }
    }
    net_link_destroy(link); /* closes the connection: the client sees the device go */
    pap_uninit(commands);
    return NULL;
}

/* ---- client side ---- */

/* Prints a command text with its tabs as " | " and without the closing newlines. */
static void print_text(const char *who, const char *data, int len) {
    printf("%s", who);
    for (int i = 0; i < len; i++) {
        if (data[i] == '\t') printf(" | ");
        else if (data[i] != '\n') putchar(data[i]);
    }
    putchar('\n');
}

static int on_packet(_NetLink *link, void *udata, int head_type, char *data, int len) {
    (void)link;
    (void)udata;
    if (head_type == LINK_HEAD_COMMAND && len >= 20) print_text("client: answer   ", data + 20, len - 20);
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

    s_server = net_tcp_server_create();
    net_tcp_server_set_local(s_server, "127.0.0.1", 0); /* the system picks the port */
    if (!net_tcp_server_open(s_server)) return 1;
    struct sockaddr_in addr;
    socklen_t addr_len = sizeof(addr);
    getsockname(s_server->socketfd, (struct sockaddr *)&addr, &addr_len);
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

    const char *commands[] = {"CMD\tGET\tVERSION\n\n\n", "CMD\tGET\tCHANNELS\n\n\n",
                              "CMD\tSET\tTIME\t2026-11-23T12:00:00Z\n\n\n", "CMD\tREBOOT\n\n\n"};
    for (int i = 0; i < 4; i++) {
        print_text("client: command  ", commands[i], (int)strlen(commands[i]));
        fflush(stdout);
        net_link_send_command(link, commands[i], (int)strlen(commands[i]));
        if (!wait_for(&s_answers, i + 1)) return 1;
    }
    net_link_send_command(link, "bye", 3);
    int closed = wait_for(&s_closed, 1);

    sdk_thread_join(&device_thread);
    net_link_destroy(link);
    net_tcp_server_destroy(s_server);
    sdk_os_cleanup();
    printf("demo session done: %d answers, session %s\n", atomic_load(&s_answers), closed ? "closed" : "still open");
    return closed ? 0 : 1;
}
