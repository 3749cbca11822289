#include "collect_core.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

namespace dtcore {
namespace {

constexpr size_t kIdentitySize = 16;
// Connections beyond the collections in flight that may wait for their
// identity; past this the listener is not read until one closes, so that the
// descriptors stay below parallel + 64 whatever strangers connect.
constexpr size_t kSpareConnections = 32;
constexpr size_t kReadBuffer = 64 * 1024;
constexpr int kMaxEvents = 256;
const uint8_t kAck[16] = {0};

enum Tag : uint64_t { kWake = 1, kListen, kUdp, kPendingConn, kCollectionConn };
constexpr int kTagShift = 56;
uint64_t tagged(Tag t, uint64_t key) { return (uint64_t(t) << kTagShift) | key; }

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double nowSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string sysError(const std::string &what) { return what + ": " + std::strerror(errno); }

std::string seconds(int ms) {
    char t[32];
    snprintf(t, sizeof t, "%g s", ms / 1000.0);
    return t;
}

std::string at(uint64_t offset) { return " at byte offset " + std::to_string(offset); }

uint32_t be32(const uint8_t *p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

// Dotted quads without the resolver; names through it, IPv4 only, as the
// device answers IPv4 requests alone.
bool resolve(const std::string &host, sockaddr_in &addr, std::string &error) {
    addr = sockaddr_in{};
    addr.sin_family = AF_INET;
    if (inet_pton(AF_INET, host.c_str(), &addr.sin_addr) == 1) return true;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *res = nullptr;
    int rc = host.empty() ? EAI_NONAME : getaddrinfo(host.c_str(), nullptr, &hints, &res);
    if (rc != 0 || res == nullptr) {
        error = std::string("cannot resolve the host: ") + gai_strerror(rc) + at(0);
        return false;
    }
    std::memcpy(&addr, res->ai_addr, sizeof addr);
    freeaddrinfo(res);
    return true;
}

bool raiseFileLimit(size_t need, std::string &error) {
    rlimit r{};
    if (getrlimit(RLIMIT_NOFILE, &r) != 0) return true;
    if (r.rlim_cur != RLIM_INFINITY && r.rlim_cur >= need) return true;
    if (r.rlim_cur == RLIM_INFINITY) return true;
    if (r.rlim_max != RLIM_INFINITY && r.rlim_max < need) {
        error = "the open-file limit " + std::to_string(r.rlim_max) + " is below the " + std::to_string(need) +
                " descriptors that " + std::to_string(need - 64) + " collections in parallel need";
        return false;
    }
    r.rlim_cur = need;
    if (setrlimit(RLIMIT_NOFILE, &r) != 0) {
        error = sysError("cannot raise the open-file limit to " + std::to_string(need));
        return false;
    }
    return true;
}

void closeFd(int &fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

}  // namespace

struct Core::Collection {
    uint64_t id = 0;
    Job job;
    EventFn onEvent;
    DoneFn onDone;
    sockaddr_in addr{};
    std::string refused;  // set at submission: the job fails as soon as it starts
    uint32_t sequence = 0;
    int fd = -1;
    std::unique_ptr<StreamReader> reader;
    double started = 0;
    int64_t deadline = 0;
    uint64_t values = 0;
};

// A connection that has not yet named its collection.
struct Core::Pending {
    int fd = -1;
    uint8_t identity[kIdentitySize];
    size_t have = 0;
};

std::string Request(uint32_t type, uint32_t sequence, uint16_t listenPort) {
    std::string r;
    for (uint32_t v : {uint32_t(16), type, sequence, uint32_t(listenPort)})
        for (int shift = 24; shift >= 0; shift -= 8) r += char(uint8_t(v >> shift));
    return r;
}

Core::Core(const Config &c) : cfg_(c), buffer_(new uint8_t[kReadBuffer]) {
    if (cfg_.parallel == 0) cfg_.parallel = 1;
    sequence_ = cfg_.firstSequence;
    if (sequence_ == 0 || sequence_ > kMaxSequence)
        sequence_ = uint32_t(std::chrono::system_clock::now().time_since_epoch().count() % kMaxSequence) + 1;
}

Core::~Core() {
    std::deque<std::unique_ptr<Collection>> queued;
    {
        std::lock_guard<std::mutex> g(queueLock_);
        queued.swap(queue_);
    }
    std::vector<Collection *> flying;
    for (auto &f : flight_) flying.push_back(f.second.get());
    for (Collection *c : flying)
        finish_(*c, false, "the collector stopped before the collection was done" + at(c->reader ? c->reader->Offset() : 0));
    for (auto &c : queued) {
        Outcome o;
        o.error = "the collector stopped before the collection began" + at(0);
        if (c->onDone) c->onDone(o);
    }
    for (auto &p : pending_) closeFd(p.second->fd);
    closeFd(listenFd_);
    closeFd(udpFd_);
    closeFd(epollFd_);
    closeFd(wakeFd_);
}

bool Core::Open(std::string &error) {
    if (epollFd_ >= 0) return true;
    if (!raiseFileLimit(cfg_.parallel + 64, error)) return false;
    epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    udpFd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    // A failed Open leaves nothing open, so that it may be tried again.
    auto failed = [this, &error](const std::string &why) {
        error = sysError(why);
        for (int *fd : {&epollFd_, &wakeFd_, &udpFd_, &listenFd_}) closeFd(*fd);
        return false;
    };
    if (epollFd_ < 0 || wakeFd_ < 0 || udpFd_ < 0 || listenFd_ < 0)
        return failed("cannot make the collector's descriptors");
    int one = 1;
    setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    a.sin_port = htons(cfg_.listenPort);
    socklen_t len = sizeof a;
    if (bind(listenFd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(listenFd_, SOMAXCONN) != 0 ||
        getsockname(listenFd_, reinterpret_cast<sockaddr *>(&a), &len) != 0)
        return failed("cannot listen on TCP port " + std::to_string(cfg_.listenPort));
    boundPort_ = ntohs(a.sin_port);
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.u64 = tagged(kWake, 0);
    epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &e);
    e.events = 0;
    e.data.u64 = tagged(kUdp, 0);
    epoll_ctl(epollFd_, EPOLL_CTL_ADD, udpFd_, &e);
    e.events = EPOLLIN;
    e.data.u64 = tagged(kListen, 0);
    epoll_ctl(epollFd_, EPOLL_CTL_ADD, listenFd_, &e);
    listening_ = true;
    return true;
}

uint64_t Core::Submit(const Job &job, EventFn onEvent, DoneFn onDone) {
    std::unique_ptr<Collection> c(new Collection);
    c->id = nextId_++;
    c->job = job;
    c->onEvent = std::move(onEvent);
    c->onDone = std::move(onDone);
    if (job.type > 3)
        c->refused = "request type " + std::to_string(job.type) + " is not 0 to 3" + at(0);
    else if (job.timeoutMs <= 0)
        c->refused = "the deadline must be above 0 ms" + at(0);
    else
        resolve(job.host, c->addr, c->refused);
    uint64_t id = c->id;
    {
        std::lock_guard<std::mutex> g(queueLock_);
        queue_.push_back(std::move(c));
    }
    uint64_t one = 1;
    if (wakeFd_ >= 0 && write(wakeFd_, &one, sizeof one) < 0) {
        // The counter is saturated only when the loop is far behind; it wakes anyway.
    }
    return id;
}

void Core::Stop() {
    stop_ = true;
    uint64_t one = 1;
    if (wakeFd_ >= 0 && write(wakeFd_, &one, sizeof one) < 0) {
        // As in Submit: a saturated counter still wakes the loop.
    }
}

size_t Core::InFlight() const { return inFlight_; }

size_t Core::Queued() const {
    std::lock_guard<std::mutex> g(queueLock_);
    return queue_.size();
}

uint16_t Core::ListenPort() const { return boundPort_; }

size_t Core::OpenConnections() const { return connections_; }

void Core::Run() { loop_(false); }

void Core::RunUntilIdle() { loop_(true); }

void Core::loop_(bool untilIdle) {
    if (epollFd_ < 0) return;
    epoll_event events[kMaxEvents];
    while (!stop_) {
        startQueued_();
        if (untilIdle && flight_.empty() && Queued() == 0) return;
        int n = epoll_wait(epollFd_, events, kMaxEvents, nextWaitMs_());
        if (n < 0 && errno != EINTR) return;
        for (int i = 0; i < n; ++i) {
            uint64_t key = events[i].data.u64 & ((uint64_t(1) << kTagShift) - 1);
            switch (Tag(events[i].data.u64 >> kTagShift)) {
                case kWake: {
                    uint64_t count;
                    if (read(wakeFd_, &count, sizeof count) < 0) {
                        // Nothing to drain: another wake-up read it first.
                    }
                    break;
                }
                case kListen: accept_(); break;
                case kUdp: flushRequests_(); break;
                case kPendingConn: identify_(key); break;
                case kCollectionConn: {
                    auto it = flight_.find(key);
                    if (it != flight_.end()) read_(*it->second);
                    break;
                }
            }
        }
        expire_();
    }
}

void Core::startQueued_() {
    while (flight_.size() < cfg_.parallel) {
        std::unique_ptr<Collection> c;
        {
            std::lock_guard<std::mutex> g(queueLock_);
            if (queue_.empty()) return;
            c = std::move(queue_.front());
            queue_.pop_front();
        }
        start_(std::move(c));
    }
}

uint32_t Core::nextSequence_() {
    // Unique among collections in flight: at most `parallel` numbers are taken,
    // far fewer than the 2^31-1 there are, so the search ends.
    for (;;) {
        uint32_t s = sequence_;
        sequence_ = sequence_ >= kMaxSequence ? 1 : sequence_ + 1;
        if (bySequence_.find(s) == bySequence_.end()) return s;
    }
}

void Core::start_(std::unique_ptr<Collection> owned) {
    Collection &c = *owned;
    flight_[c.id] = std::move(owned);
    inFlight_ = flight_.size();
    c.started = nowSeconds();
    if (!c.refused.empty()) {
        finish_(c, false, c.refused);
        return;
    }
    c.sequence = nextSequence_();
    bySequence_[c.sequence] = &c;
    c.reader.reset(new StreamReader(c.job.type == 3, c.sequence, cfg_.maxValue));
    c.deadline = nowMs() + c.job.timeoutMs;
    deadlines_.insert({c.deadline, c.id});
    if (!unsent_.empty()) {
        unsent_.push_back(c.id);  // keep the order of the requests
        return;
    }
    sendRequest_(c);
}

// false when the socket has no room: the request then waits in unsent_.
bool Core::sendRequest_(Collection &c) {
    std::string r = Request(c.job.type, c.sequence, boundPort_);
    sockaddr_in to = c.addr;
    to.sin_port = htons(cfg_.requestPort);
    ssize_t n = sendto(udpFd_, r.data(), r.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    if (n == ssize_t(r.size())) return true;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS)) {
        if (unsent_.empty() || unsent_.front() != c.id) unsent_.push_front(c.id);
        epoll_event e{};
        e.events = EPOLLOUT;
        e.data.u64 = tagged(kUdp, 0);
        epoll_ctl(epollFd_, EPOLL_CTL_MOD, udpFd_, &e);
        return false;
    }
    finish_(c, false, sysError("cannot send the request") + at(0));
    return true;
}

void Core::flushRequests_() {
    while (!unsent_.empty()) {
        auto it = flight_.find(unsent_.front());
        if (it == flight_.end()) {
            unsent_.pop_front();  // failed meanwhile (its deadline passed)
            continue;
        }
        if (!sendRequest_(*it->second)) return;
        if (!unsent_.empty() && unsent_.front() == it->first) unsent_.pop_front();
    }
    epoll_event e{};
    e.data.u64 = tagged(kUdp, 0);
    epoll_ctl(epollFd_, EPOLL_CTL_MOD, udpFd_, &e);
}

void Core::watchListener_(bool on) {
    if (on == listening_) return;
    epoll_event e{};
    e.events = on ? uint32_t(EPOLLIN) : 0u;
    e.data.u64 = tagged(kListen, 0);
    epoll_ctl(epollFd_, EPOLL_CTL_MOD, listenFd_, &e);
    listening_ = on;
}

void Core::accept_() {
    while (connections_ < cfg_.parallel + kSpareConnections) {
        int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) return;  // drained, or out of descriptors: the listener stays readable
        std::unique_ptr<Pending> p(new Pending);
        p->fd = fd;
        uint64_t serial = nextSerial_++;
        epoll_event e{};
        e.events = EPOLLIN;
        e.data.u64 = tagged(kPendingConn, serial);
        epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &e);
        pending_[serial] = std::move(p);
        pendingExpiry_.push_back({nowMs() + cfg_.identifyMs, serial});
        ++connections_;
    }
    watchListener_(false);
}

