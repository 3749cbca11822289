#include <gtest/gtest.h>

#include <map>

#include "../collect/test_collector.h"
#include "fleet.h"
#include "sim_host.h"
#include "stream_reader.h"
#include "tool_process.h"

namespace {

using Lines = std::vector<std::string>;

// dtsim, once it is ready.
struct Sim : tp::Proc {
    explicit Sim(const std::string &args) : Proc(DTSIM_COMMAND " " + args, "dtsim") {}
    bool Ready() const { return Count("\n", 1, 30000) > 0 && Text().find("dtsim: ready") == 0; }
};

// What the collector must print for device i, from the values its host put.
Lines Expected(uint32_t device, uint32_t sequence) {
    using E = dtcore::Event;
    const std::string host = dtsim::DeviceHost(device);
    const uint8_t id1 = uint8_t(device >> 8), id2 = uint8_t(device);
    Lines l{dtcore::FormatText(host, E{E::kIdentity, 0, id1, id2, sequence, 0, false, "", 0, 0, 0, 0, ""})};
    const std::vector<std::string> names = dtsim::SectionNames();
    for (uint32_t i = 0; i < names.size(); ++i)
        l.push_back(dtcore::FormatText(host, E{E::kSection, 0, 0, 0, 0, i, true, names[i], 0, 0, 0, 0, ""}));
    for (const dtsim::HostValue &v : dtsim::CollectValues(device)) {
        const E e{E::kValue, 0, 0, 0, 0, v.index, true, v.section, v.block, v.code, v.kind, v.number, v.bytes};
        l.push_back(dtcore::FormatText(host, e));
    }
    return l;
}

// A thousand devices, four of them misbehaving: each good one gives its own
// values, each bad one fails alone with its line.
TEST(DtsimFleet, AThousandDevicesGiveTheirOwnValuesAndMisbehavingOnesFailAlone) {
    tp::OwnNetwork();  // else the machine's network, where the tests take turns with port 9099
    dtsim::Recording r;
    std::string why;
    ASSERT_TRUE(dtsim::Record(0, r, why)) << why;
    std::vector<size_t> at{0};  // stream offsets of each message
    for (const dtsim::Message &m : r.messages) at.push_back(at.back() + 12 + m.payload.size());
    Sim sim("--devices 1000 --duration 120 --wait 30 --silent 2 --garbage 5 --drop 8 --stall 10");
    ASSERT_TRUE(sim.Ready()) << sim.Text();
    // dtcollect over the fleet's addresses as dtsim prints them, in a hosts list after a comment.
    const std::string base = "/tmp/dtsim-test-" + std::to_string(getpid());
    const std::string run = "(echo '# the simulated fleet'; " DTSIM_COMMAND " --print-hosts --devices 1000) | "
                            "timeout 120 " DTCOLLECT_COMMAND " --hosts-file - --parallel 256 --sequence 77 "
                            "--timeout 10 >" + base + ".out 2>" + base + ".err";
    EXPECT_EQ(WEXITSTATUS(system(run.c_str())), 1);
    const std::string out = tp::ReadAll(base + ".out"), err = tp::ReadAll(base + ".err");
    for (const char *ext : {".out", ".err"}) remove((base + ext).c_str());
    // The dropping device stops halfway through its sixth message.
    const std::map<uint32_t, std::string> failures = {
        {2, "no connection from the device within 10 s"},
        {5, "at byte offset 16"},
        {8, "connection closed at byte offset " + std::to_string(at.at(5) + (at.at(6) - at.at(5)) / 2)},
        {10, "within 10 s at byte offset " + std::to_string(at.at(2))},
    };
    // The collector's lines per host, in order, each host's closing summary left out.
    std::map<std::string, Lines> got;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        const std::string host = line.substr(0, line.find(' '));
        if (line.compare(host.size(), 6, " end: ") != 0) got[host].push_back(line);
    }
    for (uint32_t i = 0; i < 1000; ++i) {
        const std::string host = dtsim::DeviceHost(i);
        const size_t line = err.find("dtcollect: " + host + ": ");
        if (failures.count(i) == 0) {
            EXPECT_EQ(got[host], Expected(i, 77 + i)) << host;
        } else {
            EXPECT_NE(err.substr(line, err.find('\n', line) - line).find(failures.at(i)), npos) << host << err;
        }
    }
    EXPECT_EQ(sim.Stop(), 0);
    EXPECT_NE(sim.Text().find("dtsim: 996 complete, 4 misbehaved, 0 failed ("), npos) << sim.Text();
}

void Send(const std::string &to, const ct::Bytes &request) {
    const int s = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{AF_INET, htons(9099), {inet_addr(to.c_str())}, {}};
    sendto(s, request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a);
    close(s);
}
// Asks device 1 for a collection and plays the collector on a listener of its own.
std::vector<ct::Msg> Ask(uint32_t type, uint32_t seq, int closeAfter = 0, ct::Ack ack = ct::Ack::Normal) {
    int l = -1;
    Send("127.1.0.2", ct::Request(16, type, seq, ct::Listen(&l)));
    return ct::Read(l, closeAfter, ack);
}

