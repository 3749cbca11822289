#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "collect/collect_getdata.h"
#include "../collect/test_collector.h"
#include "collector.h"
#include "stream_reader.h"

namespace {

using Bytes = std::vector<uint8_t>;
const size_t npos = std::string::npos;

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes b;
    for (const Bytes &p : parts) b.insert(b.end(), p.begin(), p.end());
    return b;
}
Bytes Be(uint64_t v, int n) {
    Bytes b;
    for (int i = n - 1; i >= 0; --i) b.push_back(uint8_t(v >> (8 * i)));
    return b;
}
Bytes S(const std::string &s) { return Bytes(s.begin(), s.end()); }
Bytes Msg(uint32_t type, const Bytes &payload, uint32_t seq = 1, uint32_t len = 0) {
    return Cat({Be(len ? len : 12 + payload.size(), 4), Be(type, 4), Be(seq, 4), payload});
}
Bytes Head(uint8_t kind, uint32_t section, uint32_t block, uint32_t code) {
    return Cat({{kind}, Be(section, 4), Be(block, 4), Be(code, 4)});
}
Bytes Num(uint8_t kind, uint32_t section, uint32_t block, uint32_t code, uint64_t v) {
    return Cat({Head(kind, section, block, code), Be(v, kind == 0x81 ? 4 : 8)});
}
Bytes Piece(uint8_t kind, uint32_t section, uint32_t block, uint32_t code, const std::string &data) {
    return Cat({Head(kind, section, block, code), Be(data.size(), 2), S(data)});
}
Bytes Entry(uint32_t index, const std::string &name) { return Cat({Be(index, 4), Be(name.size(), 2), S(name)}); }
const Bytes kIdentity = Msg(0, {1, 2, 0, 0}, 5);

// Feeds the stream in chunks of `chunk` bytes; how many messages were completed.
size_t FeedAll(dtcore::StreamReader &r, const Bytes &stream, size_t chunk) {
    size_t acks = 0;
    for (size_t at = 0; at < stream.size(); at += chunk)
        acks += r.Feed(stream.data() + at, std::min(chunk, stream.size() - at));
    return acks;
}

TEST(DtcollectReader, RebuildsEveryKindFromPiecesWhateverTheChunking) {
    Bytes stream = Cat({kIdentity, Msg(1, Cat({Entry(0, "cpu"), Entry(1, "mem")})),
                        Msg(2, Cat({Num(0x81, 0, 7, 1, 42), Num(0x82, 0, 7, 2, 0x0102030405060708ull),
                                    Piece(0x03, 1, 0, 3, "he"), Piece(0x83, 1, 0, 3, "llo"),
                                    Piece(0x04, 1, 0, 4, std::string("\x00\xff", 2))})),
                        Msg(2, Cat({Piece(0x84, 1, 0, 4, "\x10"), Num(0x81, 9, 0, 5, 1)})), Msg(2, {})});
    const std::vector<std::string> want = {
        R"({"host":"h","section":"cpu","index":0,"block":7,"code":1,"kind":"int","value":42})",
        R"({"host":"h","section":"cpu","index":0,"block":7,"code":2,"kind":"long","value":72623859790382856})",
        R"({"host":"h","section":"mem","index":1,"block":0,"code":3,"kind":"string","value":"hello"})",
        R"({"host":"h","section":"mem","index":1,"block":0,"code":4,"kind":"buffer","value":"00ff10"})",
        R"({"host":"h","section":null,"index":9,"block":0,"code":5,"kind":"int","value":1})",
    };
    for (size_t chunk : {size_t(1), size_t(5), size_t(13), stream.size()}) {
        SCOPED_TRACE(chunk);
        dtcore::StreamReader r(false, 0);
        EXPECT_EQ(FeedAll(r, stream, chunk), 5u);
        EXPECT_TRUE(r.Finish()) << r.Error();
        std::vector<dtcore::Event> events = r.TakeEvents();
        ASSERT_EQ(events.size(), 3 + want.size());
        for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(dtcore::FormatJson("h", events[3 + i]), want[i]);
        EXPECT_EQ(dtcore::FormatText("h", events[4]),
                  "h \"cpu\" #0 block 7 code 2 long 72623859790382856 (0x0102030405060708)");
        EXPECT_EQ(dtcore::FormatText("h", events[7]), "h ? #9 block 0 code 5 int 1");
    }
}

