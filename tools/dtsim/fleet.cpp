#include "fleet.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ostream>
#include <queue>
#include <utility>

#include "sim_host.h"

#ifndef DTKIT_VERSION
#define DTKIT_VERSION "unknown"
#endif

namespace dtsim {
namespace {

const char kUsage[] =
    "usage: dtsim [--devices N] [--delay MS] [--duration SEC] [--wait SEC] [--collections K]\n"
    "             [--silent LIST] [--garbage LIST] [--drop LIST] [--stall LIST] [--print-hosts]\n"
    "Plays N simulated devices in one process for testing collectors. Device i answers\n"
    "collection requests on UDP port 9099 of 127.1.(i/250).(i%250+1), connects back from that\n"
    "address and plays the stream that the library's own agent sends for a host with\n"
    "sections of every value kind, numbered as the agent numbers it (a running counter per\n"
    "device). Its identity bytes and the int under section \"device\", code 1, are its number.\n"
    "  --devices N      how many devices, 1 to 64000 (default 1)\n"
    "  --delay MS       pause before each message, standing for a slow link (default 0)\n"
    "  --duration SEC   run at most this long, up to 3600 (default 60)\n"
    "  --wait SEC       give up a connection after waiting this long for the collector (default 10)\n"
    "  --collections K  end once K requests have been dealt with (default: run for the duration)\n"
    "  --silent LIST    these devices never connect back\n"
    "  --garbage LIST   these send their identity, then 16 bytes that are no message header\n"
    "  --drop LIST      these close the connection halfway through a message, mid-stream\n"
    "  --stall LIST     these send identity and section list, then nothing\n"
    "  --print-hosts    print the N addresses, one a line, and exit\n"
    "LIST is device numbers and ranges from 0: 3,7,10-12. Requests from outside 127.0.0.0/8 are\n"
    "ignored. Prints one line when ready and a summary at the end; SIGTERM or SIGINT ends it.\n"
    "Exit status: 0 ran its course, 1 could not start, 2 bad usage.\n";

// A device holds at most this many requests that came while it was serving
// one, as the agent's socket would; more are dropped and counted.
constexpr int kQueue = 4;
constexpr uint32_t kAckBytes = 16;
constexpr uint64_t kUdpTag = 0xFFFFFFFFull;
constexpr uint64_t kTimerTag = 0xFFFFFFFEull;

volatile sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

int64_t NowNs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

void PutBe32(uint8_t *p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
uint32_t Be32(const uint8_t *p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

struct Request {
    uint32_t requester;  // network order
    uint16_t port;
    uint8_t type;
    uint32_t sequence;
};

enum State : uint8_t { kIdle, kConnecting, kWaiting, kSending, kAwaitAck, kDraining };
// A failed collection, by what broke it: no connection to the collector, a
// wait for it that ran out, or the connection cut from its side.
enum Outcome { kComplete, kMisbehaved, kNoConnect, kTimedOut, kCutOff };

struct Device {
    int fd = -1;
    uint32_t counter = 0;  // the agent's running message counter: never reset
    uint32_t seq = 0;      // header sequence of the message in flight
    uint32_t timer = 0;    // a timer entry fires only while it carries this generation
    uint32_t conn = 0;     // an epoll event counts only for the connection it was armed for
    uint32_t events = 0;
    uint16_t msg = 0;
    uint16_t sent = 0;
    State state = kIdle;
    Mode mode = Mode::kNormal;
    Request current{};
    Request queue[kQueue]{};
    uint8_t head = 0, queued = 0;
};

struct Timer {
    int64_t at;
    uint32_t device, gen;
    bool operator>(const Timer &o) const { return at > o.at; }
};

struct Stats {
    uint64_t complete = 0, misbehaved = 0, noConnect = 0, timedOut = 0, cutOff = 0;
    uint64_t invalid = 0, stray = 0, overflow = 0, lost = 0;
    uint64_t Failed() const { return noConnect + timedOut + cutOff; }
    uint64_t Dealt() const { return complete + misbehaved + Failed(); }
};

class Fleet {
public:
    Fleet(const Options &o, Recording collect, Recording selfTest)
        : o_(o), collect_(std::move(collect)), selfTest_(std::move(selfTest)), devices_(o.devices) {
        for (uint32_t i = 0; i < o.devices; ++i) {
            if (!o.modes.empty()) devices_[i].mode = o.modes[i];
            // Devices that have been up for different times: counters far apart.
            devices_[i].counter = i * 7919u;
        }
    }
    ~Fleet() {
        for (Device &d : devices_)
            if (d.fd >= 0) close(d.fd);
        for (int fd : {udp_, timer_, epoll_})
            if (fd >= 0) close(fd);
    }
    bool Start(std::string &error);
    void Run();
    const Stats &Figures() const { return stats_; }

private:
    const Recording &Stream(const Device &d) const { return d.current.type == 3 ? selfTest_ : collect_; }
    size_t Build(uint32_t i, uint8_t *buf) const;
    void Receive();
    void Take(const uint8_t *req, uint32_t n, const sockaddr_in &from, msghdr &h);
    void Accept(uint32_t i, const Request &r);
    void Begin(uint32_t i);
    void Connected(uint32_t i);
    void Next(uint32_t i);
    void Send(uint32_t i);
    void Readable(uint32_t i);
    void Event(uint32_t i, uint32_t conn, uint32_t ev);
    void Expire(const Timer &t);
    void End(uint32_t i, Outcome how);
    void Arm(uint32_t i, uint32_t ms);
    void Watch(uint32_t i, uint32_t events);
    void SetClock();
    bool Done() const { return o_.collections != 0 && stats_.Dealt() >= o_.collections; }

    Options o_;
    Recording collect_, selfTest_;
    std::vector<Device> devices_;
    std::priority_queue<Timer, std::vector<Timer>, std::greater<Timer>> timers_;
    int64_t armedAt_ = 0;
    int udp_ = -1, timer_ = -1, epoll_ = -1;
    Stats stats_;
};

bool Fleet::Start(std::string &error) {
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    udp_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (epoll_ < 0 || timer_ < 0 || udp_ < 0) {
        error = std::string("cannot make the event loop: ") + std::strerror(errno);
        return false;
    }
    // One socket for every device: the request's destination address, which
    // IP_PKTINFO hands over, says which device was asked. A burst of requests
    // waits in its receive buffer, so make it as large as allowed, and count
    // what a full buffer still drops.
    int one = 1, big = 8 << 20;
    setsockopt(udp_, IPPROTO_IP, IP_PKTINFO, &one, sizeof one);
    setsockopt(udp_, SOL_SOCKET, SO_RXQ_OVFL, &one, sizeof one);
    if (setsockopt(udp_, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big) != 0)
        setsockopt(udp_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(kRequestPort);
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(udp_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        error = std::string("cannot bind UDP port 9099: ") + std::strerror(errno);
        return false;
    }
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.u64 = kUdpTag;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, udp_, &e);
    e.data.u64 = kTimerTag;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, timer_, &e);
    return true;
}

// The bytes of device i's current message: the recording's, with the
// device's sequence, identity bytes and number written in.
size_t Fleet::Build(uint32_t i, uint8_t *buf) const {
    const Device &d = devices_[i];
    if (d.mode == Mode::kGarbage && d.msg == 1) {
        std::memset(buf, 0xA5, 16);
        return 16;
    }
    const Recording &r = Stream(d);
    const Message &m = r.messages[d.msg];
    PutBe32(buf, uint32_t(12 + m.payload.size()));
    PutBe32(buf + 4, m.type);
    PutBe32(buf + 8, d.seq);
    if (!m.payload.empty()) std::memcpy(buf + 12, m.payload.data(), m.payload.size());
    if (d.msg == 0 && m.payload.size() >= 2) {
        buf[12] = uint8_t(i >> 8);
        buf[13] = uint8_t(i);
    }
    if (d.msg == r.numberMessage) PutBe32(buf + 12 + r.numberOffset, i);
    return 12 + m.payload.size();
}

void Fleet::Receive() {
    constexpr int kBatch = 64;
    uint8_t req[kBatch][16];
    sockaddr_in from[kBatch];
    alignas(cmsghdr) uint8_t control[kBatch][64];
    iovec iov[kBatch];
    mmsghdr h[kBatch];
    // Every request that waits is taken now, as each device's own socket
    // would hold it, up to a bound that keeps the connections served.
    for (int round = 0; round < 64; ++round) {
        std::memset(req, 0, sizeof req);
        std::memset(h, 0, sizeof h);
        for (int k = 0; k < kBatch; ++k) {
            iov[k] = {req[k], sizeof req[k]};
            h[k].msg_hdr.msg_name = &from[k];
            h[k].msg_hdr.msg_namelen = sizeof from[k];
            h[k].msg_hdr.msg_iov = &iov[k];
            h[k].msg_hdr.msg_iovlen = 1;
            h[k].msg_hdr.msg_control = control[k];
            h[k].msg_hdr.msg_controllen = sizeof control[k];
        }
        const int n = recvmmsg(udp_, h, kBatch, MSG_DONTWAIT, nullptr);
        for (int k = 0; k < n; ++k) Take(req[k], h[k].msg_len, from[k], h[k].msg_hdr);
        if (n < kBatch) return;
    }
}

void Fleet::Take(const uint8_t *req, uint32_t n, const sockaddr_in &from, msghdr &h) {
    uint32_t to = 0;
    for (cmsghdr *c = CMSG_FIRSTHDR(&h); c != nullptr; c = CMSG_NXTHDR(&h, c)) {
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            to = ntohl(info.ipi_addr.s_addr);
        }
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL) {
            uint32_t dropped;
            std::memcpy(&dropped, CMSG_DATA(c), sizeof dropped);
            stats_.lost = dropped;
        }
    }
    // The agent's checks: the length word says what arrived (of the first
    // 16 bytes), the type is known, the sequence is not negative.
    const bool valid = int32_t(Be32(req)) == int32_t(n) && Be32(req + 4) <= 3 && int32_t(Be32(req + 8)) >= 0;
    const bool local = (ntohl(from.sin_addr.s_addr) >> 24) == 127;
    const int64_t device = DeviceAt(to, o_.devices);
    if (!valid || !local) {
        stats_.invalid++;
    } else if (device < 0) {
        stats_.stray++;
    } else {
        Accept(uint32_t(device),
               {from.sin_addr.s_addr, uint16_t(Be32(req + 12)), uint8_t(Be32(req + 4)), Be32(req + 8)});
    }
}

void Fleet::Accept(uint32_t i, const Request &r) {
    Device &d = devices_[i];
    if (d.state == kIdle) {
        d.current = r;
        Begin(i);
        return;
    }
    if (d.queued == kQueue) {
        stats_.overflow++;
        return;
    }
    d.queue[(d.head + d.queued++) % kQueue] = r;
}

void Fleet::Begin(uint32_t i) {
    Device &d = devices_[i];
    if (d.mode == Mode::kSilent) {
        End(i, kMisbehaved);
        return;
    }
    d.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (d.fd < 0) {
        End(i, kNoConnect);
        return;
    }
    d.conn++;
    d.msg = 0;
    d.sent = 0;
    d.events = EPOLLOUT;
    // Bound first, so that the collector sees the connection come from the address it asked.
    sockaddr_in self{};
    self.sin_family = AF_INET;
    self.sin_addr.s_addr = htonl(DeviceAddress(i));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = d.current.requester;
    to.sin_port = htons(d.current.port);
    epoll_event e{};
    e.events = d.events;
    e.data.u64 = (uint64_t(d.conn) << 32) | i;
    if (bind(d.fd, reinterpret_cast<sockaddr *>(&self), sizeof self) != 0 ||
        epoll_ctl(epoll_, EPOLL_CTL_ADD, d.fd, &e) != 0) {
        End(i, kNoConnect);
        return;
    }
    const int rc = connect(d.fd, reinterpret_cast<sockaddr *>(&to), sizeof to);
    if (rc != 0 && errno != EINPROGRESS) {
        End(i, kNoConnect);
        return;
    }
    d.state = kConnecting;
    Arm(i, o_.waitMs);
}

void Fleet::Connected(uint32_t i) {
    Watch(i, EPOLLIN);
    Next(i);
}

// Waits the link's delay before the device's next message, or sends it now.
void Fleet::Next(uint32_t i) {
    devices_[i].state = kWaiting;
    if (o_.delayMs == 0) {
        Send(i);
        return;
    }
    Arm(i, o_.delayMs);
}

void Fleet::Send(uint32_t i) {
    Device &d = devices_[i];
    const bool garbage = d.mode == Mode::kGarbage && d.msg == 1;
    // As the agent numbers them: the identity carries the request's sequence
    // when it has one, every other message the next value of the counter.
    if (d.sent == 0 && !garbage) d.seq = d.msg == 0 && d.current.sequence != 0 ? d.current.sequence : ++d.counter;
    uint8_t buf[12 + 1024];
    const size_t n = Build(i, buf);
    const bool cut = d.mode == Mode::kDrop && d.msg == Stream(d).messages.size() / 2;
    const size_t want = cut ? n / 2 : n;
    const ssize_t r = send(d.fd, buf + d.sent, want - d.sent, MSG_NOSIGNAL);
    if (r < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
        End(i, kCutOff);
        return;
    }
    if (r > 0) d.sent = uint16_t(d.sent + r);
    if (d.sent < want) {
        d.state = kSending;
        Watch(i, EPOLLOUT);
        Arm(i, o_.waitMs);
        return;
    }
    d.sent = 0;
    if (cut) {
        End(i, kMisbehaved);
        return;
    }
    d.state = garbage ? kDraining : kAwaitAck;
    Watch(i, EPOLLIN);
    Arm(i, o_.waitMs);
}

void Fleet::Readable(uint32_t i) {
    Device &d = devices_[i];
    uint8_t ack[kAckBytes];
    if (d.state == kWaiting) {
        // Bytes ahead of the next message: left for the next acknowledgement
        // read, as in the agent; only a closed connection matters now.
        const ssize_t r = recv(d.fd, ack, 1, MSG_PEEK);
        if (r > 0) Watch(i, 0);
        else if (r == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) End(i, kCutOff);
        return;
    }
    // The agent reads once, at most 16 bytes, and takes whatever came as the acknowledgement.
    const ssize_t r = recv(d.fd, ack, sizeof ack, 0);
    if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (d.state == kDraining) {
        if (r <= 0) End(i, kMisbehaved);
        return;
    }
    if (r <= 0) {
        End(i, kCutOff);
        return;
    }
    d.msg++;
    if (d.msg == Stream(d).messages.size()) {
        End(i, kComplete);
    } else if (d.mode == Mode::kStall && d.msg == 2) {
        d.state = kDraining;
        Arm(i, o_.waitMs);
    } else {
        Next(i);
    }
}

void Fleet::Event(uint32_t i, uint32_t conn, uint32_t ev) {
    Device &d = devices_[i];
    if (d.state == kIdle || d.conn != conn) return;
    if (d.state == kConnecting) {
        int err = 0;
        socklen_t len = sizeof err;
        if (getsockopt(d.fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) End(i, kNoConnect);
        else if (ev & EPOLLOUT) Connected(i);
        return;
    }
    if (ev & (EPOLLERR | EPOLLHUP)) {
        End(i, d.state == kDraining ? kMisbehaved : kCutOff);
        return;
    }
    if (d.state == kSending && (ev & EPOLLOUT)) Send(i);
    else if (ev & EPOLLIN) Readable(i);
}

void Fleet::Expire(const Timer &t) {
    Device &d = devices_[t.device];
    if (d.timer != t.gen) return;
    if (d.state == kWaiting) Send(t.device);
    else if (d.state != kIdle)
        End(t.device, d.state == kDraining ? kMisbehaved : d.state == kConnecting ? kNoConnect : kTimedOut);
}

void Fleet::End(uint32_t i, Outcome how) {
    Device &d = devices_[i];
    if (d.fd >= 0) close(d.fd);
    d.fd = -1;
    d.state = kIdle;
    d.timer++;
    uint64_t *const count[] = {&stats_.complete, &stats_.misbehaved, &stats_.noConnect, &stats_.timedOut,
                               &stats_.cutOff};
    (*count[how])++;
    if (d.queued == 0) return;
    d.current = d.queue[d.head];
    d.head = uint8_t((d.head + 1) % kQueue);
    d.queued--;
    Begin(i);
}

void Fleet::Arm(uint32_t i, uint32_t ms) {
    Device &d = devices_[i];
    timers_.push({NowNs() + int64_t(ms) * 1000000, i, ++d.timer});
}

void Fleet::Watch(uint32_t i, uint32_t events) {
    Device &d = devices_[i];
    if (d.events == events) return;
    d.events = events;
    epoll_event e{};
    e.events = events;
    e.data.u64 = (uint64_t(d.conn) << 32) | i;
    epoll_ctl(epoll_, EPOLL_CTL_MOD, d.fd, &e);
}

// One timer descriptor stands for the earliest entry, to the nanosecond:
// epoll's own time-out counts whole milliseconds, a fifth of a 5 ms delay.
void Fleet::SetClock() {
    while (!timers_.empty() && devices_[timers_.top().device].timer != timers_.top().gen) timers_.pop();
    const int64_t at = timers_.empty() ? 0 : timers_.top().at;
    if (at == armedAt_) return;
    armedAt_ = at;
    itimerspec t{};
    t.it_value.tv_sec = at / 1000000000;
    t.it_value.tv_nsec = at % 1000000000;
    timerfd_settime(timer_, TFD_TIMER_ABSTIME, &t, nullptr);
}

void Fleet::Run() {
    sigset_t block, during;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGINT);
    sigprocmask(SIG_BLOCK, &block, &during);
    sigdelset(&during, SIGTERM);
    sigdelset(&during, SIGINT);
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    const int64_t end = NowNs() + int64_t(o_.durationMs) * 1000000;
    epoll_event events[256];
    while (!g_stop && !Done()) {
        const int64_t left = end - NowNs();
        if (left <= 0) break;
        const int n = epoll_pwait(epoll_, events, 256, int(left / 1000000) + 1, &during);
        for (int k = 0; k < n && !Done(); ++k) {
            const uint64_t tag = events[k].data.u64;
            if (tag == kUdpTag) Receive();
            else if (tag != kTimerTag) Event(uint32_t(tag), uint32_t(tag >> 32), events[k].events);
        }
        uint64_t ticks;
        if (read(timer_, &ticks, sizeof ticks) > 0) armedAt_ = 0;
        for (const int64_t now = NowNs(); !timers_.empty() && timers_.top().at <= now && !Done();) {
            const Timer t = timers_.top();
            timers_.pop();
            Expire(t);
        }
        SetClock();
    }
}

bool ParseCount(const std::string &text, uint64_t max, uint64_t &value) {
    if (text.empty() || text.size() > 12 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    value = std::strtoull(text.c_str(), nullptr, 10);
    return value <= max;
}

bool ParseSeconds(const std::string &text, uint32_t maxS, uint32_t &ms) {
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) return false;
    char *end = nullptr;
    const double s = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !(s > 0) || s > maxS) return false;
    ms = uint32_t(s * 1000 + 0.999);
    return true;
}