void Core::closePending_(uint64_t serial) {
    auto it = pending_.find(serial);
    if (it == pending_.end()) return;
    closeFd(it->second->fd);
    pending_.erase(it);
    --connections_;
    watchListener_(true);
}

void Core::identify_(uint64_t serial) {
    auto it = pending_.find(serial);
    if (it == pending_.end()) return;
    Pending &p = *it->second;
    ssize_t n = recv(p.fd, p.identity + p.have, kIdentitySize - p.have, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n <= 0) return closePending_(serial);
    p.have += size_t(n);
    if (p.have < kIdentitySize) return;
    uint8_t m[kIdentitySize];
    std::memcpy(m, p.identity, sizeof m);
    auto owner = bySequence_.find(be32(m + 8));
    bool wellFormed = be32(m) == kIdentitySize && be32(m + 4) == 0 && m[14] == 0 && m[15] == 0;
    if (!wellFormed || owner == bySequence_.end() || owner->second->fd >= 0) return closePending_(serial);
    Collection &c = *owner->second;
    c.fd = p.fd;
    p.fd = -1;
    pending_.erase(it);
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.u64 = tagged(kCollectionConn, c.id);
    epoll_ctl(epollFd_, EPOLL_CTL_MOD, c.fd, &e);
    size_t acks = c.reader->Feed(m, kIdentitySize);
    deliver_(c);
    if (acks == 1 && send(c.fd, kAck, sizeof kAck, MSG_NOSIGNAL) != ssize_t(sizeof kAck))
        finish_(c, false, sysError("acknowledgement failed") + at(c.reader->Offset()));
}

