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
    EXPECT_EQ(h.core.Queued(), 1u);
    h.Start();
    h.Submit("127.0.0.3");  // while the loop runs: the hand-off between threads
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
        {"127.0.0.2", "connection closed at byte offset 16 before the section list"},
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

using cs::Cat;
using cs::Entry;
using cs::Head;
using cs::Msg;
using cs::Num;
using cs::Piece;

// Feeds the stream in chunks of `chunk` bytes; how many messages were completed.
size_t FeedAll(dtcore::StreamReader &r, const Bytes &stream, size_t chunk) {
    size_t acks = 0;
    for (size_t at = 0; at < stream.size(); at += chunk)
        acks += r.Feed(stream.data() + at, std::min(chunk, stream.size() - at));
    return acks;
}

const Bytes kId = cs::Identity(5);
const Bytes kList = Msg(1, Cat({Entry(0, "cpu"), Entry(1, "mem")}), 1);
const Bytes kHead = Cat({kId, kList});  // 46 bytes: the first data message's payload starts at 58
Bytes Data(const Bytes &payload, uint32_t seq = 2) { return Msg(2, payload, seq); }
// A piece that fills a message's payload to its end (1024 bytes).
Bytes Full(uint8_t kind, uint32_t code = 0) { return Piece(kind, 0, 0, code, std::string(1009, 'x')); }

TEST(StreamReader, RebuildsCollectionsAndSelfTestsWhateverTheChunking) {
    const std::string split(1024 - 17 - 21 - 15, 'h');
    const Bytes collection =
        Cat({kHead,
             Data(Cat({Num(0x81, 0, 7, 1, 42), Num(0x82, 0, 7, 2, 0x0102030405060708ull), Piece(0x03, 1, 0, 3, split)})),
             Data(Cat({Piece(0x83, 1, 0, 3, "llo"), Piece(0x83, 1, 0, 5, ""), Piece(0x84, 1, 0, 4, "\x10")}), 3),
             Data({}, 4), Data({}, 5)});
    // Numbered by the device, whose counter wraps.
    const Bytes selfTest = Cat({cs::Identity(0xFFFFFFFF), Data(Cat({Piece(0x83, 65535, 0, 0, "texts"),
                                                                    Num(0x81, 1, 0, 6, 99)}), 0),
                                Data(Piece(0x83, 65535, 0, 0, "z"), 1), Data({}, 2)});
    const struct {
        const Bytes &stream;
        bool selfTest;
        uint32_t request;
        std::vector<std::string> lines;
    } cases[] = {
        {collection, false, 5,
         {"h identity 01 02 sequence 5", "h section 0 \"cpu\"", "h section 1 \"mem\"",
          "h \"cpu\" #0 block 7 code 1 int 42", "h \"cpu\" #0 block 7 code 2 long 72623859790382856 (0x0102030405060708)",
          "h \"mem\" #1 block 0 code 3 string 974 \"" + split + "llo\"", "h \"mem\" #1 block 0 code 5 string 0 \"\"",
          "h \"mem\" #1 block 0 code 4 buffer 1 10"}},
        {selfTest, true, 0,
         {"h identity 01 02 sequence 4294967295", "h selftest \"texts\"", "h \"texts\" #1 block 0 code 6 int 99",
          "h selftest \"z\""}},
    };
    for (const auto &c : cases) {
        for (size_t chunk : {size_t(1), size_t(13), c.stream.size()}) {
            SCOPED_TRACE(chunk);
            dtcore::StreamReader r(c.selfTest, c.request);
            EXPECT_EQ(FeedAll(r, c.stream, chunk), c.stream == collection ? 6u : 4u);
            EXPECT_TRUE(r.Finish()) << r.Error();
            std::vector<std::string> lines;
            for (const dtcore::Event &e : r.TakeEvents()) lines.push_back(dtcore::FormatText("h", e));
            EXPECT_EQ(lines, c.lines);
        }
    }
}