// "3,7,10-12": every number below `devices`, each range ascending.
bool ParseList(const std::string &text, uint32_t devices, std::vector<uint32_t> &out) {
    size_t at = 0;
    while (at <= text.size()) {
        size_t comma = text.find(',', at);
        if (comma == std::string::npos) comma = text.size();
        const std::string item = text.substr(at, comma - at);
        const size_t dash = item.find('-');
        uint64_t lo = 0, hi = 0;
        if (!ParseCount(item.substr(0, dash), devices - 1, lo)) return false;
        hi = lo;
        if (dash != std::string::npos && (!ParseCount(item.substr(dash + 1), devices - 1, hi) || hi < lo)) return false;
        for (uint64_t k = lo; k <= hi; ++k) out.push_back(uint32_t(k));
        at = comma + 1;
    }
    return true;
}

void RaiseDescriptorLimit() {
    rlimit r{};
    if (getrlimit(RLIMIT_NOFILE, &r) != 0 || r.rlim_cur == r.rlim_max) return;
    r.rlim_cur = r.rlim_max;
    setrlimit(RLIMIT_NOFILE, &r);
}

}  // namespace

uint32_t DeviceAddress(uint32_t device) {
    return (127u << 24) | (1u << 16) | ((device / kPerBlock) << 8) | (device % kPerBlock + 1);
}

