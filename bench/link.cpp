// A link over loopback against raw send/recv of the same bytes: packets per second and bytes per
// second, each way. Every iteration moves one batch of command packets. On the receive side one
// batch stays in flight (an iteration waits for the batch before its own), so the receiver always
// has bytes waiting; on the send side an iteration waits until the other side has all of them.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "link/link_internal.h"

namespace {

constexpr int kBatch = 4096;

int listener(uint16_t *port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    bind(fd, reinterpret_cast<sockaddr *>(&a), len);
    listen(fd, 4);
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    *port = ntohs(a.sin_port);
    return fd;
}

// Both sides of every connection send at once, so that Nagle's algorithm does not time the runs.
int nodelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return fd;
}

int accept_nodelay(int lfd) { return nodelay(accept(lfd, nullptr, nullptr)); }

int connect_nodelay(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a));
    return nodelay(fd);
}

// A batch of command packets as the link writes them (remote 127.0.0.1, no local text).
std::string batch(int body) {
    std::string one(20 + (size_t)body, 'b');
    uint8_t head[20];
    link_write_command_head(head, 0, body, inet_addr("127.0.0.1"), INADDR_NONE);
    memcpy(&one[0], head, 20);
    std::string all;
    for (int i = 0; i < kBatch; i++) all += one;
    return all;
}

void send_all(int fd, const char *p, size_t n) {
    for (size_t off = 0; off < n;) {
        ssize_t r = send(fd, p + off, n - off, MSG_NOSIGNAL);
        if (r <= 0) return;
        off += (size_t)r;
    }
}
void send_all(int fd, const std::string &s) { send_all(fd, s.data(), s.size()); }

// Reads and counts bytes, at most chunk at a time, until the peer closes.
struct Reader {
    std::atomic<uint64_t> bytes{0};
    std::thread thread;
    explicit Reader(int fd, size_t chunk = 65536) {
        thread = std::thread([this, fd, chunk] {
            char buf[65536];
            for (ssize_t n; (n = recv(fd, buf, chunk, 0)) > 0;) bytes += (uint64_t)n;
        });
    }
    void wait(uint64_t want) {
        while (bytes.load() < want) std::this_thread::yield();
    }
};

struct LinkEnd {
    std::atomic<uint64_t> packets{0};
    _NetLink *link = nullptr;
    int peer = -1;
    static int count(_NetLink *, void *u, int, char *, int) {
        static_cast<LinkEnd *>(u)->packets++;
        return 0;
    }
    explicit LinkEnd(int lfd, uint16_t port) {
        sdk_log_set_level(SDK_LOG_LEVEL_ERR, SDK_LOG_LEVEL_ERR, 0);
        sdk_os_startup(0, 1);
        link = net_link_create();
        net_link_set_udata(link, this);
        net_link_bind_parase_protocol(link, count);
        _NetTcpClient *client = net_tcp_client_create();
        net_tcp_client_set_remote(client, "127.0.0.1", port);
        net_link_set_core(link, client);
        net_tcp_client_open(client, -1);
        peer = accept_nodelay(lfd);
        while (net_tcp_client_get_status(client) != 2) std::this_thread::yield();
        nodelay(client->connectfd);
    }
    ~LinkEnd() {
        net_link_destroy(link);
        close(peer);
    }
};

void finish(benchmark::State &state, size_t batch_bytes) {
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.SetBytesProcessed(state.iterations() * (int64_t)batch_bytes);
}

void BM_LinkReceive(benchmark::State &state) {
    uint16_t port;
    int lfd = listener(&port);
    std::string bytes = batch((int)state.range(0));
    LinkEnd end(lfd, port);
    uint64_t want = 0;
    for (auto _ : state) {
        send_all(end.peer, bytes);
        want += kBatch;
        while (end.packets.load() + kBatch < want) std::this_thread::yield();
    }
    while (end.packets.load() < want) std::this_thread::yield();
    finish(state, bytes.size());
    close(lfd);
}

// The reader takes at most state.range(1) bytes per recv: 2048 is what fits the link's buffer.
void BM_RawReceive(benchmark::State &state) {
    uint16_t port;
    int lfd = listener(&port);
    std::string bytes = batch((int)state.range(0));
    int out = connect_nodelay(port);
    int in = accept_nodelay(lfd);
    Reader reader(in, (size_t)state.range(1));
    uint64_t want = 0;
    for (auto _ : state) {
        send_all(out, bytes);
        want += bytes.size();
        reader.wait(want - bytes.size());
    }
    reader.wait(want);
    finish(state, bytes.size());
    close(out);
    reader.thread.join();
    close(in);
    close(lfd);
}