TEST(DtcollectReader, MalformedStreamsNameTheOffsetAndKeepWhatCameBefore) {
    Bytes head = Head(0x81, 0, 0, 0);
    Bytes cut = Msg(2, head);
    cut.pop_back();
    struct Case {
        const char *name;
        Bytes stream;
        const char *error;
        size_t acks, events;
        size_t maxValue = dtcore::kDefaultMaxValue;
    } cases[] = {
        {"short length", Cat({kIdentity, Msg(2, {}, 1, 11)}), "message at byte offset 16 has length 11", 1, 1},
        {"long length", Cat({kIdentity, Msg(2, {}, 1, 1037)}), "offset 16 has length 1037", 1, 1},
        {"unknown type", Cat({kIdentity, Msg(3, {})}), "message at byte offset 16 has the unknown type 3", 1, 1},
        {"no identity", Msg(2, {}), "message at byte offset 0 is of type 2", 0, 0},
        {"late list", Cat({kIdentity, Msg(2, {}), Msg(1, {})}), "byte offset 28 is a section list out of place", 2, 1},
        {"identity size", Msg(0, {1, 2, 0}), "identity message at byte offset 0 carries 3 bytes", 0, 0},
        {"list overrun", Cat({kIdentity, Msg(1, {0, 0, 0, 0, 0, 5, 'a'})}), "entry at byte offset 28 overruns", 1, 1},
        {"bad kind", Cat({kIdentity, Msg(2, Cat({Num(0x81, 0, 0, 0, 1), Head(0x05, 0, 0, 0)}))}),
         "record at byte offset 45 has the unknown kind 0x05", 1, 2},
        {"int not last", Cat({kIdentity, Msg(2, Head(0x01, 0, 0, 0))}), "unknown kind 0x01", 1, 1},
        {"short record", Cat({kIdentity, Msg(2, Bytes(5, 0x81))}), "byte offset 28: its message ends after 5", 1, 1},
        {"int overrun", Cat({kIdentity, Msg(2, Cat({head, {0, 0, 0}}))}),
         "int record at byte offset 28 needs 17 bytes but its message ends at byte offset 44", 1, 1},
        {"string overrun", Cat({kIdentity, Msg(2, Cat({Head(0x83, 0, 0, 0), {0, 10, 'a'}}))}),
         "string record at byte offset 28 needs 25 bytes", 1, 1},
        {"interrupted", Cat({kIdentity, Msg(2, Cat({Piece(0x03, 0, 0, 0, "ab"), Num(0x81, 0, 0, 0, 1)}))}),
         "record at byte offset 45 breaks into the string value begun at byte offset 28", 1, 1},
        {"other code", Cat({kIdentity, Msg(2, Cat({Piece(0x04, 0, 0, 0, "a"), Piece(0x84, 0, 0, 1, "b")}))}),
         "record at byte offset 44 breaks into the buffer value", 1, 1},
        {"too long", Cat({kIdentity, Msg(2, Cat({Piece(0x03, 0, 0, 0, "abc"), Piece(0x83, 0, 0, 0, "de")}))}),
         "record at byte offset 46 makes the string value begun at byte offset 28 longer than 4 bytes", 1, 1, 4},
        {"cut in payload", Cat({kIdentity, cut}),
         "closed at byte offset 40, inside the message begun at byte offset 16 (24 of 25 bytes", 1, 1},
        {"no closing message", Cat({kIdentity, Msg(2, Num(0x81, 0, 0, 0, 1))}),
         "closed at byte offset 45 before the closing empty", 2, 2},
        {"unfinished value", Cat({kIdentity, Msg(2, Piece(0x04, 0, 0, 0, "a")), Msg(2, {})}),
         "closed at byte offset 56 with the buffer value begun at byte offset 28 unfinished", 3, 1},
        {"empty", {}, "closed at byte offset 0 before the identity message", 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        for (size_t chunk : {size_t(1), size_t(4096)}) {
            dtcore::StreamReader r(false, 0, c.maxValue);
            EXPECT_EQ(FeedAll(r, c.stream, chunk), c.acks);
            EXPECT_FALSE(r.Finish());
            EXPECT_NE(r.Error().find(c.error), std::string::npos) << r.Error();
            EXPECT_EQ(r.TakeEvents().size(), c.events);
        }
    }
}

TEST(DtcollectReader, JsonStringsAreValidForAnyBytes) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain", R"("plain")"},
        {"\"\\/", R"("\"\\/")"},
        {std::string("\n\x01\x7f\x00", 4), R"("\u000a\u0001\u007f\u0000")"},
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\""},  // well-formed UTF-8 passes
        {"\xc3", R"("\u00c3")"},                                // cut sequence
        {"\xc0\x80", R"("\u00c0\u0080")"},                      // overlong
        {"\xed\xa0\x80", R"("\u00ed\u00a0\u0080")"},            // surrogate
        {"\xf4\x90\x80\x80", R"("\u00f4\u0090\u0080\u0080")"},  // past U+10FFFF
        {"\xe2\x82" "a", R"("\u00e2\u0082a")"},
        {"\xff\xfe", R"("\u00ff\u00fe")"},
    };
    for (const auto &c : cases) EXPECT_EQ(dtcore::JsonString(c.first), c.second);
}

