#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "collect/collect_getdata.h"
#include "../collect/test_collector.h"
#include "collector.h"
#include "stream_reader.h"

namespace {

const size_t npos = std::string::npos;

// The members of one flat JSON object line, strings decoded as a JSON reader
// would (only the escapes JSON text needs below U+0800), numbers and null
// kept as written after a '#'.
std::map<std::string, std::string> ParseObject(const std::string &line) {
    std::map<std::string, std::string> members;
    size_t i = 1;
    auto text = [&]() {
        std::string out;
        for (++i; line[i] != '"'; ++i) {
            if (line[i] != '\\' || line[++i] != 'u') {
                out += line[i];
                continue;
            }
            unsigned cp = unsigned(std::stoul(line.substr(i + 1, 4), nullptr, 16));
            i += 4;
            out += cp < 0x80 ? std::string(1, char(cp)) : std::string{char(0xC0 | cp >> 6), char(0x80 | (cp & 0x3F))};
        }
        ++i;
        return out;
    };
    while (line[i] == '"') {
        std::string key = text();
        size_t end = line.find_first_of(",}", ++i);
        bool quoted = line[i] == '"';
        members[key] = quoted ? text() : "#" + line.substr(i, end - i);
        i = quoted ? i + 1 : end + 1;  // past the comma
    }
    return members;
}

std::string Unhex(const std::string &hex) {
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out += char(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

// Every byte string comes back from the JSON line: valid UTF-8 as the
// string under "value", anything else as hex under "value_hex"; the same
// for section names. (Numbers: the program's test below.)
TEST(DtcollectJson, EveryByteStringRoundTrips) {
    const std::pair<std::string, bool> strings[] = {
        {"", true},
        {"plain \"quoted\" back\\slash /", true},
        {std::string("\n\t\x01\x1f\x7f\x00", 6), true},
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xef\xbf\xbf\xf4\x8f\xbf\xbf", true},  // up to U+10FFFF
        {"\xe9", false},                  // the Latin-1 byte that "\xc3\xa9" must not be confused with
        {"ok \xc3", false},               // cut sequence
        {"\xe2\x82" "a", false},
        {"\xc0\x80", false},              // overlong
        {"\xed\xa0\x80", false},          // surrogate
        {"\xf4\x90\x80\x80", false},      // past U+10FFFF
    };
    for (const auto &c : strings) {
        SCOPED_TRACE(dtcore::Hex(c.first));
        dtcore::Event e;
        e.kind = dtcore::kString;
        e.named = true;
        e.name = c.first.empty() ? "s" : c.first;
        e.bytes = c.first;
        std::map<std::string, std::string> m = ParseObject(dtcore::FormatJson("h", e));
        EXPECT_EQ(m.count("value"), c.second ? 1u : 0u);
        EXPECT_EQ(m.count("section"), c.second ? 1u : 0u);
        EXPECT_EQ(c.second ? m["value"] : Unhex(m["value_hex"]), c.first);
        EXPECT_EQ(c.second ? m["section"] : Unhex(m["section_hex"]), e.name);
        e.kind = dtcore::kBuffer;
        EXPECT_EQ(Unhex(ParseObject(dtcore::FormatJson("h", e))["value"]), c.first);
    }
}

TEST(DtcollectArgs, BadUsageExitsTwoWithAMessage) {
    const struct {
        std::vector<std::string> args;
        const char *input;  // standard input, for --hosts-file -
        std::string error;
    } cases[] = {
        {{}, "", "no HOST given"},
        {{"--hosts-file", "-"}, "# only a comment\n\n", "no HOST given"},
        {{"--type", "3", "h"}, "", "bad value for --type: 3"},
        {{"--type", "1", "--selftest", "h"}, "", "--type and --selftest exclude each other"},
        {{"--parallel", "0", "h"}, "", "bad value for --parallel: 0"},
        {{"--parallel", "100001", "h"}, "", "bad value for --parallel: 100001"},
        {{"--sequence", "2147483648", "h"}, "", "bad value for --sequence: 2147483648"},
        {{"--hosts-file", ""}, "", "bad value for --hosts-file: (empty)"},
        {{"--hosts-file", "/nonexistent/hosts"}, "", "cannot read the hosts file /nonexistent/hosts"},
        {{"--hosts-file", "-"}, "a\n\n b c # two\n", "(standard input):3: more than one host on the line"},
        {{"h", "--timeout"}, "", "--timeout needs a value"},
        {{"--bogus", "h"}, "", "unknown option --bogus"},
    };
    for (const auto &c : cases) {
        std::istringstream in(c.input);
        std::ostringstream out, err;
        EXPECT_EQ(dtcollect::Main(c.args, in, out, err), 2);
        EXPECT_EQ(err.str().find("dtcollect: " + c.error + "\n"), 0u) << err.str();
        EXPECT_EQ(out.str(), "");
    }
}

// Reads and removes the file.
std::string Take(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    remove(path.c_str());
    return text;
}
// Runs the program itself, in this test's network namespace.
int RunTool(const std::string &args, std::string &out, std::string &err, const std::string &input = "") {
    std::string base = "/tmp/dtcollect-test-" + std::to_string(getpid());
    std::ofstream(base + ".in") << input;
    std::string command = DTCOLLECT_COMMAND " " + args + " <" + base + ".in >" + base + ".out 2>" + base + ".err";
    int status = system(command.c_str());
    Take(base + ".in");
    out = Take(base + ".out");
    err = Take(base + ".err");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

CollectSection *g_numbers = nullptr;
CollectSection *g_texts = nullptr;
// Never destroyed: the agent's thread may still read them while the process exits.
const std::string &kOdd = *new std::string("tab\t\"q\" \xc3\xa9\x01\xff");
// n bytes repeating only every `period`, so that a lost or doubled piece shows.
std::string Seq(int n, int period, char first) {
    std::string s;
    for (int i = 0; i < n; ++i) s += char(first + i % period);
    return s;
}
const std::string &kLong = *new std::string(Seq(3000, 26, 'a'));
const std::string &kBlob = *new std::string(Seq(2500, 256, 0));
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
void SelfTestTexts(uint32_t) {
    Collect_PutInt(g_texts, 6, 99);
    Collect_PutLong(g_texts, 7, -1);
}

std::string Json(const char *section, int index, int block, int code, const char *kind, const std::string &value,
                 const char *key = "value") {
    return std::string("{\"host\":\"127.0.0.1\",\"section\":\"") + section + "\",\"index\":" + std::to_string(index) +
           ",\"block\":" + std::to_string(block) + ",\"code\":" + std::to_string(code) + ",\"kind\":\"" + kind +
           "\",\"" + key + "\":" + value + "}\n";
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
    EXPECT_EQ(RunTool("--version", out, err), 0);
    EXPECT_EQ(out.find("dtcollect (dtkit) "), 0u);
    EXPECT_EQ(out.find('\n'), out.size() - 1);
    EXPECT_EQ(RunTool("--help", out, err), 0);
    EXPECT_NE(out.find("lowercase hex under \"value_hex\""), npos);
    g_numbers = Collect_New("numbers", PutNumbers, nullptr);
    g_texts = Collect_New("texts", PutTexts, SelfTestTexts);
    ASSERT_TRUE(ct::StartAgent(0x01020000)) << "UDP 9099 is taken";
    // kOdd is not valid UTF-8: its bytes come as hex.
    const std::string json = Json("numbers", 0, 7, 1, "int", "3735928559") +
                             Json("numbers", 0, 7, 2, "long", "\"72623859790382856\"") +
                             Json("texts", 1, 0, 3, "string", "\"" + dtcore::Hex(kOdd) + "\"", "value_hex") +
                             Json("texts", 1, 0, 4, "string", "\"" + kLong + "\"") +
                             Json("texts", 1, 0, 5, "buffer", "\"" + dtcore::Hex(kBlob) + "\"");
    EXPECT_EQ(RunTool("--json --type 2 127.0.0.1", out, err), 0) << err;
    EXPECT_EQ(out, json);
    EXPECT_EQ(RunTool("--selftest --sequence 77 127.0.0.1", out, err), 0) << err;
    EXPECT_EQ(out, "127.0.0.1 identity 01 02 sequence 77\n127.0.0.1 selftest \"texts\"\n"
                   "127.0.0.1 \"texts\" #1 block 0 code 6 int 99\n"
                   "127.0.0.1 \"texts\" #1 block 0 code 7 long 18446744073709551615 (0xffffffffffffffff)\n"
                   "127.0.0.1 end: 98 bytes, 2 values\n");
    EXPECT_EQ(err.find("dtcollect: 1 hosts collected, 0 failed, 2 values, "), 0u) << err;
    // Hosts from a file and the command line run side by side; a host that
    // fails spares the others.
    EXPECT_EQ(RunTool("--json --parallel 2 --hosts-file - nosuch.invalid", out, err,
                      "127.0.0.1  # the agent\n# no host\n\nlocalhost\n"), 1);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 10);
    EXPECT_NE(err.find("dtcollect: nosuch.invalid: cannot resolve the host: "), npos) << err;
    EXPECT_NE(err.find("dtcollect: 2 hosts collected, 1 failed, 10 values, "), npos) << err;
    // The one listener's port is taken.
    int held = -1;
    const std::string port = std::to_string(ct::Listen(&held));
    EXPECT_EQ(RunTool("--listen-port " + port + " 127.0.0.1", out, err), 1);
    EXPECT_EQ(err.find("dtcollect: cannot listen on TCP port " + port), 0u) << err;
    close(held);
    // Lines are printed as they are decoded: those before a stall are out.
    g_stallMs = 1500;
    EXPECT_EQ(RunTool("--timeout 0.3 --sequence 9 127.0.0.1", out, err), 1);
    EXPECT_EQ(out, "127.0.0.1 identity 01 02 sequence 9\n127.0.0.1 section 0 \"numbers\"\n"
                   "127.0.0.1 section 1 \"texts\"\n");
    EXPECT_EQ(err.find("dtcollect: 127.0.0.1: the collection was not done within 0.3 s at byte offset 52\n"), 0u)
        << err;
}

}  // namespace
