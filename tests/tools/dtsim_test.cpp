#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "fleet.h"
#include "sim_host.h"
#include "stream_reader.h"

namespace {

using Lines = std::vector<std::string>;
const size_t npos = std::string::npos;

// A network namespace of this test process alone when it may make one, else
// the machine's, where the tests take turns with port 9099.
void OwnNetwork() {
    if (unshare(CLONE_NEWNET) == 0) {
        ASSERT_EQ(system("ip link set lo up"), 0);
    }
}

std::string ReadAll(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// dtsim as a child process (under the emulator when cross-built), its standard output read through a pipe.
struct Sim {
    pid_t pid = -1;
    int out = -1;
    std::string text;
    bool Start(const std::string &args) {
        int p[2];
        if (pipe2(p, O_CLOEXEC) != 0) return false;
        const std::string cmd = "exec " DTSIM_COMMAND " " + args;
        pid = fork();
        if (pid == 0) {
            dup2(p[1], 1);
            execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        close(p[1]);
        out = p[0];
        return Until("\n", 30000) && text.find("dtsim: ready") == 0;
    }
    // Reads until the output holds `what`, it ends, or ms pass.
    bool Until(const std::string &what, int ms) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (text.find(what) == npos && std::chrono::steady_clock::now() < end) {
            pollfd w{out, POLLIN, 0};
            char buf[4096];
            if (poll(&w, 1, 100) != 1) continue;
            const ssize_t n = read(out, buf, sizeof buf);
            if (n <= 0) return false;
            text.append(buf, size_t(n));
        }
        return text.find(what) != npos;
    }
    // The exit status once it ends by itself (sig 0) or after the signal; -1 when it did not.
    int Stop(int sig = SIGTERM) {
        if (sig != 0) kill(pid, sig);
        Until("\x01", 20000);  // never printed: reads to the end
        int status = 0;
        const pid_t done = waitpid(pid, &status, 0);
        pid = -1;
        return done > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    ~Sim() {
        if (pid > 0) Stop(SIGKILL);
        if (out >= 0) close(out);
    }
};

int Collect(const std::string &args, std::string &out, std::string &err) {
    const std::string base = "/tmp/dtsim-test-" + std::to_string(getpid());
    const int status =
        system(("timeout 120 " DTCOLLECT_COMMAND " " + args + " >" + base + ".out 2>" + base + ".err").c_str());
    out = ReadAll(base + ".out");
    err = ReadAll(base + ".err");
    remove((base + ".out").c_str());
    remove((base + ".err").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The first `devices` addresses of the fleet in a hosts file, after a comment.
std::string HostsFile(uint32_t devices) {
    const std::string path = "/tmp/dtsim-test-hosts-" + std::to_string(getpid());
    std::ofstream f(path);
    f << "# the simulated fleet\n";
    for (uint32_t i = 0; i < devices; ++i) f << dtsim::DeviceHost(i) << "\n";
    return path;
}

// What the collector must print for device i, from the values its host put.
Lines Expected(uint32_t device, uint32_t sequence) {
    const std::string host = dtsim::DeviceHost(device);
    Lines l;
    dtcore::Event id;
    id.type = dtcore::Event::kIdentity;
    id.id1 = uint8_t(device >> 8);
    id.id2 = uint8_t(device);
    id.sequence = sequence;
    l.push_back(dtcore::FormatText(host, id));
    const std::vector<std::string> names = dtsim::SectionNames();
    for (uint32_t i = 0; i < names.size(); ++i) {
        dtcore::Event s;
        s.type = dtcore::Event::kSection;
        s.index = i;
        s.named = true;
        s.name = names[i];
        l.push_back(dtcore::FormatText(host, s));
    }
    for (const dtsim::HostValue &v : dtsim::CollectValues(device)) {
        dtcore::Event e;
        e.index = v.index;
        e.named = true;
        e.name = v.section;
        e.block = v.block;
        e.code = v.code;
        e.kind = v.kind;
        e.number = v.number;
        e.bytes = v.bytes;
        l.push_back(dtcore::FormatText(host, e));
    }
    return l;
}

// The collector's lines per host, in order, each host's closing summary left out.
std::map<std::string, Lines> ByHost(const std::string &out) {
    std::map<std::string, Lines> m;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        const std::string host = line.substr(0, line.find(' '));
        if (line.compare(host.size(), 6, " end: ") != 0) m[host].push_back(line);
    }
    return m;
}

// Stream offsets of each message of the agent's collection stream, and where it ends.
std::vector<size_t> Offsets() {
    dtsim::Recording r;
    std::string why;
    EXPECT_TRUE(dtsim::Record(0, r, why)) << why;
    std::vector<size_t> at{0};
    for (const dtsim::Message &m : r.messages) at.push_back(at.back() + 12 + m.payload.size());
    return at;
}

TEST(DtsimFleet, AThousandDevicesCollectedFromAHostsFileEachGiveTheirOwnValues) {
    OwnNetwork();
    Sim sim;
    ASSERT_TRUE(sim.Start("--devices 1000 --duration 120")) << sim.text;
    const std::string hosts = HostsFile(1000);
    std::string out, err;
    EXPECT_EQ(Collect("--hosts-file " + hosts + " --parallel 256 --sequence 77 --timeout 10", out, err), 0)
        << err.substr(0, 2000);
    remove(hosts.c_str());
    const std::map<std::string, Lines> got = ByHost(out);
    EXPECT_EQ(got.size(), 1000u);
    int wrong = 0;
    for (uint32_t i = 0; i < 1000 && wrong < 3; ++i) {
        auto it = got.find(dtsim::DeviceHost(i));
        const Lines lines = it == got.end() ? Lines() : it->second;
        wrong += lines != Expected(i, 77 + i);
        EXPECT_EQ(lines, Expected(i, 77 + i)) << dtsim::DeviceHost(i);
    }
    EXPECT_EQ(sim.Stop(), 0);
    EXPECT_NE(sim.text.find("dtsim: 1000 complete, 0 misbehaved, 0 failed ("), npos) << sim.text;
}

TEST(DtsimFleet, MisbehavingDevicesFailAloneEachWithItsLine) {
    OwnNetwork();
    const std::vector<size_t> at = Offsets();
    ASSERT_EQ(at.size(), 11u);
    Sim sim;
    ASSERT_TRUE(sim.Start("--devices 12 --silent 2 --garbage 5 --drop 8 --stall 10")) << sim.text;
    std::string out, err;
    const std::string hosts = HostsFile(12);
    EXPECT_EQ(Collect("--hosts-file " + hosts + " --timeout 1 --sequence 77", out, err), 1);
    remove(hosts.c_str());
    // The dropping device stops halfway through its sixth message.
    const std::map<uint32_t, std::string> failures = {
        {2, "no connection from the device within 1 s"},
        {5, "at byte offset 16"},
        {8, "connection closed at byte offset " + std::to_string(at[5] + (at[6] - at[5]) / 2)},
        {10, "within 1 s at byte offset " + std::to_string(at[2])},
    };
    const std::map<std::string, Lines> got = ByHost(out);
    for (uint32_t i = 0; i < 12; ++i) {
        const std::string host = dtsim::DeviceHost(i);
        const size_t line = err.find("dtcollect: " + host + ": ");
        if (failures.count(i) == 0) {
            EXPECT_EQ(line, npos) << err;
            EXPECT_EQ(got.at(host), Expected(i, 77 + i));
            continue;
        }
        ASSERT_NE(line, npos) << host << "\n" << err;
        const std::string text = err.substr(line, err.find('\n', line) - line);
        EXPECT_NE(text.find(failures.at(i)), npos) << text;
    }
    EXPECT_EQ(sim.Stop(), 0);
    EXPECT_NE(sim.text.find("dtsim: 8 complete, 4 misbehaved, 0 failed ("), npos) << sim.text;
}

// The collector's end of one connection, played by the test.
struct Msg {
    uint32_t type, sequence;
    std::vector<uint8_t> payload;
};
uint32_t Be32(const uint8_t *p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
std::vector<uint8_t> Request(uint32_t length, uint32_t type, uint32_t seq, uint32_t port) {
    std::vector<uint8_t> b;
    for (uint32_t v : {length, type, seq, port})
        for (int s = 24; s >= 0; s -= 8) b.push_back(uint8_t(v >> s));
    return b;
}
void Send(const std::string &to, const std::vector<uint8_t> &request) {
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(9099);
    inet_pton(AF_INET, to.c_str(), &a.sin_addr);
    sendto(s, request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a);
    close(s);
}
struct Listener {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    uint16_t port = 0;
    Listener() {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        bind(fd, reinterpret_cast<sockaddr *>(&a), len);
        listen(fd, 8);
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
        port = ntohs(a.sin_port);
    }
    ~Listener() { close(fd); }
    // One connection's messages, each acknowledged, until the device closes;
    // peer gets the address it came from. Nothing when none comes within ms.
    // Past `acked` messages the next one is not answered: the connection is
    // closed at once, or with `hold` kept open until the device gives up.
    std::vector<Msg> Take(std::string &peer, int ms = 10000, size_t acked = 1000, bool hold = false) {
        std::vector<Msg> msgs;
        pollfd w{fd, POLLIN, 0};
        if (poll(&w, 1, ms) != 1) return msgs;
        sockaddr_in a{};
        socklen_t len = sizeof a;
        const int c = accept(fd, reinterpret_cast<sockaddr *>(&a), &len);
        peer = inet_ntoa(a.sin_addr);
        timeval tv{10, 0};
        setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        const uint8_t ack[16] = {};
        uint8_t h[12];
        while (recv(c, h, sizeof h, MSG_WAITALL) == 12 && Be32(h) >= 12 && Be32(h) <= 1036) {
            Msg m{Be32(h + 4), Be32(h + 8), std::vector<uint8_t>(Be32(h) - 12)};
            const ssize_t n = ssize_t(m.payload.size());
            if (n > 0 && recv(c, m.payload.data(), m.payload.size(), MSG_WAITALL) != n) break;
            msgs.push_back(m);
            if (msgs.size() > acked) break;
            send(c, ack, sizeof ack, MSG_NOSIGNAL);
        }
        while (hold && recv(c, h, sizeof h, 0) > 0) {
        }
        close(c);
        return msgs;
    }
};

TEST(DtsimDevice, NumbersItsMessagesAsTheAgentWouldAndConnectsFromItsOwnAddress) {
    OwnNetwork();
    Sim sim;
    ASSERT_TRUE(sim.Start("--devices 3 --delay 20")) << sim.text;
    Listener l;
    std::string peer;
    const auto start = std::chrono::steady_clock::now();
    Send("127.1.0.3", Request(16, 1, 0, l.port));
    const std::vector<Msg> first = l.Take(peer);
    const auto took = std::chrono::steady_clock::now() - start;
    ASSERT_EQ(first.size(), 10u);
    EXPECT_GE(took, std::chrono::milliseconds(10 * 20)) << "a delay before each message";
    EXPECT_EQ(peer, "127.1.0.3");
    EXPECT_EQ(first[0].payload, (std::vector<uint8_t>{0, 2, 0, 0})) << "identity: the device's number";
    for (size_t k = 1; k < first.size(); ++k) EXPECT_EQ(first[k].sequence, first[0].sequence + k);
    // The counter runs on from one collection to the next; a request's own
    // sequence goes to the identity message alone, and a self test has no section list.
    Send("127.1.0.3", Request(16, 3, 5, l.port));
    const std::vector<Msg> second = l.Take(peer);
    ASSERT_EQ(second.size(), 4u);
    EXPECT_EQ(second[0].sequence, 5u);
    const uint32_t types[] = {0, 2, 2, 2};
    for (size_t k = 0; k < second.size(); ++k) EXPECT_EQ(second[k].type, types[k]);
    for (size_t k = 1; k < second.size(); ++k) EXPECT_EQ(second[k].sequence, first.back().sequence + k);
}

TEST(DtsimDevice, IgnoresWhatTheAgentIgnoresAndAddressesOfNoDevice) {
    OwnNetwork();
    Sim sim;
    ASSERT_TRUE(sim.Start("--devices 3")) << sim.text;
    Listener l;
    const std::pair<std::string, std::vector<uint8_t>> ignored[] = {
        {"127.1.0.1", Request(15, 0, 1, l.port)},           // length is not what arrived
        {"127.1.0.1", Request(16, 4, 2, l.port)},           // no such type
        {"127.1.0.1", Request(16, 0, 0x80000000, l.port)},  // negative sequence
        {"127.1.0.4", Request(16, 0, 4, l.port)},           // one past the last device
    };
    for (const auto &r : ignored) Send(r.first, r.second);
    Send("127.1.0.1", Request(16, 0, 9, l.port));
    std::string peer;
    const std::vector<Msg> msgs = l.Take(peer);
    ASSERT_FALSE(msgs.empty());
    EXPECT_EQ(msgs[0].sequence, 9u);
    EXPECT_TRUE(l.Take(peer, 300).empty());
    EXPECT_EQ(sim.Stop(), 0);
    EXPECT_NE(sim.text.find("1 complete, 0 misbehaved, 0 failed (0 not connected, 0 timed out, 0 cut off); requests: 3 invalid, 1 for no device, 0 past"), npos)
        << sim.text;
}

TEST(DtsimDevice, QueuesRequestsWhileBusyAndCountsEachFailureByCause) {
    OwnNetwork();
    Sim sim;
    ASSERT_TRUE(sim.Start("--devices 2 --wait 0.3")) << sim.text;
    Listener l;
    // One served, four waiting their turn in order, the sixth past the queue.
    for (uint32_t seq = 1; seq <= 6; ++seq) Send("127.1.0.1", Request(16, 0, seq, l.port));
    std::string peer;
    for (uint32_t seq = 1; seq <= 5; ++seq) {
        const std::vector<Msg> msgs = l.Take(peer);
        ASSERT_EQ(msgs.size(), 10u) << seq;
        EXPECT_EQ(msgs[0].sequence, seq);
    }
    EXPECT_TRUE(l.Take(peer, 300).empty());
    Send("127.1.0.2", Request(16, 0, 1, 1));  // nobody listens on port 1
    Send("127.1.0.2", Request(16, 0, 2, l.port));
    EXPECT_EQ(l.Take(peer, 10000, 0, true).size(), 1u) << "the identity, never acknowledged";
    Send("127.1.0.2", Request(16, 0, 3, l.port));
    EXPECT_EQ(l.Take(peer, 10000, 0, false).size(), 1u) << "the identity, then closed";
    // Served only once the device has seen the close.
    Send("127.1.0.2", Request(16, 0, 4, l.port));
    EXPECT_EQ(l.Take(peer).size(), 10u);
    EXPECT_EQ(sim.Stop(), 0);
    EXPECT_NE(sim.text.find("dtsim: 6 complete, 0 misbehaved, 3 failed (1 not connected, 1 timed out, 1 cut off); "
                            "requests: 0 invalid, 0 for no device, 1 past a full queue"),
              npos)
        << sim.text;
}

TEST(DtsimProgram, EndsByItselfAfterItsCountOrDurationAndFailsOnATakenPort) {
    OwnNetwork();
    {
        Sim sim;
        ASSERT_TRUE(sim.Start("--devices 1 --collections 1")) << sim.text;
        Listener l;
        Send("127.1.0.1", Request(16, 0, 0, l.port));
        std::string peer;
        EXPECT_EQ(l.Take(peer).size(), 10u);
        EXPECT_EQ(sim.Stop(0), 0);
    }
    {
        Sim sim;
        ASSERT_TRUE(sim.Start("--duration 0.2")) << sim.text;
        EXPECT_EQ(sim.Stop(0), 0);
        EXPECT_NE(sim.text.find("dtsim: 0 complete"), npos) << sim.text;
    }
    int held = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(9099);
    ASSERT_EQ(bind(held, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    std::ostringstream out, err;
    EXPECT_EQ(dtsim::Main({"--devices", "2"}, out, err), 1);
    EXPECT_EQ(err.str(), "dtsim: cannot bind UDP port 9099: Address already in use\n");
    close(held);
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
    std::ostringstream out, err;
    EXPECT_EQ(dtsim::Main({"--devices", "251", "--print-hosts"}, out, err), 0);
    EXPECT_EQ(out.str().substr(0, 20), "127.1.0.1\n127.1.0.2\n");
    EXPECT_EQ(out.str().substr(out.str().size() - 34), "127.1.0.249\n127.1.0.250\n127.1.1.1\n");
    std::ostringstream v, verr;
    EXPECT_EQ(dtsim::Main({"--version"}, v, verr), 0);
    EXPECT_EQ(v.str(), "dtsim (dtkit) " DTKIT_VERSION "\n");
}

TEST(DtsimArgs, AddressesMapToDevicesOnlyWithinTheFleet) {
    const std::pair<uint32_t, int64_t> cases[] = {
        {0x7F010001, 0},     {0x7F0100FA, 249},  {0x7F010101, 250},   {0x7F01FFFA, 63999},
        {0x7F010000, -1},    {0x7F0100FB, -1},   {0x7F0100FF, -1},    {0x7F020001, -1},
        {0x7F000001, -1},
    };
    for (const auto &c : cases) EXPECT_EQ(dtsim::DeviceAt(c.first, dtsim::kMaxDevices), c.second) << c.first;
    EXPECT_EQ(dtsim::DeviceAt(0x7F010104, 254), 253);
    EXPECT_EQ(dtsim::DeviceAt(0x7F010104, 253), -1);
    EXPECT_EQ(dtsim::DeviceHost(dtsim::kMaxDevices - 1), "127.1.255.250");
}

}  // namespace
