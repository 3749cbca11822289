// The Wireshark dissector, run by tshark over one capture on a private
// loopback: a collection from the library's agent, queries answered by
// dtconfigd, and a stream whose message header is corrupted.
#include <gtest/gtest.h>

#include "../collect/test_collector.h"
#include "collect/collect_getdata.h"
#include "collect_stream.h"
#include "net/DTSock.h"
#include "tool_process.h"

namespace {

using V = std::vector<std::string>;

CollectSection *g_host = nullptr;
// Never destroyed: the agent's thread may still read them while the process exits.
std::string &kLong = *new std::string(3000, 'a');
void PutHost(uint32_t) {
    Collect_PutInt(g_host, 1, 0xDEADBEEF);
    Collect_PutString(g_host, 4, kLong.c_str(), 0);
}

// Every value of the field in the capture, one a line in frame order (an empty
// value is not told from an absent one).
V Decode(const std::string &capture, const std::string &field) {
    FILE *p = popen(("tshark -r " + capture + " -X lua_script:" DTKIT_LUA " -T fields -E occurrence=a"
                     " -E aggregator='\n' -e " + field + " 2>/dev/null").c_str(), "r");
    V values;
    for (char v[8192]; fgets(v, sizeof v, p) != nullptr;)
        if (v[0] != '\n') values.push_back(std::string(v, strcspn(v, "\n")));
    pclose(p);
    return values;
}

TEST(WiresharkDissector, ShowsEachFieldFamilyJoinsSplitValuesAndFlagsACorruptedHeader) {
    if (geteuid() != 0 || system("command -v tshark >/dev/null && command -v dumpcap >/dev/null") != 0 ||
        !tp::OwnNetwork())
        GTEST_SKIP() << "needs root, tshark and dumpcap (Debian package tshark) and a network namespace";
    for (size_t i = 0; i < kLong.size(); ++i) kLong[i] = char('a' + i % 26);
    const std::string base = "/tmp/dtkit-ws-" + std::to_string(getpid());
    std::ofstream(base + ".conf") << "[net]\nmtu = 9000\n";
    tp::Proc daemon(DTCONFIGD_COMMAND " " + base + ".conf", "dtconfigd");
    tp::Proc cap("dumpcap -i lo -a duration:60 -w " + base + ".pcapng", "dumpcap");
    ASSERT_EQ(cap.Count("Capturing on", 1, 20000), 1) << cap.Text();
    // The server is slow to start under the emulator.
    ASSERT_EQ(daemon.Count("serving", 1, 20000), 1) << daemon.Text();
    usleep(300 * 1000);

    g_host = Collect_New("host", PutHost, nullptr);
    ASSERT_TRUE(ct::StartAgent(0x01020000)) << "UDP 9099 is taken";
    ct::Collect(0, 77);
    const int32_t s = DTSock_UDP_Create(nullptr, 0);
    for (const char *q : {"=>config net mtu 1500", "=>config net speed 100"})
        DTSock_UDP_SendMessage(s, "127.0.0.1", 8999, q, int32_t(strlen(q)));
    // A stream no request named, found by its first message; the second's length
    // word is below any header.
    int l = -1;
    const uint16_t named = ct::Listen(&l);
    const cs::Bytes bad = cs::Cat({cs::Identity(1), cs::Msg(2, {}, 1, 5)});
    const int c = cs::Connect(named);
    EXPECT_EQ(send(c, bad.data(), bad.size(), 0), ssize_t(bad.size()));
    ct::Read(l, 0, ct::Ack::Never, 2000);
    close(c);
    usleep(300 * 1000);
    // dumpcap writes its last packets out on SIGINT.
    EXPECT_EQ(cap.Stop(SIGINT), 0) << cap.Text();
    DTSock_UDP_Close(s);

    const std::pair<std::string, V> want[] = {
        {"dtkit.request.sequence", {"77"}},
        {"dtkit.identity.id1", {"0x01", "0x01"}},
        {"dtkit.entry.name", {"host"}},
        {"dtkit.record.int", {"3735928559"}},
        // The values come in pieces, each piece a record.
        {"dtkit.record.kind", {"0x81", "0x03", "0x03", "0x83"}},
        {"dtkit.value.string", {kLong}},
        {"dtkit.value.pieces", {"3"}},
        {"dtkitcfg.key", {"mtu", "speed"}},
        {"dtkitcfg.reply", {"9000", "100"}},
    };
    for (const auto &[field, values] : want) EXPECT_EQ(Decode(base + ".pcapng", field), values) << field;
    const char *corrupted = "message length 5 is outside 12 to 1036; the rest of the stream cannot be framed";
    const V experts = Decode(base + ".pcapng", "_ws.expert.message");
    EXPECT_EQ(std::count(experts.begin(), experts.end(), corrupted), 1);
    for (const char *ext : {".conf", ".pcapng"}) remove((base + ext).c_str());
}

}  // namespace
