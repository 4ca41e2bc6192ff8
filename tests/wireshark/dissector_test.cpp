// The Wireshark dissector tools/wireshark/korvex_link.lua, run by tshark over captures written here
// with libpcap: a link session recorded over loopback, cut into TCP segments on purpose, and
// captures of mutated and random bytes.
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <vector>

#include "korvex/korvex.h"
#include "net/tcp_peer.h"

namespace {

// Writes a TCP connection between 127.0.0.1:51000 (side 0, the client) and 127.0.0.1:port (side 1)
// as Ethernet frames through libpcap's dump API.
class Capture {
public:
    Capture(const std::string &path, uint16_t port) : port_{51000, port} {
        pcap_ = pcap_open_dead(DLT_EN10MB, 65535);
        dump_ = pcap_dump_open(pcap_, path.c_str());
        segment(0, 0x02, ""), segment(1, 0x12, ""), segment(0, 0x10, "");  // SYN, SYN-ACK, ACK
    }
    ~Capture() { pcap_dump_close(dump_), pcap_close(pcap_); }
    // One segment from side `from`; keep < payload size truncates the frame as a short snaplen does.
    void segment(int from, uint8_t flags, const std::string &payload, size_t keep = SIZE_MAX) {
        using namespace std::string_literals;  // the literals hold zero bytes
        std::string f = std::string(12, '\0') + "\x08\x00\x45"s + std::string(7, '\0') + "\x40\x06"s +
                        std::string(2, '\0') + "\x7f\0\0\x01\x7f\0\0\x01"s + std::string(20, '\0') + payload;
        put(&f[16], 40 + payload.size(), 2);
        put(&f[34], port_[from], 2), put(&f[36], port_[1 - from], 2);
        put(&f[38], seq_[from], 4), put(&f[42], (flags & 0x10) ? seq_[1 - from] : 0, 4);
        f[46] = 0x50, f[47] = (char)flags, put(&f[48], 65535, 2);
        seq_[from] += (uint32_t)payload.size() + ((flags & 0x02) ? 1 : 0);
        pcap_pkthdr h = {};
        h.ts.tv_sec = 1795000000, h.ts.tv_usec = (suseconds_t)(frames_++ * 1000);
        h.len = (uint32_t)f.size();
        h.caplen = (uint32_t)std::min(f.size(), 54 + std::min(keep, payload.size()));
        pcap_dump(reinterpret_cast<u_char *>(dump_), &h, reinterpret_cast<const u_char *>(f.data()));
    }
    void data(int from, const std::string &payload) { segment(from, 0x18, payload); }
    void skip(int from, uint32_t n) { seq_[from] += n; }  // bytes never captured

private:
    static void put(char *p, uint64_t v, int n) { for (int i = 0; i < n; i++) p[i] = (char)(v >> (8 * (n - 1 - i))); }
    pcap_t *pcap_;
    pcap_dumper_t *dump_;
    uint16_t port_[2];
    uint32_t seq_[2] = {1000, 5000};
    int frames_ = 0;
};

// What tshark writes to standard output with the dissector loaded; its standard error goes to *err.
// An empty home keeps the user's preferences and plugins (an installed copy of the dissector) out.
std::string tshark(const std::string &args, std::string *err) {
    std::string err_path = std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".stderr";
    std::string cmd = "HOME=$PWD/tshark-home XDG_CONFIG_HOME=$PWD/tshark-home " KORVEX_TSHARK " -n -X lua_script:"
                      KORVEX_DISSECTOR " " + args + " 2>" + err_path;
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    char buf[4096];
    for (size_t r; p && (r = fread(buf, 1, sizeof(buf), p)) > 0;) out.append(buf, r);
    EXPECT_EQ(p ? pclose(p) : -1, 0) << cmd;
    std::ifstream in(err_path);
    err->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return out;
}

// The byte streams of a link session between two links over loopback: each link's client connects to
// a plain listener, which records exactly what the link's send path put on the socket.
struct Session {
    std::vector<std::string> sent[2];  // side 0 the client's packets, side 1 the device's
};

Session record_session() {
    Session s;
    EXPECT_TRUE(sdk_os_startup(0, 4));
    int listener[2], peer[2];
    _NetLink *link[2];
    for (int i = 0; i < 2; i++) {
        uint16_t port = 0;
        listener[i] = listen_on("127.0.0.1", &port);
        link[i] = net_link_create();
        _NetTcpClient *client = net_tcp_client_create();
        net_tcp_client_set_remote(client, "127.0.0.1", port);
        net_link_set_core(link[i], client);
        net_tcp_client_open(client, -1);
        peer[i] = accept_within(listener[i]);
    }
    // How a side sends: 'c' a command packet, 'd' data packets, 'r' the bytes as they are.
    auto send = [&](int side, char how, const std::string &b) {
        auto call = how == 'c' ? net_link_send_command : how == 'd' ? net_link_send_data : net_link_send_package;
        call(link[side], b.data(), (int)b.size());
        s.sent[side].push_back(read_n(peer[side], b.size() + (how == 'r' ? 0 : 20)));
    };
    using namespace std::string_literals;
    send(0, 'c', "CMD\tGET\tVERSION\n\n\n");
    send(0, 'c', "CMD\tSET\tTIME\t2026-11-23T12:00:00Z\n\n\n");
    send(0, 'c', "CMD\tGET\tCHANNELS\n\n\n");
    send(0, 'c', "USER\tLOGIN\tadmin\n\n\nCMD\tREBOOT\n\n\n");
    send(0, 'd', std::string(100, 'v'));
    send(1, 'c', "CMD\tGET\tVERSION\tkorvex demo device 1.0\n\n\n");
    send(1, 'c', "CMD\tSET\tTIME\tOK\t2026-11-23T12:00:00Z\n\n\n");
    send(1, 'c', "CMD\tGET\tCHANNELS\t4\n\n\n");
    // Line noise with a command head of length 2000 inside it, which the link passes over as noise.
    send(1, 'r', "line noise \x01\x02\x03 \xF1\xF5\xEA\xF5\0\0\xD0\x07"s + std::string(12, '\0') + " more noise");
    send(1, 'c', "USER\tLOGIN\tOK\n\n\nCMD\tREBOOT\tOK\n\n\n");
    send(1, 'r', "\xE1\0\0\0\0\0\0\0stuck"s);  // an ODNS head of length 0
    for (int i = 0; i < 2; i++) {
        net_link_destroy(link[i]);
        close(peer[i]);
        close(listener[i]);
    }
    sdk_os_cleanup();
    return s;
}

TEST(Dissector, ShowsALinkSessionSegmentedAnyWay) {
    Session s = record_session();
    ASSERT_EQ(s.sent[0].size(), 5u);
    ASSERT_EQ(s.sent[1].size(), 6u);
    std::string pcap = "korvex_session.pcap";  // in the working directory, the build tree
    {
        Capture c(pcap, 47000);
        const auto &cl = s.sent[0], &dev = s.sent[1];
        c.data(0, cl[0]);
        c.data(1, dev[0]);
        c.data(0, cl[1].substr(0, 7));  // one packet over three segments, the head cut too
        c.data(0, cl[1].substr(7, 17));
        c.data(0, cl[1].substr(24));
        c.data(1, dev[1]);
        c.data(0, cl[2] + cl[3]);  // two packets in one segment
        c.data(1, dev[2]);
        c.data(0, cl[4]);
        c.data(1, dev[3] + dev[4]);  // noise, then a packet
        c.data(1, dev[5]);
    }
    const std::string fields = " -T fields -e frame.number -e korvex.seq -e korvex.cmd -e korvex.param -e _ws.expert.message";
    std::string err;
    std::string out = tshark("-r " + pcap + " -Y korvex" + fields, &err);
    EXPECT_EQ(out,
              "4\t0\tCMD GET VERSION\t\t\n"
              "5\t0\tCMD GET VERSION\tkorvex demo device 1.0\t\n"
              "8\t1\tCMD SET TIME\t2026-11-23T12:00:00Z\t\n"
              "9\t1\tCMD SET TIME OK\t2026-11-23T12:00:00Z\t\n"
              "10\t2,3\tCMD GET CHANNELS,USER LOGIN,CMD REBOOT\tadmin\t\n"
              "11\t2\tCMD GET CHANNELS\t4\t\n"
              "12\t4\t\t\t\n"
              "13\t3\tUSER LOGIN OK,CMD REBOOT OK\t\t"
              "Noise: the link passes over 46 bytes,Length 2000 above 1460: the link treats this head as noise\n"
              "14\t\t\t\tLength 0 outside 1 to 2048: the head never completes, the link stops here\n")
        << err;
    EXPECT_EQ(err.find("Lua"), std::string::npos) << err;

    // The same through the port preference, with the heuristic off.
    std::string by_port = tshark("-r " + pcap + " --disable-heuristic korvex_tcp -o korvex.port:47000 -Y korvex" + fields, &err);
    EXPECT_EQ(by_port, out) << err;
    std::string none = tshark("-r " + pcap + " --disable-heuristic korvex_tcp -Y korvex" + fields, &err);
    EXPECT_EQ(none, "") << err;

    // Head fields by name, addresses in dotted form (a client has no local address text after a connect).
    std::string heads = tshark("-r " + pcap + " -Y \"frame.number==4 || korvex.type==1\" -T fields -e korvex.magic "
                               "-e korvex.remote_ip -e korvex.local_ip -e korvex.package_len -e korvex.data_len "
                               "-e korvex.constant -e korvex.key", &err);
    EXPECT_EQ(heads, "0xf5eaf5f1\t127.0.0.1\t255.255.255.255\t38\t18\t\tCMD,GET,VERSION\n"
                     "0xf9eaf5f1\t\t255.255.255.255\t120\t\t1\t\n") << err;
}

// Heads of all four kinds with every kind of length, heads cut short, noise, command texts, random
// bytes and mutations, in segments with retransmissions, gaps and truncated frames: every frame dissects, and no Lua error shows in the tree or on standard error.
TEST(Dissector, SurvivesMalformedCaptures) {
    std::mt19937 rng(19);
    auto pick = [&](uint32_t n) { return (uint32_t)(rng() % n); };
    const char *heads[] = {"\xF1\xF5\xEA\xF5", "\xF1\xF5\xEA\xF9", "\xE1\x00\x00\x00", "MOBILEDEVICEIRRIHEAD"};
    const uint32_t lengths[] = {0, 1, 7, 8, 19, 20, 21, 64, 1460, 1461, 2048, 2049, 65535, 0xFFFFFFFF, 0x80000000};
    std::string pcap = "korvex_malformed.pcap";
    {
        Capture c(pcap, 47001);
        for (int i = 0; i < 400; i++) {
            std::string p;
            while (p.size() < 200 + pick(1300)) {
                if (pick(3) == 0) {
                    for (int j = pick(40); j > 0; j--) p += (char)pick(256);  // noise
                    continue;
                }
                int h = (int)pick(4);
                std::string head = heads[h];
                if (pick(8) == 0) head.resize(pick((uint32_t)head.size()));  // a head cut short
                p += head;
                uint32_t len = pick(4) ? lengths[pick(15)] : pick(1600);
                std::string rest(h == 2 ? 4 : 16, '\0');
                for (int b = 0; b < 4; b++) rest[(h == 1 ? 10 : h == 0 ? 2 : 0) + b] = (char)(len >> (8 * b));
                if (h != 3) p += rest;
                if (pick(4) == 0) p += "CMD\tGET\tA\tb\n\n\nUSER\t\t\tx" + std::string(pick(300), pick(2) ? '\t' : 'K');
                for (uint32_t j = pick(1500); j > 0; j--) p += (char)(pick(2) ? pick(256) : "\t\n\nA"[pick(4)]);
            }
            if (pick(10) == 0) p[pick((uint32_t)p.size())] ^= (char)(1 + pick(255));
            p.resize(std::min<size_t>(p.size(), 1460));
            int from = (int)pick(2);
            switch (pick(20)) {
            case 0: c.data(from, p), c.skip(from, 0u - (uint32_t)p.size()), c.data(from, p); break;  // retransmitted
            case 1: c.skip(from, 1 + pick(3000)); break;                                    // a gap
            case 2: c.segment(from, 0x18, p, pick((uint32_t)p.size())); break;              // truncated frame
            default: c.data(from, p);
            }
        }
    }
    std::string err;
    std::string out = tshark("-r " + pcap + " -V", &err);
    EXPECT_EQ(out.find("Lua Error"), std::string::npos);
    EXPECT_EQ(err.find("Lua"), std::string::npos) << err;
    EXPECT_NE(out.find("korvex link protocol"), std::string::npos);
}

}  // namespace