std::string DeviceHost(uint32_t device) {
    in_addr a{htonl(DeviceAddress(device))};
    char t[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &a, t, sizeof t);
}

int64_t DeviceAt(uint32_t address, uint32_t devices) {
    const uint32_t low = address & 0xFF;
    if ((address >> 16) != ((127u << 8) | 1u) || low == 0 || low > kPerBlock) return -1;
    const uint32_t device = ((address >> 8) & 0xFF) * kPerBlock + low - 1;
    return device < devices ? int64_t(device) : -1;
}

bool ParseArgs(const std::vector<std::string> &args, Options &o, bool &help, bool &version, std::string &error) {
    help = version = false;
    std::vector<std::pair<Mode, std::string>> lists;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") return help = true;
        if (a == "--version") return version = true;
        if (a == "--print-hosts") {
            o.printHosts = true;
            continue;
        }
        const Mode mode = a == "--silent" ? Mode::kSilent : a == "--garbage" ? Mode::kGarbage
                        : a == "--drop" ? Mode::kDrop : a == "--stall" ? Mode::kStall : Mode::kNormal;
        const bool known = mode != Mode::kNormal || a == "--devices" || a == "--delay" || a == "--duration" ||
                           a == "--wait" || a == "--collections";
        if (!known) {
            error = a.size() > 1 && a[0] == '-' ? "unknown option " + a : "unexpected argument " + a;
            return false;
        }
        if (i + 1 >= args.size()) {
            error = a + " needs a value";
            return false;
        }
        const std::string &v = args[++i];
        uint64_t n = 0;
        bool ok = true;
        if (mode != Mode::kNormal) lists.emplace_back(mode, v);
        else if (a == "--devices") ok = ParseCount(v, kMaxDevices, n) && n > 0, o.devices = uint32_t(n);
        else if (a == "--delay") ok = ParseCount(v, 60000, n), o.delayMs = uint32_t(n);
        else if (a == "--collections") ok = ParseCount(v, 1000000000000ull, n), o.collections = n;
        else if (a == "--duration") ok = ParseSeconds(v, 3600, o.durationMs);
        else ok = ParseSeconds(v, 3600, o.waitMs);
        if (!ok) {
            error = "bad value for " + a + ": " + (v.empty() ? "(empty)" : v);
            return false;
        }
    }
    // Lists are read once the number of devices is known, wherever --devices stands.
    for (const auto &l : lists) {
        std::vector<uint32_t> chosen;
        if (!ParseList(l.second, o.devices, chosen)) {
            error = "bad device list " + l.second + " (device numbers below " + std::to_string(o.devices) + ")";
            return false;
        }
        o.modes.resize(o.devices, Mode::kNormal);
        for (uint32_t k : chosen) {
            if (o.modes[k] != Mode::kNormal && o.modes[k] != l.first) {
                error = "device " + std::to_string(k) + " is given two ways to misbehave";
                return false;
            }
            o.modes[k] = l.first;
        }
    }
    return true;
}

