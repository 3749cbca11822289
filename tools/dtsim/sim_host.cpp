#include "sim_host.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "collect/collect_api.h"
#include "collect/collect_client.h"
#include "collect/collect_getdata.h"
#include "collect/collect_selftest.h"

namespace dtsim {
namespace {

// Long enough that the agent splits them into pieces across messages.
std::string LongText() {
    std::string s;
    for (int i = 0; s.size() < 1500; ++i) s += "line " + std::to_string(i) + ": link up, 1000 Mb/s full duplex\n";
    return s.substr(0, 1500);
}
std::string Pattern(size_t n, unsigned mul, unsigned add) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = char((i * mul + add) & 0xFF);
    return s;
}

HostValue Int(const char *section, uint32_t index, uint32_t block, uint32_t code, uint64_t v) {
    return {section, index, block, code, 1, v, {}};
}
HostValue Long(const char *section, uint32_t index, uint32_t block, uint32_t code, uint64_t v) {
    return {section, index, block, code, 2, v, {}};
}
HostValue Bytes(const char *section, uint32_t index, uint32_t code, int kind, std::string b) {
    return {section, index, 0, code, kind, 0, std::move(b)};
}

const char *const kNames[] = {"system", "log", "blob", "device", "idle"};

CollectSection *g_sections[5];

// Puts every value of one section, in table order, through the agent's put operations.
void PutAll(const std::vector<HostValue> &values, uint32_t index) {
    CollectSection *s = g_sections[index];
    for (const HostValue &v : values) {
        if (v.index != index) continue;
        Collect_BeginSection(s, v.block);
        if (v.kind == 1) Collect_PutInt(s, v.code, uint32_t(v.number));
        if (v.kind == 2) Collect_PutLong(s, v.code, v.number);
        if (v.kind == 3) Collect_PutString(s, v.code, v.bytes.c_str(), int32_t(v.bytes.size()));
        if (v.kind == 4) Collect_PutStruct(s, v.code, v.bytes.data(), uint32_t(v.bytes.size()));
        Collect_EndSection(s);
    }
}

void CollectSystem(uint32_t) { PutAll(CollectValues(0), 0); }
void CollectLog(uint32_t) { PutAll(CollectValues(0), 1); }
void CollectBlob(uint32_t) { PutAll(CollectValues(0), 2); }
void CollectDevice(uint32_t) { PutAll(CollectValues(0), 3); }
void SelfTestSystem(uint32_t) { PutAll(SelfTestValues(), 0); }
void SelfTestDevice(uint32_t) { PutAll(SelfTestValues(), 3); }

bool Register(std::string &error) {
    static bool done = false;
    if (done) return true;
    const CollectFn collect[] = {CollectSystem, CollectLog, CollectBlob, CollectDevice, nullptr};
    const CollectFn selfTest[] = {SelfTestSystem, nullptr, nullptr, SelfTestDevice, nullptr};
    for (int i = 0; i < 5; ++i) {
        g_sections[i] = Collect_New(kNames[i], collect[i], selfTest[i]);
        if (g_sections[i] == nullptr || g_sections[i]->index != i) {
            error = std::string("cannot register the host's section ") + kNames[i];
            return false;
        }
    }
    done = true;
    return true;
}

uint32_t Be32(const uint8_t *p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

bool ReadFull(int fd, uint8_t *p, size_t n) {
    while (n > 0) {
        pollfd w{fd, POLLIN, 0};
        if (poll(&w, 1, 5000) != 1) return false;
        ssize_t r = recv(fd, p, n, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= size_t(r);
    }
    return true;
}

// The collector's side of one recording: every message, each acknowledged, until the agent closes.
bool ReadStream(int fd, std::vector<Message> &out, std::string &error) {
    static const uint8_t ack[16] = {};
    for (size_t guard = 0; guard < 10000; ++guard) {
        uint8_t h[12];
        pollfd w{fd, POLLIN, 0};
        if (poll(&w, 1, 5000) != 1) break;
        ssize_t r = recv(fd, h, 1, MSG_PEEK);
        if (r == 0) return true;
        if (!ReadFull(fd, h, sizeof h)) break;
        const uint32_t len = Be32(h);
        if (len < 12 || len > 12 + COLLECT_PAYLOAD_MAX) break;
        Message m{Be32(h + 4), std::vector<uint8_t>(len - 12)};
        if (!m.payload.empty() && !ReadFull(fd, m.payload.data(), m.payload.size())) break;
        out.push_back(std::move(m));
        if (send(fd, ack, sizeof ack, MSG_NOSIGNAL) != ssize_t(sizeof ack)) break;
    }
    error = "the agent's stream broke off after " + std::to_string(out.size()) + " messages";
    return false;
}

// Walks the data records to the device-number int; the recording must hold it exactly once.
bool FindNumber(Recording &r) {
    r.numberMessage = r.messages.size();
    for (size_t m = 0; m < r.messages.size(); ++m) {
        const std::vector<uint8_t> &p = r.messages[m].payload;
        for (size_t at = 0; r.messages[m].type == COLLECT_MSG_DATA && at + 13 <= p.size();) {
            const uint8_t kind = p[at] & 0x7F;
            const size_t body = kind == 1 ? 4 : kind == 2 ? 8 : at + 15 <= p.size() ? (p[at + 13] << 8 | p[at + 14]) + 2 : p.size();
            if (kind == 1 && Be32(&p[at + 1]) == kDeviceSection && Be32(&p[at + 9]) == kDeviceNumberCode) {
                if (r.numberMessage != r.messages.size()) return false;
                r.numberMessage = m;
                r.numberOffset = at + 13;
            }
            at += 13 + body;
        }
    }
    return true;
}

}  // namespace

std::vector<HostValue> CollectValues(uint32_t device) {
    return {
        Int("system", 0, 1, 1, 3600),
        Int("system", 0, 1, 2, 0xFFFFFFFFu),
        Long("system", 0, 1, 3, 0xFEDCBA9876543210ull),
        Long("system", 0, 1, 4, 0),
        Bytes("system", 0, 5, 3, "ppc-board rev C"),
        Bytes("log", 1, 1, 3, LongText()),
        Bytes("log", 1, 2, 3, ""),
        // Not UTF-8, with a quote and a backslash: what a JSON printer must not mangle.
        Bytes("log", 1, 3, 3, "caf\xe9 \"q\" \\ \xc3\xa9"),
        Bytes("blob", 2, 1, 4, Pattern(2000, 7, 3)),
        Bytes("blob", 2, 2, 4, Pattern(256, 1, 0)),
        Int("device", kDeviceSection, 0, kDeviceNumberCode, device),
        Long("device", kDeviceSection, 0, 2, (1ull << 53) + 1),
    };
}

std::vector<HostValue> SelfTestValues() {
    return {Int("system", 0, 0, 0, 1), Bytes("device", kDeviceSection, 0, 3, "ok")};
}

std::vector<std::string> SectionNames() { return std::vector<std::string>(std::begin(kNames), std::end(kNames)); }

bool Record(uint32_t type, Recording &out, std::string &error) {
    if (!Register(error)) return false;
    int ls = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t alen = sizeof a;
    if (ls < 0 || bind(ls, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(ls, 1) != 0 ||
        getsockname(ls, reinterpret_cast<sockaddr *>(&a), &alen) != 0) {
        error = std::string("cannot listen on 127.0.0.1 for the recording: ") + std::strerror(errno);
        if (ls >= 0) close(ls);
        return false;
    }
    // The agent waits for acknowledgements without end unless told otherwise.
    Collect_SetAckTimeout(5000);
    const uint32_t port = ntohs(a.sin_port);
    int32_t served = 0;
    std::thread agent([&] {
        served = type == 3 ? Collect_SelfTest("127.0.0.1", port, 1, 0, 0)
                           : Collect_Start("127.0.0.1", port, type, 1, 0, 0);
    });
    pollfd w{ls, POLLIN, 0};
    int fd = poll(&w, 1, 5000) == 1 ? accept4(ls, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    bool ok = fd >= 0 && ReadStream(fd, out.messages, error);
    if (fd < 0) error = "the agent did not connect for the recording";
    if (fd >= 0) close(fd);
    close(ls);
    agent.join();
    if (ok && served != 1) ok = false, error = "the agent reported a failed collection while recording";
    if (ok && (out.messages.empty() || out.messages.size() > 0xFFFF || out.messages[0].type != COLLECT_MSG_IDENTITY))
        ok = false, error = "the recording does not start with an identity message";
    if (ok && !FindNumber(out)) ok = false, error = "the recording holds the device number twice";
    return ok;
}

}  // namespace dtsim
