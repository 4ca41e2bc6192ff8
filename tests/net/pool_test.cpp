// The pools: max(clientnum, 200) client slots, servernum server and UDP slots, and the slot rules.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "net/net_internal.h"
#include "support/stderr_capture.h"

class ClientPool : public ::testing::TestWithParam<uint32_t> {};

TEST_P(ClientPool, HoldsMaxOfClientnumAnd200Slots) {
    const uint32_t want = GetParam() > 200 ? GetParam() : 200;
    ASSERT_EQ(1, sdk_os_startup(GetParam(), 3));
    EXPECT_EQ(want, pool_client_max());
    EXPECT_EQ(3u, pool_server_max());
    EXPECT_EQ(3u, pool_udp_max());
    std::vector<_NetTcpClient *> all;
    for (uint32_t i = 0; i < want; i++) {
        all.push_back(net_tcp_client_create());
        ASSERT_NE(nullptr, all.back()) << i;
        EXPECT_EQ((int32_t)i, all.back()->index);
    }
    StderrCapture cap;
    cap.start();
    EXPECT_EQ(nullptr, net_tcp_client_create());
    EXPECT_NE(cap.stop().find("client num out\n"), std::string::npos);
    for (auto *c : all) EXPECT_EQ(1, net_tcp_client_destroy(c));
    EXPECT_EQ(0u, pool_client_used());
}

INSTANTIATE_TEST_SUITE_P(Sizes, ClientPool, ::testing::Values(0u, 5u, 200u, 1000u));

TEST(Pool, SlotRules) {
    ASSERT_EQ(1, sdk_os_startup(5, 3));
    _NetTcpClient *a = pool_take_client();
    _NetTcpClient *b = pool_take_client();
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(a->index == 0 && b->index == 1 && a->type == 1);
    EXPECT_LT(a->session, b->session);
    uint32_t old_session = a->session;
    a->status = 2;
    EXPECT_EQ(1, pool_give_client(a));
    EXPECT_EQ(0, pool_give_client(a));  // already free
    _NetTcpClient *c = pool_take_client();
    EXPECT_EQ(a, c);  // lowest free slot first, zeroed, fresh session
    EXPECT_EQ(0, c->status);
    EXPECT_GT(c->session, old_session);
    EXPECT_EQ(2u, pool_client_used());

    StderrCapture cap;
    cap.start();
    _NetUdpClient *u[4];
    for (auto &x : u) x = pool_take_udp();
    EXPECT_TRUE(u[0] && u[1] && u[2] && u[3] == nullptr);
    EXPECT_EQ(4, u[0]->type);
    EXPECT_NE(cap.stop().find("udp num out\n"), std::string::npos);
}