int Main(const std::vector<std::string> &args, std::ostream &out, std::ostream &err) {
    Options o;
    bool help = false, version = false;
    std::string error;
    if (!ParseArgs(args, o, help, version, error)) {
        err << "dtsim: " << error << "\n" << kUsage;
        return 2;
    }
    if (help || version) {
        out << (help ? kUsage : "dtsim (dtkit) " DTKIT_VERSION "\n");
        return 0;
    }
    if (o.printHosts) {
        for (uint32_t i = 0; i < o.devices; ++i) out << DeviceHost(i) << "\n";
        return 0;
    }
    RaiseDescriptorLimit();
    Recording collect, selfTest;
    if (!Record(0, collect, error) || !Record(3, selfTest, error)) {
        err << "dtsim: recording the agent's stream failed: " << error << "\n";
        return 1;
    }
    const size_t messages = collect.messages.size(), selfTestMessages = selfTest.messages.size();
    Fleet fleet(o, std::move(collect), std::move(selfTest));
    if (!fleet.Start(error)) {
        err << "dtsim: " << error << "\n";
        return 1;
    }
    out << "dtsim: ready, " << o.devices << " devices " << DeviceHost(0) << " to " << DeviceHost(o.devices - 1)
        << ", " << messages << " messages a collection, " << selfTestMessages << " a self test, delay "
        << o.delayMs << " ms" << std::endl;
    const int64_t start = NowNs();
    fleet.Run();
    const Stats &s = fleet.Figures();
    char t[32];
    snprintf(t, sizeof t, "%.2f s", double(NowNs() - start) / 1e9);
    out << "dtsim: " << s.complete << " complete, " << s.misbehaved << " misbehaved, " << s.Failed() << " failed ("
        << s.noConnect << " not connected, " << s.timedOut << " timed out, " << s.cutOff << " cut off); requests: "
        << s.invalid << " invalid, " << s.stray << " for no device, " << s.overflow << " past a full queue, "
        << s.lost << " lost to a full socket buffer; " << t << std::endl;
    return 0;
}

}  // namespace dtsim