TEST(DtcollectArgs, BadUsageExitsTwoWithAMessage) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "no HOST given"},
        {{"--type", "3", "h"}, "bad value for --type: 3"},
        {{"--timeout", "0", "h"}, "bad value for --timeout: 0"},
        {{"--type", "1", "--selftest", "h"}, "--type and --selftest exclude each other"},
        {{"--parallel", "0", "h"}, "bad value for --parallel: 0"},
        {{"--hosts-file", "/nonexistent/hosts"}, "cannot read the hosts file /nonexistent/hosts"},
        {{"h", "--timeout"}, "--timeout needs a value"},
        {{"--bogus", "h"}, "unknown option --bogus"},
    };
    for (const auto &c : cases) {
        std::istringstream in;
        std::ostringstream out, err;
        EXPECT_EQ(dtcollect::Main(c.first, in, out, err), 2);
        EXPECT_NE(err.str().find("dtcollect: " + c.second), std::string::npos) << err.str();
    }
}

std::string ReadAll(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}
// Runs the program itself, in this test's network namespace.
int RunTool(const std::string &args, std::string &out, std::string &err, const std::string &input = "") {
    std::string base = "/tmp/dtcollect-test-" + std::to_string(getpid());
    std::ofstream(base + ".in") << input;
    int status = system((DTCOLLECT_COMMAND " " + args + " <" + base + ".in >" + base + ".out 2>" + base + ".err").c_str());
    remove((base + ".in").c_str());
    out = ReadAll(base + ".out");
    err = ReadAll(base + ".err");
    remove((base + ".out").c_str());
    remove((base + ".err").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

CollectSection *g_numbers = nullptr;
CollectSection *g_texts = nullptr;
const std::string kOdd = "tab\t\"q\" \xc3\xa9\x01\xff";
// n bytes repeating only every `period`, so that a lost or doubled piece shows.
std::string Seq(int n, int period, char first) {
    std::string s;
    for (int i = 0; i < n; ++i) s += char(first + i % period);
    return s;
}
const std::string kLong = Seq(3000, 26, 'a');
const std::string kBlob = Seq(2500, 256, 0);
std::atomic<int> g_stallMs{0};
void PutNumbers(uint32_t) {
    usleep(g_stallMs * 1000);
    Collect_BeginSection(g_numbers, 7);
    Collect_PutInt(g_numbers, 1, 0xDEADBEEF);
    Collect_PutLong(g_numbers, 2, 0x0102030405060708ll);
    Collect_EndSection(g_numbers);
}
void PutTexts(uint32_t) {
    Collect_PutString(g_texts, 3, kOdd.c_str(), int32_t(kOdd.size()));
    Collect_PutString(g_texts, 4, kLong.c_str(), 0);
    Collect_PutStruct(g_texts, 5, kBlob.data(), uint32_t(kBlob.size()));
}
void SelfTestTexts(uint32_t) { Collect_PutInt(g_texts, 6, 99); }

std::string Json(const char *section, int index, int block, int code, const char *kind, const std::string &value) {
    return std::string("{\"host\":\"127.0.0.1\",\"section\":\"") + section + "\",\"index\":" + std::to_string(index) +
           ",\"block\":" + std::to_string(block) + ",\"code\":" + std::to_string(code) + ",\"kind\":\"" + kind +
           "\",\"value\":" + value + "}\n";
}

// The program and the library's agent, on a thread of this process, meet on
// UDP port 9099: in a network namespace of this test process alone when it may
// make one, else on the machine's, where test runs take turns with the port
// (ctest's lock, the shared port lock). One agent serves every run in turn,
// the stalled one last, as the agent stays stuck in it; values are long
// enough to be split across messages.
TEST(DtcollectProgram, PrintsExactlyWhatTheSectionsPutAndReportsEachFailure) {
    if (unshare(CLONE_NEWNET) == 0) {
        ASSERT_EQ(system("ip link set lo up"), 0);
    }
    std::string out, err;
    EXPECT_EQ(RunTool("--timeout 0.2 127.0.0.1", out, err), 1) << "no agent yet";
    EXPECT_EQ(out, "");
    EXPECT_NE(err.find("dtcollect: 127.0.0.1: no connection from the device within 0.2 s (TCP port "), npos) << err;
    EXPECT_NE(err.find(") at byte offset 0\ndtcollect: 0 hosts collected, 1 failed, 0 values, 0.2"), npos) << err;
    g_numbers = Collect_New("numbers", PutNumbers, nullptr);
    g_texts = Collect_New("texts", PutTexts, SelfTestTexts);
    ASSERT_TRUE(ct::StartAgent(0x01020000)) << "UDP 9099 is taken";
    const std::string json = Json("numbers", 0, 7, 1, "int", "3735928559") +
                             Json("numbers", 0, 7, 2, "long", "\"72623859790382856\"") +
                             Json("texts", 1, 0, 4, "string", "\"" + kLong + "\"") +
                             Json("texts", 1, 0, 5, "buffer", "\"" + dtcore::Hex(kBlob) + "\"");
    const std::string odd = R"(,"kind":"string","value_hex":")" + dtcore::Hex(kOdd) + "\"}\n";
    EXPECT_EQ(RunTool("--json --type 2 127.0.0.1", out, err), 0) << err;
    EXPECT_EQ(out.substr(0, json.find("\n") + 1), json.substr(0, json.find("\n") + 1));
    EXPECT_EQ(RunTool("--sequence 77 127.0.0.1", out, err), 0) << err;
    std::string plain = "127.0.0.1 identity 01 02 sequence 77\n127.0.0.1 section 0 \"numbers\"\n"
                        "127.0.0.1 section 1 \"texts\"\n127.0.0.1 \"numbers\" #0 block 7 code 1 int 3735928559\n";
    EXPECT_EQ(out.substr(0, plain.size()), plain);
    EXPECT_NE(out.find("\"texts\" #1 block 0 code 5 buffer 2500 " + dtcore::Hex(kBlob) + "\n"), npos) << out;
    EXPECT_NE(out.find("\n127.0.0.1 end: "), npos) << out;
    EXPECT_EQ(err.find("dtcollect: 1 hosts collected, 0 failed, 5 values, "), 0u) << err;
    EXPECT_EQ(RunTool("--selftest 127.0.0.1", out, err), 0) << err;
    EXPECT_NE(out.find("127.0.0.1 selftest \"texts\"\n127.0.0.1 \"texts\" #1 block 0 code 6 int 99\n"), npos) << out;
    EXPECT_EQ(out.find("numbers"), npos) << out;
    // Hosts from a file and the command line run side by side; a host that
    // fails spares the others.
    EXPECT_EQ(RunTool("--json --parallel 2 --hosts-file - nosuch.invalid", out, err,
                      "127.0.0.1  # the agent\n# no host\n\n127.0.0.2\n"), 1);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 10);
    EXPECT_NE(err.find("dtcollect: nosuch.invalid: cannot resolve the host: "), npos) << err;
    EXPECT_NE(err.find("dtcollect: 2 hosts collected, 1 failed, 10 values, "), npos) << err;
    // The one listener's port is taken.
    int held = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(held, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(held, 1), 0);
    ASSERT_EQ(getsockname(held, reinterpret_cast<sockaddr *>(&a), &len), 0);
    const std::string port = std::to_string(ntohs(a.sin_port));
    EXPECT_EQ(RunTool("--listen-port " + port + " 127.0.0.1", out, err), 1);
    EXPECT_EQ(err.find("dtcollect: cannot listen on TCP port " + port), 0u) << err;
    close(held);
    g_stallMs = 1500;
    EXPECT_EQ(RunTool("--timeout 0.3 127.0.0.1", out, err), 1);
    EXPECT_EQ(out.find("127.0.0.1 identity 01 02 sequence "), 0u) << out;
    EXPECT_EQ(out.substr(out.find('\n') + 1), "127.0.0.1 section 0 \"numbers\"\n127.0.0.1 section 1 \"texts\"\n");
    EXPECT_EQ(err.find("dtcollect: 127.0.0.1: the collection was not done within 0.3 s at byte offset 52\n"), 0u)
        << err;
}

}  // namespace