void BM_LinkSend(benchmark::State &state) {
    uint16_t port;
    int lfd = listener(&port);
    int body = (int)state.range(0);
    std::string payload((size_t)body, 'b');
    LinkEnd *end = new LinkEnd(lfd, port);
    Reader reader(end->peer);
    uint64_t want = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; i++) net_link_send_command(end->link, payload.data(), body);
        want += (uint64_t)kBatch * (20 + (uint64_t)body);
        reader.wait(want);
    }
    finish(state, (size_t)kBatch * (20 + (size_t)body));
    net_link_destroy(end->link);  // the reader sees the close and ends
    end->link = nullptr;
    reader.thread.join();
    delete end;
    close(lfd);
}

void BM_RawSend(benchmark::State &state) {
    uint16_t port;
    int lfd = listener(&port);
    std::string bytes = batch((int)state.range(0));
    size_t one = bytes.size() / kBatch;
    int out = connect_nodelay(port);
    int in = accept_nodelay(lfd);
    Reader reader(in);
    uint64_t want = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; i++) send_all(out, bytes.data() + i * one, one);
        want += bytes.size();
        reader.wait(want);
    }
    finish(state, bytes.size());
    close(out);
    reader.thread.join();
    close(in);
    close(lfd);
}

// Bulk data: each call hands kMessage bytes to net_link_send_data, which cuts them into chunks of
// 1440 with a data head each; the raw peer sends the same count of wire bytes in one send.
constexpr int kMessage = 65536, kMessages = 64;
constexpr size_t kMessageWire = kMessage + 20 * ((kMessage + 1439) / 1440);

void BM_LinkSendData(benchmark::State &state) {
    uint16_t port;
    int lfd = listener(&port);
    std::string message(kMessage, 'd');
    LinkEnd *end = new LinkEnd(lfd, port);
    Reader reader(end->peer);
    uint64_t want = 0;
    for (auto _ : state) {
        for (int i = 0; i < kMessages; i++) net_link_send_data(end->link, message.data(), kMessage);
        want += kMessages * kMessageWire;
        reader.wait(want);
    }
    state.SetBytesProcessed(state.iterations() * kMessages * (int64_t)kMessageWire);
    net_link_destroy(end->link);
    end->link = nullptr;
    reader.thread.join();
    delete end;
    close(lfd);
}

// state.range(0) 1: the same sends as the link makes, a head and a body apart for each chunk.
void BM_RawSendData(benchmark::State &state) {
    uint16_t port;
    int lfd = listener(&port);
    std::string wire(kMessageWire, 'd');
    int out = connect_nodelay(port);
    int in = accept_nodelay(lfd);
    Reader reader(in);
    uint64_t want = 0;
    for (auto _ : state) {
        for (int i = 0; i < kMessages; i++) {
            if (state.range(0) == 0) {
                send_all(out, wire);
                continue;
            }
            for (size_t off = 0; off < kMessageWire; off += 1460) {
                size_t n = kMessageWire - off < 1460 ? kMessageWire - off : 1460;
                send_all(out, wire.data() + off, 20);
                send_all(out, wire.data() + off + 20, n - 20);
            }
        }
        want += kMessages * kMessageWire;
        reader.wait(want);
    }
    state.SetBytesProcessed(state.iterations() * kMessages * (int64_t)kMessageWire);
    close(out);
    reader.thread.join();
    close(in);
    close(lfd);
}

}  // namespace

BENCHMARK(BM_LinkSendData)->UseRealTime();
BENCHMARK(BM_RawSendData)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_LinkReceive)->Arg(64)->Arg(1440)->UseRealTime();
BENCHMARK(BM_RawReceive)->Args({64, 65536})->Args({1440, 65536})->Args({64, 2048})->Args({1440, 2048})->UseRealTime();
BENCHMARK(BM_LinkSend)->Arg(64)->Arg(1440)->UseRealTime();
BENCHMARK(BM_RawSend)->Arg(64)->Arg(1440)->UseRealTime();
BENCHMARK_MAIN();
