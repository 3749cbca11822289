// The Wireshark dissector, run by tshark over one capture on a private
// loopback: a collection from the library's agent, queries answered by
// dtconfigd, then crafted streams and datagrams, each malformed its own way.
#include <gtest/gtest.h>
#include <sched.h>

#include <map>

#include "../collect/test_collector.h"
#include "collect/collect_getdata.h"
#include "collect_stream.h"
#include "net/DTSock.h"
#include "stream_reader.h"
#include "tool_process.h"

namespace {

using V = std::vector<std::string>;

// Splits on every separator, keeping empty parts (an empty string value is one).
V Split(const std::string &text, char sep) {
    V parts(1);
    for (char c : text) {
        if (c == sep)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

std::string Seq(int n, int period, char first) {
    std::string s;
    for (int i = 0; i < n; ++i) s += char(first + i % period);
    return s;
}

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

// Every occurrence of each field in the frames the filter lets through, in frame
// order. A field whose only value in a frame is empty is not told from an absent one.
std::map<std::string, V> Decode(const std::string &capture, const V &fields, const std::string &filter) {
    std::string cmd = "tshark -r " + capture + " -X lua_script:" DTKIT_LUA " -Y '" + filter +
                      "' -T fields -E occurrence=a -E aggregator='|'";
    for (const std::string &f : fields) cmd += " -e " + f;
    EXPECT_EQ(system((cmd + " >" + capture + ".txt 2>/dev/null").c_str()), 0);
    std::map<std::string, V> all;
    std::istringstream lines(tp::ReadAll(capture + ".txt"));
    for (std::string line; std::getline(lines, line);) {
        const V cells = Split(line, '\t');
        for (size_t i = 0; i < fields.size() && i < cells.size(); ++i)
            if (!cells[i].empty())
                for (const std::string &v : Split(cells[i], '|')) all[fields[i]].push_back(v);
    }
    remove((capture + ".txt").c_str());
    return all;
}

void SendStream(uint16_t port, const cs::Bytes &bytes) {
    const int s = cs::Connect(port);
    ASSERT_EQ(send(s, bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
    close(s);
}

TEST(WiresharkDissector, ShowsEveryFieldFamilyJoinsPiecesAndFlagsEachMalformedShape) {
    if (geteuid() != 0) GTEST_SKIP() << "capturing and network namespaces need root";
    if (system("command -v tshark >/dev/null && command -v dumpcap >/dev/null") != 0)
        GTEST_SKIP() << "tshark or dumpcap is not installed (Debian package tshark)";
    if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "cannot make a network namespace";
    ASSERT_EQ(system("ip link set lo up"), 0);
    const std::string base = "/tmp/dtkit-ws-" + std::to_string(getpid());
    std::ofstream(base + ".conf") << "[net]\nmtu = 9000\nname = lab one\n";
    tp::Proc daemon(DTCONFIGD_COMMAND " " + base + ".conf", "dtconfigd");
    tp::Proc cap("dumpcap -i lo -a duration:60 -w " + base + ".pcapng", "dumpcap");
    ASSERT_TRUE(cap.Until("Capturing on", 20000)) << cap.Text();
    // The server is slow to start under the emulator.
    ASSERT_TRUE(daemon.Until("serving", 20000)) << daemon.Text();
    usleep(300 * 1000);

    g_numbers = Collect_New("numbers", PutNumbers, nullptr);
    g_texts = Collect_New("texts", PutTexts, nullptr);
    ASSERT_TRUE(ct::StartAgent(0x01020000)) << "UDP 9099 is taken";
    EXPECT_EQ(ct::Collect(0, 77).size(), 10u);
    const int32_t s = DTSock_UDP_Create(nullptr, 0);
    for (const char *q : {"=>config net mtu 1500", "=>config net name none", "=>config net speed 100",
                          "=>config net"}) {
        char addr[20] = "127.0.0.1", buf[1001] = {};
        int32_t port = 8999;
        snprintf(buf, sizeof buf, "%s", q);
        DTSock_UDP_GetMessage(s, addr, &port, buf, int32_t(strlen(q)), 1000, 2000);
    }
    DTSock_UDP_Close(s);
    // A stream named by a request and one found by its first message.
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
    usleep(300 * 1000);
    // dumpcap writes its last packets out on SIGINT.
    EXPECT_EQ(cap.Stop(SIGINT), 0) << cap.Text();
    daemon.Stop();
    close(l1);
    close(l2);

    // The frames without an expert entry outside the crafted streams: the
    // collection, the good queries and replies, the request naming a stream.
    const std::pair<std::string, V> want[] = {
        {"dtkit.request.length", {"16", "16"}},
        {"dtkit.request.type", {"0", "2"}},
        {"dtkit.request.sequence", {"77", "5"}},
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
        {"dtkit.sequence", {"77", "1", "2", "3", "4", "5", "6", "7", "8", "9"}},
        {"dtkitcfg.section", {"net", "net", "net"}},
        {"dtkitcfg.key", {"mtu", "name", "speed"}},
        {"dtkitcfg.default", {"1500", "none", "100"}},
        {"dtkitcfg.reply", {"9000", "lab one", "100"}},
    };
    V fields = {"dtkit.piece.first_frame"};
    for (const auto &w : want) fields.push_back(w.first);
    const std::string crafted = "tcp.port == " + std::to_string(named) + " || tcp.port == " + std::to_string(found);
    auto got = Decode(base + ".pcapng", fields, "!_ws.expert && !(" + crafted + ")");
    for (const auto &w : want) EXPECT_EQ(got[w.first], w.second) << w.first;
    // The three pieces of the long string all point at the frame of the first.
    const V &first = got["dtkit.piece.first_frame"];
    ASSERT_EQ(first.size(), 8u);
    EXPECT_EQ(first[2], first[1]);
    EXPECT_EQ(first[3], first[1]);
    EXPECT_NE(first[4], first[3]) << "the buffer is a value of its own";

    got = Decode(base + ".pcapng", {"_ws.expert.message", "dtkit.record.int"}, "");
    std::string experts;
    for (const std::string &m : got["_ws.expert.message"]) experts += m + "\n";
    const char *flagged[] = {
        "length word 15 differs from the 16 bytes read",
        "type 4 is above 3",
        "section list entry 0's name of 9 bytes overruns the message",
        "unknown record kind 0x05",
        "message length 5 is outside 12 to 1036",
        "unknown message type 7",
        "this int record interrupts the string value begun in frame",
        "query lacks the section, key or default",
    };
    for (const char *w : flagged) EXPECT_NE(experts.find(w), std::string::npos) << w << " in\n" << experts;
    EXPECT_EQ(experts.find("cannot decode"), std::string::npos) << experts;
    // Both crafted streams decode their good records: the heuristic found the second.
    EXPECT_EQ(got["dtkit.record.int"], (V{"3735928559", "42", "42", "42"}));
    for (const char *ext : {".conf", ".pcapng"}) remove((base + ext).c_str());
}

}  // namespace
