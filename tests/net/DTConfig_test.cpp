#include "net/DTConfig.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "dtnetns.h"
#include "net/DTSock.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t MsSince(Clock::time_point t0) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

struct Request {
    int at;  // index of the server socket it reached
    std::string text;
    std::string from;  // address:port
};

// A configuration server in the server side of its own namespace pair, with
// three sockets: 0 takes broadcasts only, 1 is 10.99.0.2:8999, 2 is
// 10.99.0.3:40000. The k-th request gets replies[k].first from socket
// replies[k].second; requests past the list get no answer. The test thread
// is left in the device side. Start says why the server could not start.
struct Server {
    std::string Start(std::vector<std::pair<std::string, int>> replies) {
        std::string why = ns_.Make();
        if (!why.empty()) return why;
        if (system(("ip -n " + ns_.ServerName() + " addr add 10.99.0.3/32 dev lo").c_str()) != 0)
            return "cannot add 10.99.0.3";
        if (!ns_.EnterServer()) return "cannot enter the server namespace";
        socks_[0] = DTSock_UDP_Create("255.255.255.255", 8999);
        socks_[1] = DTSock_UDP_Create("10.99.0.2", 8999);
        socks_[2] = DTSock_UDP_Create("10.99.0.3", 40000);
        if (!ns_.EnterDevice()) return "cannot enter the device namespace";
        for (int s : socks_)
            if (s < 0) return "cannot bind the server sockets";
        replies_ = std::move(replies);
        thread_ = std::thread([this] { Serve(); });
        return "";
    }
    // Stops serving; what reached the server, in order.
    std::vector<Request> Stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        for (int &s : socks_) {
            DTSock_UDP_Close(s);
            s = -1;
        }
        return requests_;
    }
    ~Server() { Stop(); }
    void Serve() {
        pollfd p[3];
        for (int i = 0; i < 3; ++i) p[i] = {socks_[i], POLLIN, 0};
        while (!stop_) {
            if (poll(p, 3, 50) <= 0) continue;
            for (int i = 0; i < 3; ++i) {
                if (!(p[i].revents & POLLIN)) continue;
                char buf[1100];
                char from[16];
                int32_t port = 0;
                int32_t n = DTSock_UDP_RecvMessage(socks_[i], from, &port, buf, 1099);
                requests_.push_back({i, std::string(buf, n > 0 ? n : 0), from + (":" + std::to_string(port))});
                if (requests_.size() > replies_.size()) continue;
                const auto &r = replies_[requests_.size() - 1];
                // An empty reply still needs a non-zero first byte to pass the send check.
                const char *text = r.first.empty() ? "-" : r.first.c_str();
                DTSock_UDP_SendMessage(socks_[r.second], from, port, text, int32_t(r.first.size()));
            }
        }
    }
    dttest::NetnsPair ns_;
    int socks_[3] = {-1, -1, -1};
    std::vector<std::pair<std::string, int>> replies_;
    std::vector<Request> requests_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST(DTConfig, FirstQueryBroadcastsThenFollowsWhoeverAnsweredAndConverts) {
    const struct {
        const char *reply;
        int32_t value;
    } ints[] = {{"0x10", 16}, {"010", 8},       {" 42abc", 42}, {"abc", 0},
                {"-1", -1},   {"4294967296", 0}, {"", 7}};
    std::vector<std::pair<std::string, int>> replies = {{"9000", 1}, {"hello", 2}};
    for (const auto &c : ints) replies.push_back({c.reply, 2});
    replies.push_back({"4294967295", 2});
    replies.push_back({std::string(1200, 'a'), 2});
    Server server;
    std::string why = server.Start(replies);
    if (!why.empty()) GTEST_SKIP() << why;
    char out[1100];
    // Too long to send (1005 characters): refused before the one broadcast is spent.
    EXPECT_EQ(DTConfig_GetString("s", std::string(990, 'k').c_str(), "dflt", out), 1);
    EXPECT_STREQ(out, "dflt");
    EXPECT_EQ(DTConfig_GetInt("net", "mtu", 1500), 9000);
    EXPECT_EQ(DTConfig_GetString("net", "name", "dflt", out), 1);
    EXPECT_STREQ(out, "hello");
    for (const auto &c : ints) EXPECT_EQ(DTConfig_GetInt("s", "k", 7), c.value) << '"' << c.reply << '"';
    EXPECT_EQ(DTConfig_GetUInt("s", "u", 4294967295u), 4294967295u);
    memset(out, 'x', sizeof out);
    DTConfig_GetString("s", "t", "dflt", out);
    EXPECT_EQ(std::string(out), std::string(999, 'a'));  // the rest of the datagram is dropped
    std::vector<Request> got = server.Stop();
    ASSERT_EQ(got.size(), replies.size());
    EXPECT_EQ(got[0].at, 0);  // broadcast
    EXPECT_EQ(got[0].text, "=>config net mtu 1500");
    EXPECT_EQ(got[0].from, "10.99.0.1:8998");
    EXPECT_EQ(got[1].at, 1);  // unicast to the first replier
    EXPECT_EQ(got[1].text, "=>config net name dflt");
    EXPECT_EQ(got[2].at, 2);  // then to the second replier's address and port
    EXPECT_EQ(got[9].text, "=>config s u -1");  // the unsigned default as signed text
}

TEST(DTConfig, NoServerWaitsOnceThenNeverSendsAgain) {
    Server server;  // listens, never answers
    std::string why = server.Start({});
    if (!why.empty()) GTEST_SKIP() << why;
    Clock::time_point t0 = Clock::now();
    EXPECT_EQ(DTConfig_GetInt("a", "b", 5), 5);
    EXPECT_GE(MsSince(t0), 950);
    t0 = Clock::now();
    EXPECT_EQ(DTConfig_GetUInt("a", "b", 6u), 6u);
    char out[16];
    EXPECT_EQ(DTConfig_GetString("a", "b", "dflt", out), 1);
    EXPECT_STREQ(out, "dflt");
    EXPECT_EQ(DTConfig_GetString("a", "b", "dflt", nullptr), 1);
    EXPECT_LT(MsSince(t0), 200);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::vector<Request> got = server.Stop();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].at, 0);
}

TEST(DTConfig, TakenPortMeansNoQueryForGood) {
    Server server;
    std::string why = server.Start({{"1", 1}});
    if (!why.empty()) GTEST_SKIP() << why;
    int blocker = DTSock_UDP_Create("0.0.0.0", 8998);
    ASSERT_GE(blocker, 0);
    Clock::time_point t0 = Clock::now();
    EXPECT_EQ(DTConfig_GetInt("a", "b", 5), 5);
    DTSock_UDP_Close(blocker);
    EXPECT_EQ(DTConfig_GetInt("a", "b", 5), 5);  // the port is free now, but too late
    EXPECT_LT(MsSince(t0), 200);
    EXPECT_EQ(server.Stop().size(), 0u);
}

}  // namespace
