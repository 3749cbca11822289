#include "net/DTSock.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "dtnetns.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t MsSince(Clock::time_point t0) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

int LocalPort(int sock) {
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    getsockname(sock, reinterpret_cast<sockaddr *>(&sa), &len);
    return ntohs(sa.sin_port);
}

int BroadcastPermission(int sock) {
    int on = -1;
    socklen_t len = sizeof on;
    getsockopt(sock, SOL_SOCKET, SO_BROADCAST, &on, &len);
    return on;
}

// The next datagram's text, or "(none)" when nothing came within 500 ms.
std::string Next(int sock, int *fromPort = nullptr) {
    pollfd p{sock, POLLIN, 0};
    if (poll(&p, 1, 500) != 1) return "(none)";
    char buf[2000];
    char from[16];
    int32_t port = 0;
    int32_t n = DTSock_UDP_RecvMessage(sock, from, &port, buf, sizeof buf - 1);
    if (fromPort) *fromPort = port;
    return n < 0 ? "(error)" : std::string(buf, n);
}

TEST(DTSock, RefusedSendsSendNothing) {
    int rx = DTSock_UDP_Create("127.0.0.1", 8999);
    ASSERT_GE(rx, 0);
    int tx = DTSock_UDP_Create(nullptr, 0);
    EXPECT_EQ(DTSock_UDP_SendMessage(tx, nullptr, 8999, "x", 1), 0);
    EXPECT_EQ(DTSock_UDP_SendMessage(tx, "127.0.0.1", 8999, nullptr, 1), -1);
    EXPECT_EQ(DTSock_UDP_SendMessage(tx, "127.0.0.1", 8999, "\0x", 2), -1);
    EXPECT_EQ(DTSock_UDP_SendMessage(tx, "127.0.0.1", -1, "x", 1), -1);
    EXPECT_EQ(DTSock_UDP_SendMessage(tx, "127.0.0.1", 8999, "x", -1), -1);
    EXPECT_EQ(DTSock_UDP_SendMessage(tx, "127.0.0.1", 8999, "ok", 2), 2);
    EXPECT_EQ(Next(rx), "ok");  // the first datagram to arrive
    EXPECT_EQ(DTSock_UDP_SendMessage(tx, "127.0.0.1", 8999, "zz", 0), 0);
    EXPECT_EQ(Next(rx), "");
    // Receive refusals: no buffer at all, and a negative size taken as 0.
    DTSock_UDP_SendMessage(tx, "127.0.0.1", 8999, "abc", 3);
    char from[16];
    int32_t port = 0;
    EXPECT_EQ(DTSock_UDP_RecvMessage(rx, from, &port, nullptr, 8), -1);
    char buf[4] = "xyz";
    EXPECT_EQ(DTSock_UDP_RecvMessage(rx, from, &port, buf, -5), 0);
    EXPECT_EQ(buf[0], 0);
    DTSock_UDP_Close(tx);
    DTSock_UDP_Close(rx);
}

TEST(DTSock, CreateBindsOnlyWithAddressAndPort) {
    int bound = DTSock_UDP_Create("0.0.0.0", 8998);
    ASSERT_GE(bound, 0);
    EXPECT_EQ(LocalPort(bound), 8998);
    EXPECT_EQ(DTSock_UDP_Create("0.0.0.0", 8998), -1);  // taken
    EXPECT_EQ(DTSock_UDP_Create("192.0.2.1", 8999), -1);
    for (int s : {DTSock_UDP_Create(nullptr, 8998), DTSock_UDP_Create("0.0.0.0", 0),
                  DTSock_UDP_Create("0.0.0.0", -5)}) {
        ASSERT_GE(s, 0);
        EXPECT_EQ(LocalPort(s), 0);
        DTSock_UDP_Close(s);
    }
    DTSock_UDP_Close(bound);
}

