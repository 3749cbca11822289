#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "collect_core.h"
#include "collect_stream.h"

namespace {

using cs::Bytes;

// A well-formed collection: one section, one int carrying `value`.
std::vector<Bytes> Stream(uint32_t seq, uint32_t value) {
    return {cs::Identity(seq), cs::Msg(1, cs::Entry(0, "s"), 40), cs::Msg(2, cs::Num(0x81, 0, 0, 1, value), 41),
            cs::Msg(2, {}, 42)};
}

struct Result {
    std::vector<uint64_t> numbers;
    dtcore::Outcome outcome;
    int done = 0;
};

// The core on a thread of its own, as a server runs it; results by host.
struct Harness {
    dtcore::Core core;
    std::thread loop;
    std::mutex lock;
    std::map<std::string, Result> results;
    std::vector<std::string> order;  // hosts in the order they finished
    std::atomic<size_t> maxInFlight{0};

    explicit Harness(dtcore::Core::Config c) : core(c) {
        std::string error;
        EXPECT_TRUE(core.Open(error)) << error;
    }
    void Submit(const std::string &host, int timeoutMs = 3000) {
        dtcore::Job job;
        job.host = host;
        job.timeoutMs = timeoutMs;
        core.Submit(
            job,
            [this, host](const dtcore::Event &e) {
                maxInFlight = std::max<size_t>(maxInFlight, core.InFlight());
                std::lock_guard<std::mutex> g(lock);
                if (e.type == dtcore::Event::kValue) results[host].numbers.push_back(e.number);
            },
            [this, host](const dtcore::Outcome &o) {
                std::lock_guard<std::mutex> g(lock);
                results[host].outcome = o;
                ++results[host].done;
                order.push_back(host);
            });
    }
    void Start() {
        loop = std::thread([this] { core.RunUntilIdle(); });
    }
    void Join() { loop.join(); }
};

dtcore::Core::Config Config(uint16_t requestPort, size_t parallel = 256) {
    dtcore::Core::Config c;
    c.requestPort = requestPort;
    c.parallel = parallel;
    c.firstSequence = 100;
    c.identifyMs = 200;
    return c;
}

// Two devices answer in the opposite order to the requests: each connection
// is still bound to its own host by the sequence its identity carries, and
// the sequences count up from the first.
TEST(CollectCore, ConnectionsFindTheirRequestWhateverTheOrder) {
    cs::Device a("127.0.0.2", 0), b("127.0.0.3", a.port);
    Harness h(Config(a.port));
    h.Submit("127.0.0.2");
    h.Submit("127.0.0.3");
    EXPECT_EQ(h.core.Queued(), 2u);
    h.Start();
    std::atomic<bool> bDone{false};
    std::thread ta([&] {
        ASSERT_TRUE(a.Receive(2000));
        for (int i = 0; i < 200 && !bDone; ++i) usleep(10000);
        int fd = cs::Connect(a.replyPort);
        EXPECT_TRUE(cs::Play(fd, Stream(a.sequence, 0xA)));
        close(fd);
    });
    ASSERT_TRUE(b.Receive(2000));
    int fd = cs::Connect(b.replyPort);
    EXPECT_TRUE(cs::Play(fd, Stream(b.sequence, 0xB)));
    close(fd);
    bDone = true;
    ta.join();
    h.Join();
    EXPECT_EQ(a.sequence, 100u);
    EXPECT_EQ(b.sequence, 101u);
    EXPECT_EQ(h.order, (std::vector<std::string>{"127.0.0.3", "127.0.0.2"}));
    for (auto host : {std::make_pair("127.0.0.2", 0xAu), std::make_pair("127.0.0.3", 0xBu)}) {
        Result &r = h.results[host.first];
        EXPECT_TRUE(r.outcome.ok) << r.outcome.error;
        EXPECT_EQ(r.done, 1);
        EXPECT_EQ(r.numbers, std::vector<uint64_t>{host.second});
        EXPECT_EQ(r.outcome.values, 1u);
        EXPECT_EQ(r.outcome.bytes, 16u + 19 + 29 + 12);
    }
}

// Connections that name no collection in flight are closed, and the
// collection whose sequence a stranger repeats goes on untouched.
TEST(CollectCore, StrangersAreClosedWithoutTouchingAnyCollection) {
    cs::Device d("127.0.0.2", 0);
    Harness h(Config(d.port));
    h.Submit("127.0.0.2");
    h.Start();
    ASSERT_TRUE(d.Receive(2000));
    std::vector<Bytes> stream = Stream(d.sequence, 7);
    int fd = cs::Connect(d.replyPort);
    ASSERT_TRUE(cs::Play(fd, {stream[0]}));
    const struct {
        const char *name;
        Bytes first;
        int withinMs;
    } strangers[] = {
        {"sequence already bound", cs::Identity(d.sequence), 1000},
        {"sequence not in flight", cs::Identity(d.sequence + 1), 1000},
        {"negative sequence", cs::Identity(0x80000064u), 1000},
        {"identity with a bad length", cs::Msg(0, {1, 2, 0, 0}, d.sequence, 17), 1000},
        {"identity bytes not ending in zeros", cs::Msg(0, {1, 2, 0, 1}, d.sequence), 1000},
        {"data first", cs::Msg(2, {1, 2, 0, 0}, d.sequence), 1000},
        {"silent", {}, 1000},
        {"half an identity", Bytes(stream[0].begin(), stream[0].begin() + 10), 1000},
    };
    for (const auto &s : strangers) {
        SCOPED_TRACE(s.name);
        int other = cs::Connect(d.replyPort);
        if (!s.first.empty()) send(other, s.first.data(), s.first.size(), MSG_NOSIGNAL);
        EXPECT_TRUE(cs::ClosedWithin(other, s.withinMs));
        close(other);
    }
    EXPECT_TRUE(cs::Play(fd, {stream.begin() + 1, stream.end()}));
    close(fd);
    h.Join();
    EXPECT_TRUE(h.results["127.0.0.2"].outcome.ok) << h.results["127.0.0.2"].outcome.error;
    EXPECT_EQ(h.results["127.0.0.2"].numbers, std::vector<uint64_t>{7});
}

// One misbehaving device costs its own slot until its deadline; at most
// `parallel` collections are in flight, the rest wait their turn.
TEST(CollectCore, EachMisbehavingDeviceFailsAloneWithinItsDeadline) {
    cs::Device drop("127.0.0.2", 0), garbage("127.0.0.3", drop.port), silent("127.0.0.4", drop.port),
        good("127.0.0.5", drop.port);
    Harness h(Config(drop.port, 2));
    for (const char *host : {"127.0.0.2", "127.0.0.3", "127.0.0.4", "127.0.0.9", "127.0.0.5", "bad host name"})
        h.Submit(host, 400);
    h.Start();
    std::thread devices([&] {
        ASSERT_TRUE(drop.Receive(2000));
        int fd = cs::Connect(drop.replyPort);
        cs::Play(fd, {cs::Identity(drop.sequence)});
        close(fd);
        ASSERT_TRUE(garbage.Receive(2000));
        fd = cs::Connect(garbage.replyPort);
        cs::Play(fd, {cs::Identity(garbage.sequence), cs::Msg(7, {}, 1)});
        close(fd);
        ASSERT_TRUE(silent.Receive(2000));
        fd = cs::Connect(silent.replyPort);
        cs::Play(fd, {cs::Identity(silent.sequence)});
        ASSERT_TRUE(good.Receive(2000));
        int g = cs::Connect(good.replyPort);
        EXPECT_TRUE(cs::Play(g, Stream(good.sequence, 5)));
        close(g);
        cs::ClosedWithin(fd, 2000);
        close(fd);
    });
    devices.join();
    h.Join();
    const std::pair<const char *, const char *> want[] = {
        {"127.0.0.2", "connection closed at byte offset 16 before the "},
        {"127.0.0.3", "message at byte offset 16 has the unknown type 7"},
        {"127.0.0.4", "the collection was not done within 0.4 s at byte offset 16"},
        {"127.0.0.9", "no connection from the device within 0.4 s (TCP port "},
        {"bad host name", "cannot resolve the host: "},
        {"127.0.0.5", ""},
    };
    for (const auto &w : want) {
        SCOPED_TRACE(w.first);
        const dtcore::Outcome &o = h.results[w.first].outcome;
        EXPECT_EQ(h.results[w.first].done, 1);
        EXPECT_EQ(o.ok, *w.second == 0);
        EXPECT_NE(o.error.find(w.second), std::string::npos) << o.error;
        EXPECT_LT(o.seconds, 1.0);
    }
    EXPECT_EQ(h.maxInFlight, 2u);
    EXPECT_EQ(h.core.InFlight(), 0u);
}

}  // namespace
