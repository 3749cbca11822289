// The Wireshark dissector, run by tshark over captures these tests make: a
// collection and configuration queries between namespaces of their own, and
// a crafted stream with a corrupted header on a private loopback.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "../collect/test_collector.h"
#include "collect/collect_getdata.h"
#include "dtnetns.h"
#include "net/DTConfig.h"

namespace {

const size_t npos = std::string::npos;

std::string ReadAll(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

std::string Output(const std::string &cmd) {
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

// Splits on every separator, keeping empty parts (an empty string value is one).
std::vector<std::string> Split(const std::string &text, char sep) {
    std::vector<std::string> parts(1);
    for (char c : text) {
        if (c == sep)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

// Why this machine cannot run the capture tests, or empty.
std::string Unfit() {
    if (geteuid() != 0) return "capturing and network namespaces need root";
    if (system("command -v tshark >/dev/null && command -v dumpcap >/dev/null") != 0)
        return "tshark or dumpcap is not installed (Debian package tshark)";
    return "";
}

// A child process through the shell, ended by a signal.
struct Child {
    pid_t pid = -1;
    void Start(const std::string &cmd) {
        pid = fork();
        if (pid != 0) return;
        execl("/bin/sh", "sh", "-c", ("exec " + cmd).c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    void Stop(int sig) {
        if (pid <= 0) return;
        kill(pid, sig);
        int status;
        waitpid(pid, &status, 0);
        pid = -1;
    }
    ~Child() { Stop(SIGKILL); }
};

// dumpcap on every interface of the namespace it is started in, bounded to a
// minute; Start returns once its file has been opened and the capture runs.
struct Capture {
    std::string file = "/tmp/dtkit-ws-" + std::to_string(getpid()) + ".pcapng";
    Child child;
    bool Start(const std::string &prefix, const std::string &iface) {
        unlink(file.c_str());
        child.Start(prefix + " dumpcap -q -i " + iface + " -a duration:60 -w " + file + " 2>/dev/null");
        struct stat st;
        for (int i = 0; i < 200; ++i) {
            if (stat(file.c_str(), &st) == 0 && st.st_size > 0) {
                usleep(300 * 1000);
                return true;
            }
            usleep(50 * 1000);
        }
        return false;
    }
    // dumpcap writes its last packets out on SIGINT.
    void Stop() { child.Stop(SIGINT); }
    // One tshark run over the capture: every occurrence of each field, in
    // frame order. A field whose only value in a frame is empty is not told
    // apart from one that is absent there.
    std::map<std::string, std::vector<std::string>> Decode(const std::vector<std::string> &fields,
                                                           const std::string &filter = "") {
        std::string cmd = "tshark -r " + file + " -X lua_script:" DTKIT_LUA " -Y '" + filter +
                          "' -T fields -E occurrence=a -E aggregator='|'";
        for (const std::string &f : fields) cmd += " -e " + f;
        std::map<std::string, std::vector<std::string>> all;
        std::istringstream lines(Output(cmd + " 2>/dev/null"));
        for (std::string line; std::getline(lines, line);) {
            std::vector<std::string> cells = Split(line, '\t');
            for (size_t i = 0; i < fields.size() && i < cells.size(); ++i)
                if (!cells[i].empty())
                    for (const std::string &v : Split(cells[i], '|')) all[fields[i]].push_back(v);
        }
        return all;
    }
    ~Capture() { unlink(file.c_str()); }
};

std::string Hex(const std::string &bytes) {
    static const char d[] = "0123456789abcdef";
    std::string h;
    for (unsigned char c : bytes) h += {d[c >> 4], d[c & 15]};
    return h;
}
std::string Seq(int n, int period, char first) {
    std::string s;
    for (int i = 0; i < n; ++i) s += char(first + i % period);
    return s;
}

// Every expert entry the dissector can add.
const std::string kOurExperts =
    "dtkit.request.malformed or dtkit.header.malformed or dtkit.payload.malformed or dtkit.piece.broken"
    " or dtkit.dissector or dtkitcfg.query.malformed or dtkitcfg.dissector";

CollectSection *g_numbers = nullptr;
CollectSection *g_texts = nullptr;
// Never destroyed: the agent's thread may still read them while the process exits.
const std::string &kLong = *new std::string(Seq(3000, 26, 'a'));
const std::string &kBlob = *new std::string(Seq(2500, 256, 0));
void PutNumbers(uint32_t) {
    Collect_BeginSection(g_numbers, 7);
    Collect_PutInt(g_numbers, 1, 0xDEADBEEF);
    Collect_PutLong(g_numbers, 2, 0x0102030405060708ll);
    Collect_EndSection(g_numbers);
}
void PutTexts(uint32_t) {
    Collect_PutString(g_texts, 3, "short one", 0);
    Collect_PutString(g_texts, 4, kLong.c_str(), 0);
    Collect_PutStruct(g_texts, 5, kBlob.data(), uint32_t(kBlob.size()));
    Collect_PutString(g_texts, 6, "", 0);
}

// The host's agent in the device namespace, dtcollect and dtconfigd in the
// server namespace, the capture on the server side of the pair.
TEST(WiresharkDissector, ShowsWhatTheHostPutAndTheToolsPrinted) {
    std::string why = Unfit();
    if (!why.empty()) GTEST_SKIP() << why;
    dttest::NetnsPair ns;
    why = ns.Make();
    if (!why.empty()) GTEST_SKIP() << why;
    const std::string srv = "ip netns exec " + ns.ServerName();
    Capture cap;
    ASSERT_TRUE(cap.Start(srv, "any")) << "dumpcap did not start";
    std::string conf = "/tmp/dtkit-ws-" + std::to_string(getpid()) + ".conf";
    std::ofstream(conf) << "[net]\nmtu = 9000\nname = lab one\n";
    std::string dlog = conf + ".log";
    Child daemon;
    daemon.Start(srv + " " DTCONFIGD_COMMAND " " + conf + " >" + dlog + " 2>&1");

    ASSERT_TRUE(ns.EnterDevice());
    g_numbers = Collect_New("numbers", PutNumbers, nullptr);
    g_texts = Collect_New("texts", PutTexts, nullptr);
    ASSERT_TRUE(ct::StartAgent(0x01020000)) << "UDP 9099 is taken";
    std::string json = Output(srv + " " DTCOLLECT_COMMAND " --json --sequence 77 10.99.0.1");
    // The server is slow to start under the emulator: 20 s at most.
    for (int i = 0; i < 400 && ReadAll(dlog).find("serving") == npos; ++i) usleep(50 * 1000);
    EXPECT_EQ(DTConfig_GetInt("net", "mtu", 1500), 9000);
    char name[1000];
    DTConfig_GetString("net", "name", "none", name);
    EXPECT_STREQ(name, "lab one");
    EXPECT_EQ(DTConfig_GetInt("net", "speed", 100), 100);
    usleep(300 * 1000);
    cap.Stop();
    daemon.Stop(SIGTERM);

    using V = std::vector<std::string>;
    const std::pair<std::string, V> want[] = {
        {"dtkit.request.length", {"16"}},
        {"dtkit.request.type", {"0"}},
        {"dtkit.request.sequence", {"77"}},
        {"dtkit.identity.id1", {"0x01"}},
        {"dtkit.identity.id2", {"0x02"}},
        {"dtkit.entry.index", {"0", "1"}},
        {"dtkit.entry.name", {"numbers", "texts"}},
        {"dtkit.record.int", {"3735928559"}},
        {"dtkit.record.long", {"72623859790382856"}},
        {"dtkit.value.string", {"short one", kLong}},
        {"dtkit.value.buffer", {Hex(kBlob)}},
        {"dtkit.value.length", {"9", "3000", "2500", "0"}},
        {"dtkit.value.pieces", {"1", "3", "3", "1"}},
        {"dtkitcfg.section", {"net", "net", "net"}},
        {"dtkitcfg.key", {"mtu", "name", "speed"}},
        {"dtkitcfg.default", {"1500", "none", "100"}},
        {"dtkitcfg.reply", {"9000", "lab one", "100"}},
    };
    V fields = {"dtkit.sequence", "dtkit.record.kind", "dtkit.record.block", "dtkit.record.section_name",
                "dtkit.piece.first_frame", "frame.number"};
    for (const auto &w : want) fields.push_back(w.first);
    auto got = cap.Decode(fields);
    for (const auto &w : want) EXPECT_EQ(got[w.first], w.second) << w.first;
    ASSERT_FALSE(got["dtkit.sequence"].empty());
    EXPECT_EQ(got["dtkit.sequence"][0], "77") << "the identity message carries the request's sequence";
    // Records in stream order: int, long, then pieces, the last an empty string.
    const V &kinds = got["dtkit.record.kind"];
    ASSERT_EQ(kinds.size(), 10u);
    EXPECT_EQ(kinds[0], "0x81");
    EXPECT_EQ(kinds[1], "0x82");
    EXPECT_EQ(kinds[3], "0x03");
    EXPECT_EQ(kinds[5], "0x83");
    EXPECT_EQ(kinds[6], "0x04");
    EXPECT_EQ(kinds[8], "0x84");
    EXPECT_EQ(kinds[9], "0x83");
    EXPECT_EQ(got["dtkit.record.block"], V({"7", "7", "0", "0", "0", "0", "0", "0", "0", "0"}));
    EXPECT_EQ(got["dtkit.record.section_name"],
              V({"numbers", "numbers", "texts", "texts", "texts", "texts", "texts", "texts", "texts", "texts"}));
    // The three pieces of the long string all point at the frame of the first.
    const V &first = got["dtkit.piece.first_frame"];
    ASSERT_EQ(first.size(), 8u);
    EXPECT_EQ(first[2], first[1]);
    EXPECT_EQ(first[3], first[1]);
    EXPECT_NE(first[4], first[3]) << "the buffer is a value of its own";
    EXPECT_EQ(cap.Decode({"frame.number"}, kOurExperts).count("frame.number"), 0u)
        << "a clean collection has no expert entries";

    // What dtcollect printed: the same values. A long may print as a JSON
    // number or as a string of its digits.
    EXPECT_NE(json.find("\"code\":1,\"kind\":\"int\",\"value\":3735928559}"), npos) << json;
    EXPECT_NE(json.find("\"kind\":\"string\",\"value\":\"" + kLong + "\"}"), npos);
    EXPECT_NE(json.find("\"kind\":\"buffer\",\"value\":\"" + Hex(kBlob) + "\"}"), npos);
    size_t at = json.find("\"kind\":\"long\",\"value\":");
    ASSERT_NE(at, npos) << json;
    EXPECT_EQ(json.substr(at + 22, 19).find("72623859790382856"), json[at + 22] == '"' ? 1u : 0u) << json;
    EXPECT_NE(ReadAll(dlog).find("[net] speed -> \"100\" (default)"), npos) << ReadAll(dlog);
    unlink(conf.c_str());
    unlink(dlog.c_str());
}

// Big-endian words for crafted messages.
std::string Be(uint64_t v, int n) {
    std::string b;
    for (int i = n - 1; i >= 0; --i) b += char(uint8_t(v >> (8 * i)));
    return b;
}
std::string Msg(uint32_t type, const std::string &payload, uint32_t length = 0) {
    return Be(length ? length : 12 + payload.size(), 4) + Be(type, 4) + Be(1, 4) + payload;
}
const std::string kIdentity = Msg(0, std::string("\x01\x02\x00\x00", 4));

// Plays the agent's side of a stream towards a listener of this process.
void SendStream(uint16_t port, const std::string &bytes) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(send(s, bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
    close(s);
}
int Listen(uint16_t &port) {
    int l = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(l, reinterpret_cast<sockaddr *>(&a), sizeof a);
    listen(l, 4);
    getsockname(l, reinterpret_cast<sockaddr *>(&a), &len);
    port = ntohs(a.sin_port);
    return l;
}

// Every malformed shape gets its expert entry, named; the stream named by a
// request and one found by its first message alike.
TEST(WiresharkDissector, MalformedMessagesGetExpertEntries) {
    std::string why = Unfit();
    if (!why.empty()) GTEST_SKIP() << why;
    if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "cannot make a network namespace";
    ASSERT_EQ(system("ip link set lo up"), 0);
    Capture cap;
    ASSERT_TRUE(cap.Start("", "lo")) << "dumpcap did not start";
    uint16_t named = 0, found = 0;
    int l1 = Listen(named), l2 = Listen(found);
    ct::SendDatagram(ct::Request(16, 2, 5, named));
    ct::SendDatagram(ct::Request(15, 4, 5, 1));
    const std::string record = std::string("\x81", 1) + Be(0, 4) + Be(0, 4) + Be(1, 4) + Be(42, 4);
    SendStream(named, kIdentity + Msg(1, Be(0, 4) + Be(9, 2) + "ab") + Msg(2, record + "\x05" + std::string(12, '\0')) +
                          Msg(2, "", 5) + Msg(2, ""));
    const std::string piece = std::string("\x03", 1) + Be(0, 4) + Be(0, 4) + Be(2, 4) + Be(1, 2) + "a";
    SendStream(found, kIdentity + Msg(2, record) + Msg(2, piece + record) + Msg(7, ""));
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(8999);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(s, "=>config net", 12, 0, reinterpret_cast<sockaddr *>(&a), sizeof a);
    close(s);
    usleep(300 * 1000);
    cap.Stop();
    close(l1);
    close(l2);

    std::string experts;
    auto got = cap.Decode({"_ws.expert.message", "dtkit.record.int"});
    for (const std::string &m : got["_ws.expert.message"]) experts += m + "\n";
    const char *want[] = {
        "length word 15 differs from the 16 bytes read",
        "type 4 is above 3",
        "section list entry 0's name of 9 bytes overruns the message",
        "unknown record kind 0x05",
        "message length 5 is outside 12 to 1036",
        "unknown message type 7",
        "this int record interrupts the string value begun in frame",
        "query lacks the section, key or default",
    };
    for (const char *w : want) EXPECT_NE(experts.find(w), npos) << w << " in\n" << experts;
    EXPECT_EQ(experts.find("cannot decode"), npos) << experts;
    // Both streams decode their good records: the heuristic found the second.
    EXPECT_EQ(got["dtkit.record.int"], (std::vector<std::string>{"42", "42", "42"}));
}

}  // namespace