TEST(DTSock, WaitLimits) {
    int rx = DTSock_UDP_Create("127.0.0.1", 8999);
    int tx = DTSock_UDP_Create(nullptr, 0);
    ASSERT_GE(rx, 0);
    char addr[16] = "127.0.0.1";
    int32_t port = 8999;
    char data[64] = "ping";
    Clock::time_point t0 = Clock::now();
    EXPECT_EQ(DTSock_UDP_GetMessage(tx, addr, &port, data, 4, 63, 1500), 0);
    EXPECT_GE(MsSince(t0), 1450);
    EXPECT_LT(MsSince(t0), 3000);
    t0 = Clock::now();
    EXPECT_EQ(DTSock_UDP_GetMessage(tx, addr, &port, data, 4, 63, -2), 0);
    EXPECT_LT(MsSince(t0), 300);
    EXPECT_EQ(Next(rx), "ping");  // each call sent once
    EXPECT_EQ(Next(rx), "ping");
    EXPECT_EQ(Next(rx), "(none)");

    // No limit: the reply comes later than any fixed wait the call might use.
    std::thread replier([&] {
        char buf[64];
        char from[16];
        int32_t fromPort = 0;
        DTSock_UDP_RecvMessage(rx, from, &fromPort, buf, 63);
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        DTSock_UDP_SendMessage(rx, from, fromPort, "pong", 4);
    });
    memset(data, 'x', sizeof data);
    memcpy(data, "ping", 4);
    t0 = Clock::now();
    EXPECT_EQ(DTSock_UDP_GetMessage(tx, addr, &port, data, 4, 63, -1), 4);
    EXPECT_GE(MsSince(t0), 1150);
    replier.join();
    EXPECT_STREQ(data, "pong");
    EXPECT_STREQ(addr, "127.0.0.1");
    EXPECT_EQ(port, 8999);
    DTSock_UDP_Close(tx);
    DTSock_UDP_Close(rx);
}

TEST(DTSock, DescriptorPastTheWaitSetSendsAndGivesZero) {
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    if (lim.rlim_max <= 1500) GTEST_SKIP() << "descriptor limit " << lim.rlim_max << " is below 1501";
    lim.rlim_cur = lim.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lim), 0);
    int rx = DTSock_UDP_Create("127.0.0.1", 8999);
    int low = DTSock_UDP_Create(nullptr, 0);
    ASSERT_EQ(dup2(low, 1500), 1500);
    char addr[16] = "127.0.0.1";
    int32_t port = 8999;
    char data[8] = "hi";
    EXPECT_EQ(DTSock_UDP_GetMessage(1500, addr, &port, data, 2, 7, 100), 0);
    EXPECT_EQ(Next(rx), "hi");
    DTSock_UDP_Close(1500);
    DTSock_UDP_Close(low);
    DTSock_UDP_Close(rx);
}

// The broadcast permission follows each destination, on one socket.
TEST(DTSock, BroadcastThenUnicastInPrivateNetwork) {
    dttest::NetnsPair ns;
    std::string why = ns.Make();
    if (!why.empty()) GTEST_SKIP() << why;
    ASSERT_TRUE(ns.EnterServer());
    int rx = DTSock_UDP_Create("0.0.0.0", 8999);
    ASSERT_TRUE(ns.EnterDevice());
    int tx = DTSock_UDP_Create("0.0.0.0", 8998);
    ASSERT_GE(rx, 0);
    ASSERT_GE(tx, 0);
    const struct {
        const char *to;
        int permission;
    } sends[] = {{"<BROADCAST>", 1}, {"10.99.0.2", 0}, {"<BROADCAST>", 1}};
    for (const auto &s : sends) {
        EXPECT_EQ(DTSock_UDP_SendMessage(tx, s.to, 8999, s.to, 3), 3) << s.to;
        EXPECT_EQ(BroadcastPermission(tx), s.permission) << s.to;
        int from = 0;
        EXPECT_EQ(Next(rx, &from), std::string(s.to, 3));
        EXPECT_EQ(from, 8998);
    }
    DTSock_UDP_Close(tx);
    DTSock_UDP_Close(rx);
}

}  // namespace
