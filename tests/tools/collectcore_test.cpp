#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "collect_core.h"
#include "collect_stream.h"

namespace {

using namespace cs;
const uint32_t kFirst = 0x12345678;  // the first request's sequence
const size_t npos = std::string::npos;

// A well-formed collection: one section, one int carrying `value`.
std::vector<Bytes> Stream(uint32_t seq, uint32_t value) {
    return {Identity(seq), Msg(1, Entry(0, "s"), 40), Msg(2, Num(0x81, 0, 0, 1, value), 41), Msg(2, {}, 42)};
}

// The core's loop on a thread of its own, as a server runs it. Results are
// written on the loop's thread and read once it has been joined.
struct Harness {
    // Declared before the core, so that they outlive what its destructor still fails.
    std::map<std::string, std::vector<dtcore::Outcome>> outcomes;  // one per call of the DoneFn
    std::vector<std::string> order;  // hosts in the order they finished
    size_t maxInFlight = 0;
    dtcore::Core core;
    std::thread loop;

    Harness(uint16_t requestPort, size_t parallel)
        : core(dtcore::Core::Config{parallel, 0, kFirst, 200, dtcore::kDefaultMaxValue, requestPort}) {
        std::string error;
        EXPECT_TRUE(core.Open(error)) << error;
    }
    void Submit(const std::string &host, int timeoutMs = 3000) {
        auto onEvent = [this](const dtcore::Event &) { maxInFlight = std::max(maxInFlight, core.InFlight()); };
        core.Submit({host, 0, timeoutMs}, onEvent, [this, host](const dtcore::Outcome &o) {
            outcomes[host].push_back(o);
            order.push_back(host);
        });
    }
    void Start() { loop = std::thread([this] { core.RunUntilIdle(); }); }
    ~Harness() {
        core.Stop();
        if (loop.joinable()) loop.join();
    }
};

// Two devices answer in the opposite order to the requests: each connection
// is bound to its own host by the sequence its identity carries, and the
// sequences count up from the first. Meanwhile strangers connect: each is
// closed, and no collection is touched, not even the one whose sequence a
// stranger repeats. Then one misbehaving device after the other costs its own
// slot until its deadline; at most `parallel` collections are in flight, the
// rest wait their turn.
// Equivalent mutants left: collect_core.cpp:64 (a dotted quad sent on to the
// resolver, which gives the same address) and :163 (Open's early return for
// an epoll fd of 0, which standard input always holds).
TEST(CollectCore, ConnectionsFindTheirRequestAndEachMisbehavingDeviceFailsAlone) {
    Device a("127.0.0.2", 0), b("127.0.0.3", a.port), drop("127.0.0.4", a.port), garbage("127.0.0.5", a.port);
    Harness h(a.port, 2);
    h.Submit("127.0.0.2");
    EXPECT_EQ(h.core.Queued(), 1u);
    h.Start();
    ASSERT_TRUE(a.Receive(2000));
    h.Submit("127.0.0.3");  // while the loop waits: the hand-off between threads
    for (const char *host : {"127.0.0.4", "127.0.0.5", "127.0.0.9"}) h.Submit(host, 400);
    ASSERT_TRUE(b.Receive(2000));
    std::vector<Bytes> stream = Stream(b.sequence, 0xB);
    int fd = Connect(b.replyPort);
    ASSERT_TRUE(Play(fd, {stream[0]}));
    // Sequence already bound, not in flight, negative; no identity (the reader's
    // rules are the stream reader's table); silent (closed after 200 ms).
    const Bytes strangers[] = {stream[0], Identity(kFirst + 2), Identity(kFirst | 0x80000000u),
                               Msg(2, {1, 2, 0, 0}, kFirst), {}};
    for (const Bytes &first : strangers) {
        int other = Connect(b.replyPort);
        send(other, first.data(), first.size(), MSG_NOSIGNAL);
        EXPECT_TRUE(ClosedWithin(other, 1000));
        close(other);
    }
    EXPECT_TRUE(Play(fd, {stream.begin() + 1, stream.end()}));
    close(fd);
    fd = Connect(a.replyPort);
    EXPECT_TRUE(Play(fd, Stream(a.sequence, 0xA)));
    close(fd);
    for (Device *d : {&drop, &garbage}) {
        ASSERT_TRUE(d->Receive(2000));
        fd = Connect(d->replyPort);
        const std::vector<Bytes> sent = {Identity(d->sequence), Msg(7, {}, 1)};
        Play(fd, {sent.begin(), sent.begin() + (d == &garbage ? 2 : 1)});
        close(fd);
    }
    h.loop.join();
    EXPECT_EQ(a.sequence, kFirst);
    EXPECT_EQ(b.sequence, kFirst + 1);
    EXPECT_EQ(h.order.at(0), "127.0.0.3");
    EXPECT_EQ(h.order.at(1), "127.0.0.2");
    const std::pair<const char *, const char *> want[] = {
        {"127.0.0.2", ""},
        {"127.0.0.3", ""},
        {"127.0.0.4", "connection closed at byte offset 16 before the section list"},
        {"127.0.0.5", "message at byte offset 16 has the unknown type 7"},
        {"127.0.0.9", "no connection from the device within 0.4 s (TCP port "},
    };
    for (const auto &w : want) {
        SCOPED_TRACE(w.first);
        ASSERT_EQ(h.outcomes[w.first].size(), 1u);
        const dtcore::Outcome &o = h.outcomes[w.first][0];
        EXPECT_EQ(o.ok, *w.second == 0);
        EXPECT_NE(o.error.find(w.second), npos) << o.error;
        EXPECT_LT(o.seconds, *w.second == 0 ? 3.0 : 1.0);
    }
    EXPECT_EQ(h.maxInFlight, 2u);
    EXPECT_EQ(h.core.InFlight(), 0u);
}

// Stop ends the loop; what is still in flight or queued then fails once.
TEST(CollectCore, StoppingFailsWhatIsLeft) {
    std::vector<std::string> errors;
    {
        Harness h(1, 1);
        dtcore::DoneFn done = [&errors](const dtcore::Outcome &o) { errors.push_back(o.error); };
        for (int i = 0; i < 2; ++i) h.core.Submit({"127.0.0.9"}, nullptr, done);
        h.Start();
        for (int i = 0; i < 200 && h.core.InFlight() == 0; ++i) usleep(10000);
        h.core.Stop();
        h.loop.join();
    }
    EXPECT_EQ(errors, (std::vector<std::string>{"the collector stopped before the collection was done at byte offset 0",
                                                "the collector stopped before the collection began at byte offset 0"}));
}

// Feeds the stream in chunks of `chunk` bytes; how many messages were completed.
size_t FeedAll(dtcore::StreamReader &r, const Bytes &stream, size_t chunk) {
    size_t acks = 0;
    for (size_t at = 0; at < stream.size(); at += chunk)
        acks += r.Feed(stream.data() + at, std::min(chunk, stream.size() - at));
    return acks;
}

const Bytes kId = Identity(5);
// 46 bytes: the first data message's payload starts at 58.
const Bytes kHead = Cat({kId, Msg(1, Cat({Entry(0, "cpu"), Entry(1, "mem")}), 1)});
Bytes Data(const Bytes &payload, uint32_t seq = 2) { return Msg(2, payload, seq); }
// A piece that fills a message's payload to its end (1024 bytes).
Bytes Full(uint8_t kind, uint32_t code = 0) { return Piece(kind, 0, 0, code, std::string(1009, 'x')); }

// A collection and a self test the way the device writes them pass, whatever
// the chunks they arrive in; every rule the device's writer keeps, broken
// once, fails: the first break is named with its byte offset, and what came
// before it is kept.
TEST(StreamReader, EachBrokenRuleNamesItsOffsetAndKeepsWhatCameBefore) {
    const std::string split(971, 'h');  // fills the first data message to its end
    const Bytes numbers = Cat({Num(0x81, 0, 7, 1, 42), Num(0x82, 0, 7, 2, 1), Piece(0x03, 1, 0, 3, split)});
    const Bytes texts = Cat({Piece(0x83, 1, 0, 3, "llo"), Piece(0x83, 1, 0, 5, ""), Piece(0x84, 1, 0, 4, "b")});
    const Bytes collection = Cat({kHead, Data(numbers), Data(texts, 3), Data({}, 4), Data({}, 5)});
    // Numbered by the device, whose counter wraps.
    const Bytes named = Piece(0x83, 65535, 0, 0, "a");
    const Bytes selfTest = Cat({Identity(0xFFFFFFFF), Data(Cat({named, Num(0x81, 1, 0, 6, 9)}), 0), Data(named, 1),
                                Data({}, 2)});
    Bytes twenty, ints;
    for (uint32_t i = 0; i < 20; ++i) twenty = Cat({twenty, Entry(i, "s")});
    for (int i = 0; i < 59; ++i) ints = Cat({ints, Num(0x81, 0, 0, 0, 1)});
    struct Case {
        Bytes stream;
        const char *error;
        size_t acks, events;
        bool selfTest = false;
        uint32_t request = 5;
        size_t maxValue = dtcore::kDefaultMaxValue;
    } cases[] = {
        {collection, "", 6, 8},
        {selfTest, "", 4, 4, true, 0},
        {Cat({kId, Msg(1, Entry(0, std::string(19, 'n')), 1), Data({}, 2)}), "", 3, 2},
        {Cat({kHead, Data(Full(0x03)), Data(Piece(0x83, 0, 0, 0, "x"), 3), Data({}, 4)}), "", 5, 4, false, 5, 1010},
        {Cat({kId, Msg(2, {}, 1, 11)}), "message at byte offset 16 has length 11", 1, 1},
        {Cat({kId, Msg(2, {}, 1, 1037)}), "offset 16 has length 1037", 1, 1},
        {Cat({kId, Msg(3, {}, 1)}), "message at byte offset 16 has the unknown type 3", 1, 1},
        {Msg(2, {}, 5), "message at byte offset 0 is of type 2 where the identity message", 0, 0},
        {Msg(0, {1, 2, 0, 0, 0}, 5), "identity message at byte offset 0 has length 17", 0, 0},
        {Msg(0, {1, 2, 0, 1}, 5), "identity message at byte offset 0 ends in 0x00 0x01", 0, 0},
        {Identity(6), "at byte offset 0 bears sequence 6, not the request's 5", 0, 0},
        {Cat({kId, Identity(1)}), "offset 16 is a second identity message", 1, 1},
        {Cat({kId, Data({}, 1)}), "offset 16 is of type 2 where the section list belongs", 1, 1},
        {Cat({kId, Msg(1, {}, 1)}), "offset 16 is a section list, which a self test never", 1, 1, true},
        {Cat({kHead, Msg(1, {}, 2)}), "offset 46 is a section list out of place", 2, 3},
        {Cat({kHead, Data({}, 3)}), "offset 46 bears sequence 3 where 2 follows", 2, 3},
        {Cat({Identity(9), Msg(1, {}, 11)}), "offset 16 bears sequence 11 where 10", 1, 1, false, 0},
        {Cat({kId, Msg(1, Entry(1, "cpu"), 1)}), "entry at byte offset 28 has index 1 where 0", 1, 1},
        {Cat({kId, Msg(1, Entry(0, ""), 1)}), "offset 28 has a name of 0 bytes", 1, 1},
        {Cat({kId, Msg(1, Entry(0, std::string(20, 'n')), 1)}), "offset 28 has a name of 20 bytes", 1, 1},
        {Cat({kId, Msg(1, Entry(0, std::string("a\0b", 3)), 1)}), "offset 28 has a zero byte in its name", 1, 1},
        {Cat({kId, Msg(1, twenty, 1)}), "entry at byte offset 161 is past the 19 sections", 1, 20},
        {Cat({kId, Msg(1, {0, 0, 0, 0, 0, 5, 'a'}, 1)}), "entry at byte offset 28 overruns", 1, 1},
        {Cat({kHead, Data(Num(0x81, 2, 0, 0, 1))}), "offset 58 is of section 2, which the section list", 2, 3},
        {Cat({kHead, Data(Head(0x01, 0, 0, 0))}), "offset 58 has the unknown kind 0x01", 2, 3},
        {Cat({kHead, Data(Bytes(5, 0x81))}), "offset 58: its message ends after 5", 2, 3},
        {Cat({kHead, Data(Cat({Head(0x81, 0, 0, 0), {0, 0, 0}}))}), "58 needs 17 bytes but its message ends at", 2, 3},
        {Cat({kHead, Data(Cat({Head(0x83, 0, 0, 0), {0, 10, 'a'}}))}), "offset 58 needs 25 bytes", 2, 3},
        {Cat({kHead, Data(Cat({ints, Piece(0x83, 0, 0, 1, "a")}))}), "offset 1061 starts 21 bytes before the", 2, 62},
        {Cat({kHead, Data(Piece(0x84, 0, 0, 0, ""))}), "buffer record at byte offset 58 is an empty piece", 2, 3},
        {Cat({kHead, Data(Cat({Piece(0x03, 0, 0, 0, "ab"), Num(0x81, 0, 0, 0, 1)}))}),
         "offset 58 is not its value's last piece yet ends before its message is full", 2, 3},
        {Cat({kHead, Data(Full(0x03)), Data(Num(0x81, 0, 0, 0, 1), 3)}), "1094 breaks into the string", 3, 3},
        {Cat({kHead, Data(Full(0x04)), Data({}, 3)}), "empty data message at byte offset 1082 where the buffer", 3, 3},
        {Cat({kHead, Data(Full(0x03))}), "58 makes the string value begun at byte offset 58 longer than 1000", 2, 3,
         false, 5, 1000},
        {Cat({kId, Data(Num(0x81, 0, 0, 0, 1), 1)}), "offset 28 comes before the self test's first name", 1, 1, true},
        {Cat({kId, Data(Piece(0x83, 65535, 0, 1, "s"), 1)}), "28 of section 65535 is not a self-test name", 1, 1, true},
        {Cat({kId, Data(Cat({named, named}), 1)}), "name record at byte offset 44 does not begin its", 1, 2, true},
        {Cat({kId, Data(Cat({named, Num(0x81, 19, 0, 0, 1)}), 1)}), "offset 44 is of section 19, past the", 1, 2, true},
        {Cat({kId, Data({}, 1), Data({}, 2)}), "offset 28 follows the closing empty data message", 2, 1, true},
        {Cat({kHead, Msg(2, Bytes(16), 2, 29)}),
         "closed at byte offset 74, inside the message begun at byte offset 46 (28 of 29", 2, 3},
        {kId, "connection closed at byte offset 16 before the section list", 1, 1},
        {Cat({kHead, Data(Num(0x81, 0, 0, 0, 1))}), "closed at byte offset 75 before the closing empty data", 3, 4},
        {Cat({kHead, Data(Full(0x04))}), "offset 1082 with the buffer value begun at byte offset 58", 3, 3},
        {{}, "closed at byte offset 0 before the identity message", 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.error);
        for (size_t chunk : {size_t(1), size_t(4096)}) {
            dtcore::StreamReader r(c.selfTest, c.request, c.maxValue);
            EXPECT_EQ(FeedAll(r, c.stream, chunk), c.acks);
            EXPECT_EQ(r.Finish(), *c.error == 0);
            EXPECT_NE(r.Error().find(c.error), npos) << r.Error();
            EXPECT_EQ(r.TakeEvents().size(), c.events);
        }
    }
    // The collection's events, as dtcollect prints them.
    dtcore::StreamReader r(false, 5, dtcore::kDefaultMaxValue);
    FeedAll(r, collection, 4096);
    std::string text;
    for (const dtcore::Event &e : r.TakeEvents()) text += dtcore::FormatText("h", e) + "\n";
    EXPECT_EQ(text, "h identity 01 02 sequence 5\nh section 0 \"cpu\"\nh section 1 \"mem\"\n"
                    "h \"cpu\" #0 block 7 code 1 int 42\nh \"cpu\" #0 block 7 code 2 long 1 (0x0000000000000001)\n"
                    "h \"mem\" #1 block 0 code 3 string 974 \"" + split + "llo\"\n"
                    "h \"mem\" #1 block 0 code 5 string 0 \"\"\nh \"mem\" #1 block 0 code 4 buffer 1 62\n");
}

// A string value and its section name as JSON: valid UTF-8 as a JSON string
// (control characters, DEL, quote and backslash escaped), anything else as
// hex under "value_hex" and "section_hex"; a buffer always as hex.
// Equivalent mutant left: stream_reader.cpp:366 (IsUtf8 reading s[s.size()],
// the string's terminating zero, a one-byte character).
TEST(CollectJson, EveryByteStringComesBackWhole) {
    // The bytes and their JSON string; empty: not valid UTF-8.
    const std::pair<std::string, std::string> cases[] = {
        {"", R"("")"},
        {"plain \"quoted\" back\\slash /", R"("plain \"quoted\" back\\slash /")"},
        {std::string("\n\t\x01\x1f\x7f\x00", 6), R"("\u000a\u0009\u0001\u001f\u007f\u0000")"},
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xef\xbf\xbf\xf4\x8f\xbf\xbf",  // up to U+10FFFF
         "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xef\xbf\xbf\xf4\x8f\xbf\xbf\""},
        {"\xe9", ""},  // the Latin-1 byte that "\xc3\xa9" must not be confused with
        {"ok \xc3", ""},  // cut sequence
        {"\xc0\x80", ""},          // overlong
        {"\xed\xa0\x80", ""},      // surrogate
        {"\xf4\x90\x80\x80", ""},  // past U+10FFFF
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(dtcore::Hex(c.first));
        dtcore::Event e{dtcore::Event::kValue, 0, 0, 0, 0, 0, true, c.first, 0, 0, dtcore::kString, 0, c.first};
        const std::string hex = "_hex\":\"" + dtcore::Hex(c.first) + "\"";
        const std::string json = dtcore::FormatJson("h", e);
        EXPECT_NE(json.find("\"section" + (c.second.empty() ? hex : "\":" + c.second) + ","), npos) << json;
        EXPECT_NE(json.find("\"value" + (c.second.empty() ? hex : "\":" + c.second) + "}"), npos) << json;
        e.kind = dtcore::kBuffer;
        EXPECT_NE(dtcore::FormatJson("h", e).find(",\"value" + hex.substr(4) + "}"), npos);
    }
}

}  // namespace