void Core::deliver_(Collection &c) {
    for (const Event &e : c.reader->TakeEvents()) {
        if (e.type == Event::kValue) ++c.values;
        if (c.onEvent) c.onEvent(e);
    }
}

void Core::read_(Collection &c) {
    ssize_t n = recv(c.fd, buffer_.get(), kReadBuffer, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    StreamReader &r = *c.reader;
    if (n < 0) {
        deliver_(c);
        return finish_(c, false, sysError("receive failed") + at(r.Offset()));
    }
    if (n == 0) {
        bool ok = r.Finish();
        deliver_(c);
        return finish_(c, ok, ok ? std::string() : r.Error());
    }
    size_t acks = r.Feed(buffer_.get(), size_t(n));
    deliver_(c);
    if (r.Failed()) return finish_(c, false, r.Error());
    // The device waits for each acknowledgement before it sends on, so these
    // fit in the socket's buffer unless the device never reads them.
    for (; acks > 0; --acks) {
        if (send(c.fd, kAck, sizeof kAck, MSG_NOSIGNAL) != ssize_t(sizeof kAck))
            return finish_(c, false, sysError("acknowledgement failed") + at(r.Offset()));
    }
}

void Core::finish_(Collection &c, bool ok, const std::string &error) {
    Outcome o;
    o.ok = ok;
    o.error = error;
    o.values = c.values;
    o.bytes = c.reader ? c.reader->Offset() : 0;
    o.seconds = nowSeconds() - c.started;
    o.sequence = c.sequence;
    if (c.fd >= 0) {
        epoll_ctl(epollFd_, EPOLL_CTL_DEL, c.fd, nullptr);
        closeFd(c.fd);
        --connections_;
        watchListener_(true);
    }
    if (c.sequence != 0) bySequence_.erase(c.sequence);
    if (c.deadline != 0) deadlines_.erase({c.deadline, c.id});
    std::unique_ptr<Collection> owned = std::move(flight_[c.id]);
    flight_.erase(c.id);
    inFlight_ = flight_.size();
    if (owned->onDone) owned->onDone(o);
}

void Core::expire_() {
    int64_t now = nowMs();
    while (!pendingExpiry_.empty() && pendingExpiry_.front().first <= now) {
        closePending_(pendingExpiry_.front().second);
        pendingExpiry_.pop_front();
    }
    while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
        Collection &c = *flight_[deadlines_.begin()->second];
        std::string why = c.fd < 0 ? "no connection from the device within " + seconds(c.job.timeoutMs) +
                                         " (TCP port " + std::to_string(boundPort_) + ")" + at(0)
                                   : "the collection was not done within " + seconds(c.job.timeoutMs) +
                                         at(c.reader->Offset());
        finish_(c, false, why);
    }
}

int Core::nextWaitMs_() const {
    int64_t next = -1;
    if (!deadlines_.empty()) next = deadlines_.begin()->first;
    if (!pendingExpiry_.empty() && (next < 0 || pendingExpiry_.front().first < next))
        next = pendingExpiry_.front().first;
    if (next < 0) return -1;
    int64_t wait = next - nowMs();
    return int(std::max<int64_t>(0, std::min<int64_t>(wait, 60000)));
}

}  // namespace dtcore
