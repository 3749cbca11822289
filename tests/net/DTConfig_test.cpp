#include "net/DTConfig.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "dtnetns.h"
#include "net/DTConfig_internal.h"
#include "net/DTSock.h"

namespace {

TEST(DTConfig, RepliesConvertAsIntegers) {
    const struct { int32_t result; const char *reply; int32_t value; } cases[] = {
        {3, "0x10", 16}, {2, "010", 8},         {5, " 42abc", 42},       {3, "abc", 0},  {2, "-1", -1},
        {9, "4294967296", 0}, {9, "4294967295", -1}, {0, "12", 7}, {-1, "12", 7}, {1, nullptr, 7},
    };
    for (const auto &c : cases) EXPECT_EQ(DTConfig_IntFromReply_(c.result, c.reply, 7), c.value) << c.reply;
    EXPECT_EQ(DTConfig_TextFromReply_(1, "x", "dflt", nullptr), 1);
}

// A namespace pair whose server side has three sockets: 0 takes broadcasts
// only, 1 is 10.99.0.2:8999, 2 is 10.99.0.3:40000. The test thread is left in
// the device side; the test is skipped when the network cannot be made.
class DTConfigNet : public testing::Test {
  protected:
    void SetUp() override {
        if (const std::string why = ns.Make(); !why.empty()) GTEST_SKIP() << why;
        if (system(("ip -n " + ns.ServerName() + " addr add 10.99.0.3/32 dev lo").c_str()) != 0)
            GTEST_SKIP() << "cannot add 10.99.0.3";
        if (!ns.EnterServer()) GTEST_SKIP() << "cannot enter the server namespace";
        socks[0] = DTSock_UDP_Create("255.255.255.255", 8999);
        socks[1] = DTSock_UDP_Create("10.99.0.2", 8999);
        socks[2] = DTSock_UDP_Create("10.99.0.3", 40000);
        if (!ns.EnterDevice()) GTEST_SKIP() << "cannot enter the device namespace";
        if (socks[0] < 0 || socks[1] < 0 || socks[2] < 0) GTEST_SKIP() << "cannot bind the server sockets";
    }
    dttest::NetnsPair ns;
    int socks[3] = {-1, -1, -1};
};

// Equal, so not cases: a request is never empty ("=>config" at least) and never
// over-long once checked, so refusing a length of 0 as well as a negative one, or
// refusing with 0 for -1, changes nothing; the socket is made only while none is
// open, so testing it against 1 in place of 0 then changes nothing either. The
// terminator forced after the host's formatter guards formatters that do not write
// one; the test platform's always does. The request goes out by its length, so the
// terminator written after it is never sent.
TEST_F(DTConfigNet, FirstQueryBroadcastsThenFollowsWhoeverAnswered) {
    // The server's side, scripted: a step waits (2 s at most) for the next
    // request on socket `on` and answers with `reply` from socket `from`.
    const struct { int on; std::string reply; int from; } steps[] = {
        {0, "9000", 1}, {1, "hello", 2}, {2, "", 2}, {2, std::string(1200, 'a'), 2}, {2, "max", 2}};
    std::string got[5];  // each step's request
    std::thread server([&] {
        for (int k = 0; k < 5; ++k) {
            const auto &s = steps[k];
            pollfd p{socks[s.on], POLLIN, 0};
            if (poll(&p, 1, 2000) != 1) return;
            char buf[1100], from[16];
            int32_t port = 0;
            int32_t n = DTSock_UDP_RecvMessage(socks[s.on], from, &port, buf, 1099);
            got[k] = std::string(buf, n > 0 ? n : 0);
            // An empty reply still needs a non-zero first byte to pass the send check.
            DTSock_UDP_SendMessage(socks[s.from], from, port, s.reply.empty() ? "-" : s.reply.c_str(),
                                   int32_t(s.reply.size()));
        }
    });
    char out[1100];
    close(0);  // the query socket gets descriptor 0, as in a host without standard input
    // One character too long to send (1000): refused before the one broadcast is spent.
    EXPECT_EQ(DTConfig_GetString("s", std::string(984, 'k').c_str(), "dflt", out), 1);
    EXPECT_STREQ(out, "dflt");
    EXPECT_EQ(DTConfig_GetInt("net", "mtu", 1500), 9000);
    EXPECT_EQ(DTConfig_GetString("net", "name", "dflt", out), 1);
    EXPECT_STREQ(out, "hello");
    EXPECT_EQ(DTConfig_GetUInt("s", "u", 4294967295u), 4294967295u) << "an empty reply";
    DTConfig_GetString("s", "t", "dflt", out);
    EXPECT_EQ(std::string(out), std::string(999, 'a')) << "the rest of the datagram is dropped";
    DTConfig_GetString("s", std::string(983, 'k').c_str(), "dflt", out);  // 999 characters: sent
    EXPECT_STREQ(out, "max");
    server.join();
    EXPECT_EQ(got[0], "=>config net mtu 1500") << "broadcast";
    EXPECT_EQ(got[1], "=>config net name dflt") << "unicast to the first replier";
    // To the second replier's address and port; the unsigned default as signed text.
    EXPECT_EQ(got[2], "=>config s u -1");
    EXPECT_EQ(got[4].size(), 999u);
}

// The second query is not sent at all: the broadcast is the only datagram.
TEST_F(DTConfigNet, NoServerWaitsOnceThenNeverSendsAgain) {
    EXPECT_EQ(DTConfig_GetInt("a", "b", 5), 5);
    char out[16];
    EXPECT_EQ(DTConfig_GetString("a", "b", "dflt", out), 1);
    EXPECT_STREQ(out, "dflt");
    // The broadcast came during the first query's wait.
    EXPECT_GT(recv(socks[0], out, sizeof out, MSG_DONTWAIT), 0) << "the broadcast";
    EXPECT_LT(recv(socks[0], out, sizeof out, MSG_DONTWAIT), 0) << "no second one";
}

}  // namespace
