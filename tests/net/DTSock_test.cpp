#include "net/DTSock.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

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

// The next datagram's text, or "(none)" when nothing came within 500 ms.
std::string Next(int sock) {
    pollfd p{sock, POLLIN, 0};
    if (poll(&p, 1, 500) != 1) return "(none)";
    char buf[2000];
    int32_t n = DTSock_UDP_RecvMessage(sock, nullptr, nullptr, buf, sizeof buf - 1);
    return n < 0 ? "(error)" : std::string(buf, n);
}

// Refused calls send nothing: the receiver's first datagram is the first accepted send.
// Equal, so not cases: a receive size clamped to 0 with "<= 0" in place of "< 0" is the
// same size; the socket addresses cleared before use are filled field by field anyway.
TEST(DTSock, RefusalsBindingAndWaits) {
    int rx = DTSock_UDP_Create("127.0.0.1", 8999);
    ASSERT_GE(rx, 0);
    close(0);  // a refused socket that got descriptor 0 must give it back as well
    EXPECT_EQ(DTSock_UDP_Create("127.0.0.1", 8999), -1) << "taken";
    EXPECT_EQ(dup(rx), 0) << "the refused socket is closed";
    for (int s : {DTSock_UDP_Create(nullptr, 8998), DTSock_UDP_Create("0.0.0.0", 0),
                  DTSock_UDP_Create("0.0.0.0", -5)}) {
        EXPECT_EQ(LocalPort(s), 0) << "left unbound";
        DTSock_UDP_Close(s);
    }
    int tx = DTSock_UDP_Create(nullptr, 0);
    int on = 1;  // left by an earlier broadcast; a broadcast itself is the configuration test's
    setsockopt(tx, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    const struct { const char *what, *to; int port; const char *data; int len, result; } sends[] = {
        {"no address", nullptr, 8999, "x", 1, 0},      {"no data", "127.0.0.1", 8999, nullptr, 1, -1},
        {"empty text", "127.0.0.1", 8999, "\0x", 2, -1}, {"bad port", "127.0.0.1", -1, "x", 1, -1},
        {"bad length", "127.0.0.1", 8999, "x", -1, -1},  {"accepted", "127.0.0.1", 8999, "ok", 2, 2},
        {"zero length", "127.0.0.1", 8999, "zz", 0, 0},
    };
    for (const auto &s : sends)
        EXPECT_EQ(DTSock_UDP_SendMessage(tx, s.to, s.port, s.data, s.len), s.result) << s.what;
    socklen_t onLen = sizeof on;
    getsockopt(tx, SOL_SOCKET, SO_BROADCAST, &on, &onLen);
    EXPECT_EQ(on, 0) << "a unicast clears the broadcast permission";
    EXPECT_EQ(Next(rx), "ok");
    EXPECT_EQ(Next(rx), "");
    DTSock_UDP_SendMessage(tx, "127.0.0.1", 8999, "abc", 3);
    EXPECT_EQ(DTSock_UDP_RecvMessage(rx, nullptr, nullptr, nullptr, 8), -1);
    char buf[4] = "xyz";
    EXPECT_EQ(DTSock_UDP_RecvMessage(rx, nullptr, nullptr, buf, -5), 0) << "a negative size is taken as 0";
    EXPECT_EQ(buf[0], 0);
    char addr[16] = "127.0.0.1";
    int32_t port = 8999;
    EXPECT_EQ(DTSock_UDP_GetMessage(tx, nullptr, &port, buf, 2, 3, 0), 0);
    EXPECT_EQ(DTSock_UDP_GetMessage(tx, addr, nullptr, buf, 2, 3, 0), 0);
    EXPECT_EQ(DTSock_UDP_GetMessage(tx, addr, &port, nullptr, 2, 3, 0), 0);
    EXPECT_EQ(DTSock_UDP_GetMessage(tx, addr, &port, buf, -1, 3, 0), -1) << "the send's refusal";
    // Wait limits: a negative one other than -1 fails at once, -1 waits for
    // good (the reply comes later than any fixed wait the call might use).
    char data[64] = "pingx";  // byte 4 is 0 only once the reply's terminator lands there
    Clock::time_point t0 = Clock::now();
    EXPECT_EQ(DTSock_UDP_GetMessage(tx, addr, &port, data, 4, 63, 300), 0);
    EXPECT_GE(MsSince(t0), 290);
    t0 = Clock::now();
    EXPECT_EQ(DTSock_UDP_GetMessage(tx, addr, &port, data, 4, 63, -2), 0);
    EXPECT_LT(MsSince(t0), 250);
    EXPECT_EQ(Next(rx), "ping") << "each call sent once";
    EXPECT_EQ(Next(rx), "ping");
    std::thread replier([&] {
        EXPECT_EQ(Next(rx), "ping");
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        DTSock_UDP_SendMessage(rx, "127.0.0.1", LocalPort(tx), "pong", 4);
    });
    t0 = Clock::now();
    EXPECT_EQ(DTSock_UDP_GetMessage(tx, addr, &port, data, 4, 63, -1), 4);
    EXPECT_GE(MsSince(t0), 1150);
    replier.join();
    EXPECT_STREQ(data, "pong") << "terminated after the reply";
    EXPECT_STREQ(addr, "127.0.0.1");
    EXPECT_EQ(port, 8999);
    // A descriptor an fd_set cannot hold: the request goes out, the wait counts as
    // failed. Passed over where the descriptor limit cannot reach it.
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = lim.rlim_max;
    if (lim.rlim_max > 1500 && setrlimit(RLIMIT_NOFILE, &lim) == 0 && dup2(tx, 1500) == 1500) {
        EXPECT_EQ(DTSock_UDP_GetMessage(1500, addr, &port, data, 2, 7, 100), 0);
        EXPECT_EQ(Next(rx), "po");
    }
}

}  // namespace