// Every rule the device's writer keeps, broken once: the first break is
// named with its byte offset, and what came before it is kept.
TEST(StreamReader, EachBrokenRuleNamesItsOffsetAndKeepsWhatCameBefore) {
    Bytes cut = Data(Num(0x81, 0, 0, 0, 1));
    cut.pop_back();
    Bytes twenty, ints;
    for (uint32_t i = 0; i < 20; ++i) twenty = Cat({twenty, Entry(i, "s")});
    for (int i = 0; i < 59; ++i) ints = Cat({ints, Num(0x81, 0, 0, 0, 1)});
    const Bytes named = Piece(0x83, 65535, 0, 0, "a");
    struct Case {
        const char *name;
        Bytes stream;
        const char *error;
        size_t acks, events;
        bool selfTest = false;
        uint32_t request = 5;
        size_t maxValue = dtcore::kDefaultMaxValue;
    } cases[] = {
        {"short length", Cat({kId, Msg(2, {}, 1, 11)}), "message at byte offset 16 has length 11", 1, 1},
        {"long length", Cat({kId, Msg(2, {}, 1, 1037)}), "offset 16 has length 1037", 1, 1},
        {"unknown type", Cat({kId, Msg(3, {}, 1)}), "message at byte offset 16 has the unknown type 3", 1, 1},
        {"no identity", Msg(2, {}, 5), "message at byte offset 0 is of type 2 where the identity message", 0, 0},
        {"identity length", Msg(0, {1, 2, 0, 0, 0}, 5), "identity message at byte offset 0 has length 17", 0, 0},
        {"identity tail", Msg(0, {1, 2, 0, 1}, 5), "identity message at byte offset 0 ends in 0x00 0x01", 0, 0},
        {"identity sequence", cs::Identity(6), "at byte offset 0 bears sequence 6, not the request's 5", 0, 0},
        {"second identity", Cat({kId, cs::Identity(1)}), "offset 16 is a second identity message", 1, 1},
        {"no section list", Cat({kId, Data({}, 1)}), "offset 16 is of type 2 where the section list belongs", 1, 1},
        {"list in self test", Cat({kId, Msg(1, {}, 1)}), "offset 16 is a section list, which a self test never", 1,
         1, true},
        {"second list", Cat({kHead, Msg(1, {}, 2)}), "offset 46 is a section list out of place", 2, 3},
        {"missing message", Cat({kHead, Data({}, 3)}), "offset 46 bears sequence 3 where 2 follows", 2, 3},
        {"counter after identity", Cat({cs::Identity(9), Msg(1, {}, 11)}), "offset 16 bears sequence 11 where 10", 1,
         1, false, 0},
        {"list index", Cat({kId, Msg(1, Entry(1, "cpu"), 1)}), "entry at byte offset 28 has index 1 where 0", 1, 1},
        {"repeated index", Cat({kId, Msg(1, Cat({Entry(0, "a"), Entry(0, "b")}), 1)}),
         "entry at byte offset 35 has index 0 where 1 belongs", 1, 2},
        {"empty name", Cat({kId, Msg(1, Entry(0, ""), 1)}), "offset 28 has a name of 0 bytes", 1, 1},
        {"long name", Cat({kId, Msg(1, Entry(0, std::string(20, 'n')), 1)}), "has a name of 20 bytes", 1, 1},
        {"zero in name", Cat({kId, Msg(1, Entry(0, std::string("a\0b", 3)), 1)}), "has a zero byte in its name", 1,
         1},
        {"20 sections", Cat({kId, Msg(1, twenty, 1)}), "entry at byte offset 161 is past the 19 sections", 1, 20},
        {"list overrun", Cat({kId, Msg(1, {0, 0, 0, 0, 0, 5, 'a'}, 1)}), "entry at byte offset 28 overruns", 1, 1},
        {"unlisted section", Cat({kHead, Data(Num(0x81, 2, 0, 0, 1))}),
         "record at byte offset 58 is of section 2, which the section list does not name", 2, 3},
        {"bad kind", Cat({kHead, Data(Cat({Num(0x81, 0, 0, 0, 1), Head(0x05, 0, 0, 0)}))}),
         "record at byte offset 75 has the unknown kind 0x05", 2, 4},
        {"int not last", Cat({kHead, Data(Head(0x01, 0, 0, 0))}), "offset 58 has the unknown kind 0x01", 2, 3},
        {"short record", Cat({kHead, Data(Bytes(5, 0x81))}), "offset 58: its message ends after 5", 2, 3},
        {"int overrun", Cat({kHead, Data(Cat({Head(0x81, 0, 0, 0), {0, 0, 0}}))}),
         "int record at byte offset 58 needs 17 bytes but its message ends at byte offset 74", 2, 3},
        {"string overrun", Cat({kHead, Data(Cat({Head(0x83, 0, 0, 0), {0, 10, 'a'}}))}),
         "string record at byte offset 58 needs 25 bytes", 2, 3},
        {"record where a message begins", Cat({kHead, Data(Cat({ints, Piece(0x83, 0, 0, 1, "a")}))}),
         "string record at byte offset 1061 starts 21 bytes before the end", 2, 62},
        {"empty buffer", Cat({kHead, Data(Piece(0x84, 0, 0, 0, ""))}), "buffer record at byte offset 58 is an empty", 2,
         3},
        {"empty last piece", Cat({kHead, Data(Full(0x03)), Data(Piece(0x83, 0, 0, 0, ""), 3)}),
         "string record at byte offset 1094 is an empty piece", 3, 3},
        {"short piece", Cat({kHead, Data(Cat({Piece(0x03, 0, 0, 0, "ab"), Num(0x81, 0, 0, 0, 1)}))}),
         "record at byte offset 58 is not its value's last piece yet ends before its message is full", 2, 3},
        {"piece broken into", Cat({kHead, Data(Full(0x03)), Data(Num(0x81, 0, 0, 0, 1), 3)}),
         "record at byte offset 1094 breaks into the string value begun at byte offset 58", 3, 3},
        {"pieces disagree", Cat({kHead, Data(Full(0x04)), Data(Piece(0x84, 0, 0, 1, "b"), 3)}),
         "record at byte offset 1094 breaks into the buffer value", 3, 3},
        {"empty message in a value", Cat({kHead, Data(Full(0x04)), Data({}, 3)}),
         "empty data message at byte offset 1082 where the buffer value begun at byte offset 58 continues", 3, 3},
        {"value too long", Cat({kHead, Data(Full(0x03))}),
         "record at byte offset 58 makes the string value begun at byte offset 58 longer than 1000 bytes", 2, 3,
         false, 5, 1000},
        {"value before a name", Cat({kId, Data(Num(0x81, 0, 0, 0, 1), 1)}),
         "record at byte offset 28 comes before the self test's first name record", 1, 1, true},
        {"name record with a code", Cat({kId, Data(Piece(0x83, 65535, 0, 1, "s"), 1)}),
         "record at byte offset 28 of section 65535 is not a self-test name record", 1, 1, true},
        {"name mid-message", Cat({kId, Data(Cat({named, named}), 1)}),
         "name record at byte offset 44 does not begin its message", 1, 2, true},
        {"self-test section 19", Cat({kId, Data(Cat({named, Num(0x81, 19, 0, 0, 1)}), 1)}),
         "record at byte offset 44 is of section 19, past the 19", 1, 2, true},
        {"after the end", Cat({kId, Data({}, 1), Data({}, 2)}),
         "offset 28 follows the closing empty data message of the self test", 2, 1, true},
        {"cut in payload", Cat({kHead, cut}),
         "closed at byte offset 74, inside the message begun at byte offset 46 (28 of 29 bytes", 2, 3},
        {"no section list at the end", kId, "connection closed at byte offset 16 before the section list", 1, 1},
        {"no closing message", Cat({kHead, Data(Num(0x81, 0, 0, 0, 1))}),
         "closed at byte offset 75 before the closing empty data message", 3, 4},
        {"unfinished value", Cat({kHead, Data(Full(0x04))}),
         "closed at byte offset 1082 with the buffer value begun at byte offset 58 unfinished", 3, 3},
        {"empty", {}, "closed at byte offset 0 before the identity message", 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        for (size_t chunk : {size_t(1), size_t(4096)}) {
            dtcore::StreamReader r(c.selfTest, c.request, c.maxValue);
            EXPECT_EQ(FeedAll(r, c.stream, chunk), c.acks);
            EXPECT_FALSE(r.Finish());
            EXPECT_NE(r.Error().find(c.error), std::string::npos) << r.Error();
            EXPECT_EQ(r.TakeEvents().size(), c.events);
        }
    }
}

}  // namespace
