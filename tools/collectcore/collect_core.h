// The collecting side of the collection protocol, shared by the tools: one
// event loop on one thread runs any number of collections at once, each a
// small state machine (request sent, connection accepted, messages read and
// acknowledged, done or failed) with a deadline of its own.
//
// How a connection finds its collection: the core has ONE TCP listener and
// ONE UDP request socket. Every collection in flight gets a sequence number
// that no other collection in flight has (1 to 2^31-1, since the device
// ignores a request whose sequence is negative and numbers the identity
// itself for 0). The device puts that number into the header of its identity
// message, the first message on its connection. A connection belongs to the
// collection whose sequence its identity carries. A connection whose first
// 16 bytes are not a well-formed identity naming a collection in flight that
// has no connection yet, or that sends no identity within Config::identifyMs,
// is closed without touching any collection. The peer's address is not
// compared with the host's: a device with several interfaces may connect
// back from another of its addresses.
//
// Memory: a collection in flight holds one message (at most 1036 bytes), its
// section names and at most one string or buffer value being joined, which
// is refused past Config::maxValue. Nothing grows with a stream's length.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>

#include "stream_reader.h"

namespace dtcore {

constexpr uint16_t kRequestPort = 9099;
constexpr uint32_t kMaxSequence = 0x7FFFFFFF;

struct Job {
    std::string host;       // IPv4 dotted quad or a name to resolve
    uint32_t type = 0;      // 0..2 collection, 3 self test
    int timeoutMs = 5000;   // the collection's deadline, from the request sent to the device's close
};

struct Outcome {
    bool ok = false;
    std::string error;      // one line naming the byte offset in the stream; empty when ok
    uint64_t values = 0;    // values decoded (a self test's name records are not counted)
    uint64_t bytes = 0;     // stream bytes read
    double seconds = 0;     // request sent to done
    uint32_t sequence = 0;  // the sequence the request carried; 0 when none was sent
};

using EventFn = std::function<void(const Event &)>;   // loop thread, stream order
using DoneFn = std::function<void(const Outcome &)>;  // loop thread, exactly once, after the last event

class Core {
public:
    struct Config {
        size_t parallel = 256;      // collections in flight at most; the rest wait in submission order
        uint16_t listenPort = 0;    // the one shared listener; 0: ephemeral
        uint32_t firstSequence = 0; // first request's sequence, then counting up; 0: picked from the clock
        int identifyMs = 2000;      // a new connection's bound for sending its identity
        size_t maxValue = kDefaultMaxValue;  // longest string or buffer accepted
        uint16_t requestPort = kRequestPort; // the devices' UDP port
    };

    explicit Core(const Config &c);
    // Jobs still queued or in flight are failed ("the collector stopped"), their
    // DoneFn called on the destroying thread; call it once Run has returned.
    ~Core();
    Core(const Core &) = delete;
    Core &operator=(const Core &) = delete;

    // Listener, request socket, epoll and wake-up fd; raises the open-file
    // limit to parallel + 64 when it is lower. false with the reason.
    bool Open(std::string &error);
    // Any thread: queues the job and wakes the loop (the one hand-off between
    // threads: a mutex-guarded queue and an eventfd). A host name is resolved
    // here, on the caller's thread, so a slow resolver never stalls the loop.
    // Returns the job's id, nonzero and increasing.
    uint64_t Submit(const Job &job, EventFn onEvent, DoneFn onDone);
    void Run();            // loop on the calling thread until Stop(); returns at once before Open
    void RunUntilIdle();   // loop until nothing is queued or in flight, or Stop()
    void Stop();           // any thread; lasting: later Run calls return at once
    size_t InFlight() const;  // any thread
    size_t Queued() const;    // any thread
    uint16_t ListenPort() const;  // after Open: the port the listener is bound to
    size_t OpenConnections() const;  // loop thread: accepted connections, with and without identity

private:
    struct Collection;
    struct Pending;

    void loop_(bool untilIdle);
    void startQueued_();
    void start_(std::unique_ptr<Collection> c);
    bool sendRequest_(Collection &c);
    void flushRequests_();
    void accept_();
    void identify_(uint64_t serial);
    void closePending_(uint64_t serial);
    void read_(Collection &c);
    void deliver_(Collection &c);
    void finish_(Collection &c, bool ok, const std::string &error);
    void expire_();
    int nextWaitMs_() const;
    uint32_t nextSequence_();
    void watchListener_(bool on);

    Config cfg_;
    int listenFd_ = -1, udpFd_ = -1, epollFd_ = -1, wakeFd_ = -1;
    uint16_t boundPort_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> nextId_{1};
    std::atomic<size_t> inFlight_{0};

    mutable std::mutex queueLock_;
    std::deque<std::unique_ptr<Collection>> queue_;  // guarded by queueLock_

    // Loop thread only from here on.
    std::unordered_map<uint64_t, std::unique_ptr<Collection>> flight_;  // by id
    std::unordered_map<uint32_t, Collection *> bySequence_;
    std::set<std::pair<int64_t, uint64_t>> deadlines_;  // (ms, id)
    std::deque<uint64_t> unsent_;                       // ids whose request waits for room in the socket
    std::unordered_map<uint64_t, std::unique_ptr<Pending>> pending_;  // by serial
    std::deque<std::pair<int64_t, uint64_t>> pendingExpiry_;          // (ms, serial), in accept order
    uint64_t nextSerial_ = 1;
    size_t connections_ = 0;
    bool listening_ = false;
    uint32_t sequence_ = 0;
    std::unique_ptr<uint8_t[]> buffer_;
};

// The 16-byte request datagram: a collection of `type`, identity numbered
// `sequence`, answered on TCP port `listenPort`.
std::string Request(uint32_t type, uint32_t sequence, uint16_t listenPort);

}  // namespace dtcore
