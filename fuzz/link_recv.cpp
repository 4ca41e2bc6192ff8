// Fuzzes the receive path of a link: the input arrives over a socket in chunks of varying size, and
// every packet that reaches the parser must lie inside the bytes buffered so far.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "link/link_internal.h"

namespace {

struct State {
    unsigned calls;
    unsigned flags;  // bit 0: answer 999 now and then; bit 1: rebind; bit 2: reply on the link
};

void check(_NetLink *link, int type, char *data, int len) {
    if (type < LINK_HEAD_COMMAND || type > LINK_HEAD_MOBILE || len < 1 || data < link->buf ||
        data + len > link->buf + link->buf_len)
        abort();
}

int second(_NetLink *link, void *u, int type, char *data, int len);

int first(_NetLink *link, void *u, int type, char *data, int len) {
    check(link, type, data, len);
    State *s = static_cast<State *>(u);
    s->calls++;
    if ((s->flags & 4) && s->calls % 3 == 0) net_link_send_command(link, data, len > 1440 ? 1440 : len);
    if ((s->flags & 2) && s->calls % 5 == 0) net_link_bind_parase_protocol(link, second);
    return ((s->flags & 1) && s->calls % 2 == 0) ? 999 : 0;
}

int second(_NetLink *link, void *u, int type, char *data, int len) {
    check(link, type, data, len);
    net_link_bind_parase_protocol(link, first);
    return static_cast<State *>(u)->calls % 7 == 0 ? 999 : 0;
}

void drain(int fd) {
    char buf[4096];
    while (read(fd, buf, sizeof(buf)) > 0) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool quiet = (sdk_log_set_level(0, 0, 0), true);
    (void)quiet;
    if (size < 2 || size > 64 * 1024) return 0;
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return 0;
    fcntl(sv[0], F_SETFL, O_NONBLOCK);
    fcntl(sv[1], F_SETFL, O_NONBLOCK);

    // A connected client record, as the event thread would hand it to the link.
    _NetTcpClient client;
    memset(&client, 0, sizeof(client));
    client.type = 1;
    client.status = 2;
    client.connectfd = sv[0];
    State state = {0, data[1]};
    _NetLink *link = net_link_create();
    net_link_set_udata(link, &state);
    net_link_bind_parase_protocol(link, first);
    net_link_set_core(link, &client);

    size_t chunk = 1 + data[0] % 97u;
    for (size_t off = 2; off < size; off += chunk) {
        size_t n = size - off < chunk ? size - off : chunk;
        if (write(sv[1], data + off, n) != (ssize_t)n) break;
        int r = net_client_read(&client, nullptr);
        if (link->buf_len < 0 || link->buf_len > LINK_BUF_SIZE) abort();
        if (r < 0) break;  // the framing closed the connection
        drain(sv[1]);
    }
    link->client = nullptr;  // not a pool record: the link must not give it back
    net_link_destroy(link);
    close(sv[0]);
    close(sv[1]);
    return 0;
}
