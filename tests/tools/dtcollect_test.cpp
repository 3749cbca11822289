#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <sstream>

#include "collect/collect_getdata.h"
#include "../collect/test_collector.h"
#include "collector.h"
#include "stream_reader.h"
#include "tool_process.h"

namespace {

std::string out_, err_;  // the last run's output and error output

// The whole program in-process; standard input is `input`.
int Dtcollect(const std::vector<std::string> &args, const std::string &input = "") {
    std::istringstream in(input);
    std::ostringstream o, e;
    const int status = dtcollect::Main(args, in, o, e);
    out_ = o.str();
    err_ = e.str();
    return status;
}

// Bad usage exits 2 with a message; --help and --version answer at once.
TEST(DtcollectArgs, UsageAndBadUsage) {
    // Standard input (for --hosts-file -), the error; when that is empty: exit 0 with `out`.
    const struct { std::vector<std::string> args; const char *input; std::string error, out = ""; } cases[] = {
        {{"h", "--version"}, "", "", "dtcollect (dtkit) "},
        {{"--help", "--bogus"}, "", "", "usage: dtcollect "},
        {{}, "", "no HOST given"},
        {{"--type", "1", "--selftest", "h"}, "", "--type and --selftest exclude each other"},
        {{"--sequence", "00000000001", "h"}, "", "bad value for --sequence: 00000000001"},  // 11 digits
        {{"--hosts-file", ""}, "", "bad value for --hosts-file: (empty)"},
        {{"--hosts-file", "/nonexistent/hosts"}, "", "cannot read the hosts file /nonexistent/hosts"},
        {{"--hosts-file", "/dev/null"}, "", "no HOST given"},  // read, and empty
        {{"--hosts-file", "-"}, "a\n\n b c # two\n", "(standard input):3: more than one host on the line"},
        {{"h", "--timeout"}, "", "--timeout needs a value"},
        {{"--bogus", "h"}, "", "unknown option --bogus"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args.empty() ? "" : c.args.back());
        EXPECT_EQ(Dtcollect(c.args, c.input), c.error.empty() ? 0 : 2);
        EXPECT_EQ(c.error.empty() ? out_.find(c.out) : err_.find("dtcollect: " + c.error + "\n"), 0u) << err_;
        EXPECT_EQ(c.error.empty() ? err_ : out_, "");
    }
}

CollectSection *g_numbers = nullptr, *g_texts = nullptr;
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

// The program and the library's agent, on a thread of this process, meet on
// UDP port 9099: in a network namespace of this test process alone when it may
// make one, else on the machine's, where test runs take turns with the port
// (ctest's lock, the shared port lock). One agent serves every run in turn,
// the stalled one last, as the agent stays stuck in it; values are long
// enough to be split across messages.
TEST(DtcollectProgram, PrintsExactlyWhatTheSectionsPutAndReportsEachFailure) {
    tp::OwnNetwork();
    g_numbers = Collect_New("numbers", PutNumbers, nullptr);
    g_texts = Collect_New("texts", PutTexts, SelfTestTexts);
    ASSERT_TRUE(ct::StartAgent(0x01020000)) << "UDP 9099 is taken";
    // kOdd is not valid UTF-8: its bytes come as hex.
    const std::string n = R"({"host":"127.0.0.1","section":"numbers","index":0,"block":7,"code":)";
    const std::string t = R"({"host":"127.0.0.1","section":"texts","index":1,"block":0,"code":)";
    const std::string json = n + R"(1,"kind":"int","value":3735928559})" "\n" +
                             n + R"(2,"kind":"long","value":"72623859790382856"})" "\n" +
                             t + R"(3,"kind":"string","value_hex":")" + dtcore::Hex(kOdd) + "\"}\n" +
                             t + R"(4,"kind":"string","value":")" + kLong + "\"}\n" +
                             t + R"(5,"kind":"buffer","value":")" + dtcore::Hex(kBlob) + "\"}\n";
    EXPECT_EQ(Dtcollect({"--json", "--type", "2", "127.0.0.1"}), 0) << err_;
    EXPECT_EQ(out_, json);
    EXPECT_EQ(Dtcollect({"--selftest", "--sequence", "77", "127.0.0.1"}), 0) << err_;
    EXPECT_EQ(out_, "127.0.0.1 identity 01 02 sequence 77\n127.0.0.1 selftest \"texts\"\n"
                    "127.0.0.1 \"texts\" #1 block 0 code 6 int 99\n"
                    "127.0.0.1 \"texts\" #1 block 0 code 7 long 18446744073709551615 (0xffffffffffffffff)\n"
                    "127.0.0.1 end: 98 bytes, 2 values\n");
    EXPECT_EQ(err_.find("dtcollect: 1 hosts collected, 0 failed, 2 values, "), 0u) << err_;
    // Hosts from a file and the command line run side by side; a host that
    // fails spares the others.
    EXPECT_EQ(Dtcollect({"--json", "--parallel", "2", "--hosts-file", "-", "nosuch.invalid"},
                        "127.0.0.1  # the agent\n# no host\n\nlocalhost\n"), 1);
    EXPECT_EQ(std::count(out_.begin(), out_.end(), '\n'), 10);
    EXPECT_NE(err_.find("dtcollect: nosuch.invalid: cannot resolve the host: "), npos) << err_;
    EXPECT_NE(err_.find("dtcollect: 2 hosts collected, 1 failed, 10 values, "), npos) << err_;
    // The one listener's port is taken.
    int held = -1;
    const std::string port = std::to_string(ct::Listen(&held));
    EXPECT_EQ(Dtcollect({"--listen-port", port, "127.0.0.1"}), 1);
    EXPECT_EQ(err_.find("dtcollect: cannot listen on TCP port " + port), 0u) << err_;
    close(held);
    // Lines are printed as they are decoded: those before a stall are out.
    g_stallMs = 1500;
    EXPECT_EQ(Dtcollect({"--timeout", "0.3", "--sequence", "9", "127.0.0.1"}), 1);
    EXPECT_EQ(out_, "127.0.0.1 identity 01 02 sequence 9\n127.0.0.1 section 0 \"numbers\"\n"
                    "127.0.0.1 section 1 \"texts\"\n");
    EXPECT_EQ(err_.find("dtcollect: 127.0.0.1: the collection was not done within 0.3 s at byte offset 52\n"), 0u)
        << err_;
}

}  // namespace
