// The Wireshark dissector, run by tshark over captures these tests make: a
// collection and configuration queries between namespaces of their own, and
// a crafted stream with a corrupted header on a private loopback.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>

#include <map>

#include "../collect/test_collector.h"
#include "collect/collect_getdata.h"
#include "collect_stream.h"
#include "dtnetns.h"
#include "net/DTConfig.h"
#include "net/DTSock.h"
#include "stream_reader.h"
#include "tool_process.h"

namespace {

const size_t npos = std::string::npos;

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

// dumpcap on every interface of the namespace it is started in, bounded to a
// minute; Started says once its file has been opened and the capture runs.
struct Capture {
    std::string file = "/tmp/dtkit-ws-" + std::to_string(getpid()) + ".pcapng";
    tp::Proc dumpcap;
    Capture(const std::string &prefix, const std::string &iface)
        : dumpcap(prefix + " dumpcap -q -i " + iface + " -a duration:60 -w " + file, "dumpcap") {}
    bool Started() {
        struct stat st {};
        for (int i = 0; i < 200 && (stat(file.c_str(), &st) != 0 || st.st_size == 0); ++i) usleep(50 * 1000);
        usleep(300 * 1000);
        return st.st_size > 0;
    }
    // dumpcap writes its last packets out on SIGINT.
    void Stop() { dumpcap.Stop(SIGINT); }
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
TEST(WiresharkDissector, ShowsWhatTheHostAndTheServerPut) {
    std::string why = Unfit();
    if (!why.empty()) GTEST_SKIP() << why;
    dttest::NetnsPair ns;
    why = ns.Make();
    if (!why.empty()) GTEST_SKIP() << why;
    const std::string srv = "ip netns exec " + ns.ServerName();
    Capture cap(srv, "any");
    ASSERT_TRUE(cap.Started()) << "dumpcap did not start";
    const std::string conf = "/tmp/dtkit-ws-" + std::to_string(getpid()) + ".conf";
    std::ofstream(conf) << "[net]\nmtu = 9000\nname = lab one\n";
    tp::Proc daemon(srv + " " DTCONFIGD_COMMAND " " + conf, "dtconfigd");

    ASSERT_TRUE(ns.EnterDevice());
    g_numbers = Collect_New("numbers", PutNumbers, nullptr);
    g_texts = Collect_New("texts", PutTexts, nullptr);
    ASSERT_TRUE(ct::StartAgent(0x01020000)) << "UDP 9099 is taken";
    Output(srv + " " DTCOLLECT_COMMAND " --sequence 77 10.99.0.1");
    // The server is slow to start under the emulator: 20 s at most.
    daemon.Until("serving", 20000);
    // The replies are checked on the wire below, as the dissector shows them.
    DTConfig_GetInt("net", "mtu", 1500);
    char name[1000];
    DTConfig_GetString("net", "name", "none", name);
    DTConfig_GetInt("net", "speed", 100);
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
        {"dtkit.value.buffer", {dtcore::Hex(kBlob)}},
        {"dtkit.value.length", {"9", "3000", "2500", "0"}},
        {"dtkit.value.pieces", {"1", "3", "3", "1"}},
        // Records in stream order: int, long, then pieces, the last an empty string.
        {"dtkit.record.kind", {"0x81", "0x82", "0x83", "0x03", "0x03", "0x83", "0x04", "0x04", "0x84", "0x83"}},
        {"dtkit.record.block", {"7", "7", "0", "0", "0", "0", "0", "0", "0", "0"}},
        {"dtkit.record.section_name", {"numbers", "numbers", "texts", "texts", "texts", "texts", "texts", "texts",
                                       "texts", "texts"}},
        {"dtkitcfg.section", {"net", "net", "net"}},
        {"dtkitcfg.key", {"mtu", "name", "speed"}},
        {"dtkitcfg.default", {"1500", "none", "100"}},
        {"dtkitcfg.reply", {"9000", "lab one", "100"}},
    };
    V fields = {"dtkit.sequence", "dtkit.piece.first_frame"};
    for (const auto &w : want) fields.push_back(w.first);
    auto got = cap.Decode(fields);
    for (const auto &w : want) EXPECT_EQ(got[w.first], w.second) << w.first;
    ASSERT_FALSE(got["dtkit.sequence"].empty());
    EXPECT_EQ(got["dtkit.sequence"][0], "77") << "the identity message carries the request's sequence";
    // The three pieces of the long string all point at the frame of the first.
    const V &first = got["dtkit.piece.first_frame"];
    ASSERT_EQ(first.size(), 8u);
    EXPECT_EQ(first[2], first[1]);
    EXPECT_EQ(first[3], first[1]);
    EXPECT_NE(first[4], first[3]) << "the buffer is a value of its own";
    EXPECT_EQ(cap.Decode({"frame.number"}, kOurExperts).count("frame.number"), 0u)
        << "a clean collection has no expert entries";
    unlink(conf.c_str());
}

// Plays the agent's side of a stream towards a listener of this process.
void SendStream(uint16_t port, const cs::Bytes &bytes) {
    const int s = cs::Connect(port);
    ASSERT_EQ(send(s, bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
    close(s);
}

// Every malformed shape gets its expert entry, named; the stream named by a
// request and one found by its first message alike.
TEST(WiresharkDissector, MalformedMessagesGetExpertEntries) {
    std::string why = Unfit();
    if (!why.empty()) GTEST_SKIP() << why;
    if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "cannot make a network namespace";
    ASSERT_EQ(system("ip link set lo up"), 0);
    Capture cap("", "lo");
    ASSERT_TRUE(cap.Started()) << "dumpcap did not start";
    int l1 = -1, l2 = -1;
    const uint16_t named = ct::Listen(&l1), found = ct::Listen(&l2);
    ct::SendDatagram(ct::Request(16, 2, 5, named));
    ct::SendDatagram(ct::Request(15, 4, 5, 1));
    using cs::Cat;
    const cs::Bytes record = cs::Num(0x81, 0, 0, 1, 42), id = cs::Identity(1);
    SendStream(named, Cat({id, cs::Msg(1, Cat({cs::Be(0, 4), cs::Be(9, 2), {'a', 'b'}}), 1),
                           cs::Msg(2, Cat({record, cs::Head(0x05, 0, 0, 0)}), 1), cs::Msg(2, {}, 1, 5),
                           cs::Msg(2, {}, 1)}));
    SendStream(found, Cat({id, cs::Msg(2, record, 1), cs::Msg(2, Cat({cs::Piece(0x03, 0, 0, 2, "a"), record}), 1),
                           cs::Msg(7, {}, 1)}));
    const int32_t s = DTSock_UDP_Create(nullptr, 0);
    DTSock_UDP_SendMessage(s, "127.0.0.1", 8999, "=>config net", 12);
    DTSock_UDP_Close(s);
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