TEST(DtsimDevice, QueuesWhileBusyIgnoresWhatTheAgentIgnoresNumbersMessagesAndCountsFailuresByCause) {
    tp::OwnNetwork();  // else the machine's network, where the tests take turns with port 9099
    Sim sim("--devices 2 --wait 0.3");
    ASSERT_TRUE(sim.Ready()) << sim.Text();
    int l[6];
    const std::pair<std::string, ct::Bytes> ignored[] = {
        {"127.1.0.1", ct::Request(15, 0, 1, 1)},           // length is not what arrived
        {"127.1.0.1", ct::Request(16, 4, 2, 1)},           // no such type
        {"127.1.0.1", ct::Request(16, 0, 0x80000000, 1)},  // negative sequence
        {"127.1.0.3", ct::Request(16, 0, 4, 1)},           // one past the last device
    };
    for (const auto &r : ignored) Send(r.first, r.second);
    // One served, four waiting their turn in order, the sixth past the queue.
    for (uint32_t seq = 1; seq <= 6; ++seq) Send("127.1.0.1", ct::Request(16, 0, seq, ct::Listen(&l[seq - 1])));
    for (uint32_t seq = 1; seq <= 5; ++seq) {
        const std::vector<ct::Msg> msgs = ct::Read(l[seq - 1]);
        ASSERT_EQ(msgs.size(), 10u) << seq;
        EXPECT_EQ(msgs[0].sequence, seq);
    }
    EXPECT_TRUE(ct::Read(l[5], 0, ct::Ack::Normal, 300).empty());
    Send("127.1.0.2", ct::Request(16, 0, 1, 1));  // nobody listens on port 1
    EXPECT_EQ(Ask(0, 2, 0, ct::Ack::Never).size(), 1u) << "the identity, never acknowledged";
    EXPECT_EQ(Ask(0, 3, 1).size(), 1u) << "the identity, then closed";
    // Served only once the device has seen the close; a self test has no section list.
    EXPECT_EQ(Ask(0, 4).size(), 10u);
    EXPECT_EQ(Ask(3, 9).size(), 4u);
    std::ostringstream out, err, out2;
    EXPECT_EQ(dtsim::Main({"--devices", "2"}, out, err), 1);
    EXPECT_EQ(err.str(), "dtsim: cannot bind UDP port 9099: Address already in use\n");
    EXPECT_EQ(sim.Stop(), 0);
    const std::string summary = "dtsim: 7 complete, 0 misbehaved, 3 failed (1 not connected, 1 timed out, "
                                "1 cut off); requests: 3 invalid, 1 for no device, 1 past a full queue";
    EXPECT_NE(sim.Text().find(summary), npos) << sim.Text();
    // The port free again: a run that ends by itself after its duration.
    EXPECT_EQ(dtsim::Main({"--duration", "0.2"}, out2, err), 0);
    EXPECT_NE(out2.str().find("dtsim: 0 complete"), npos) << out2.str();
}

TEST(DtsimArgs, BadUsageExitsTwoWithAMessage) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--devices", "0"}, "bad value for --devices: 0"},
        {{"--devices", "64001"}, "bad value for --devices: 64001"},
        {{"--delay", "60001"}, "bad value for --delay: 60001"},
        {{"--duration", "0"}, "bad value for --duration: 0"},
        {{"--wait", "3601"}, "bad value for --wait: 3601"},
        {{"--devices", "5", "--silent", "5"}, "bad device list 5 (device numbers below 5)"},
        {{"--garbage", "3-1", "--devices", "5"}, "bad device list 3-1"},
        {{"--drop", "1,", "--devices", "5"}, "bad device list 1,"},
        {{"--devices", "5", "--stall", "0-2", "--drop", "2"}, "device 2 is given two ways to misbehave"},
        {{"--silent"}, "--silent needs a value"},
        {{"--bogus"}, "unknown option --bogus"},
        {{"127.1.0.1"}, "unexpected argument 127.1.0.1"},
    };
    for (const auto &c : cases) {
        std::ostringstream out, err;
        EXPECT_EQ(dtsim::Main(c.first, out, err), 2);
        EXPECT_EQ(err.str().find("dtsim: " + c.second), 0u) << err.str();
    }
    // --print-hosts, across the 250 devices of a block, feeds the fleet test's collector.
    std::ostringstream out, err;
    EXPECT_EQ(dtsim::Main({"--version"}, out, err), 0);
    EXPECT_EQ(out.str(), "dtsim (dtkit) " DTKIT_VERSION "\n");
    const std::pair<uint32_t, int64_t> addresses[] = {
        {0x7F010001, 0},  {0x7F0100FA, 249}, {0x7F010101, 250}, {0x7F01FFFA, 63999}, {0x7F010000, -1},
        {0x7F0100FB, -1}, {0x7F0100FF, -1},  {0x7F020001, -1},  {0x7F000001, -1},
    };
    for (const auto &[a, device] : addresses) EXPECT_EQ(dtsim::DeviceAt(a, dtsim::kMaxDevices), device) << a;
    EXPECT_EQ(dtsim::DeviceAt(0x7F010104, 254), 253);
    EXPECT_EQ(dtsim::DeviceAt(0x7F010104, 253), -1);
    EXPECT_EQ(dtsim::DeviceHost(dtsim::kMaxDevices - 1), "127.1.255.250");
}

}  // namespace
