// The collector's end of the collection protocol, for tests: a TCP listener
// on 127.0.0.1, the UDP request, and a reader that acknowledges messages.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "collect/collect_api.h"
#include "dttest.h"
#include "foundation/DTMem.h"

namespace ct {

using Bytes = std::vector<uint8_t>;

// What one registered section holds under owner 100 (the block header included).
const uint32_t kSectionBytes = sizeof(CollectSection) + 4;

inline uint32_t Be32(const uint8_t *p) { return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]; }
inline Bytes Request(uint32_t length, uint32_t type, uint32_t seq, uint32_t port) {
    Bytes b;
    for (uint32_t v : {length, type, seq, port})
        b.insert(b.end(), {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
    return b;
}
inline void SendDatagram(const Bytes &b) {
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{AF_INET, htons(COLLECT_REQUEST_PORT), {htonl(INADDR_LOOPBACK)}, {}};
    sendto(s, b.data(), b.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a);
    close(s);
}

struct Msg { uint32_t length, type, sequence; Bytes payload; };

// For int and long records, data holds the value's bytes.
struct Record { uint8_t kind; uint32_t section, block, code; Bytes data; };

inline std::string Text(const Bytes &b) { return std::string(b.begin(), b.end()); }

// Every record of the data messages, in stream order. Stops at a record that
// runs past its message (the test then sees fewer records than it expects).
inline std::vector<Record> Records(const std::vector<Msg> &msgs) {
    std::vector<Record> out;
    for (const auto &[length, type, sequence, p] : msgs) {
        for (size_t i = 0; type == COLLECT_MSG_DATA && i + 15 <= p.size();) {
            const uint8_t k = p[i] & 0x7F;
            const size_t at = i + (k <= 2 ? 13 : 15);
            const size_t n = k == 1 ? 4 : k == 2 ? 8 : size_t(p[i + 13] << 8 | p[i + 14]);
            if (at + n > p.size()) return out;
            out.push_back({p[i], Be32(&p[i + 1]), Be32(&p[i + 5]), Be32(&p[i + 9]), {&p[at], &p[at] + n}});
            i = at + n;
        }
    }
    return out;
}

// Empty: the write side is shut at once, so every acknowledgement reads as 0
// bytes. Never: messages are read but never answered.
enum class Ack { Normal, Empty, Never };

// A TCP listener on 127.0.0.1, at a port of the system's choosing; returns the port.
inline uint16_t Listen(int *lsock) {
    *lsock = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    bind(*lsock, reinterpret_cast<sockaddr *>(&a), len);
    listen(*lsock, 1);
    getsockname(*lsock, reinterpret_cast<sockaddr *>(&a), &len);
    return ntohs(a.sin_port);
}

// Plays the collector on a listener: takes one connection and reads every message
// until the other end closes, acknowledging each as `ack` says; closeAfter k closes
// as soon as the k-th message is in, unacknowledged. Each wait lasts at most waitMs.
inline std::vector<Msg> Read(int lsock, int closeAfter = 0, Ack ack = Ack::Normal, int waitMs = 10000) {
    timeval tv{waitMs / 1000, waitMs % 1000 * 1000};
    setsockopt(lsock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    const int fd = accept(lsock, nullptr, nullptr);  // inherits the time-out
    close(lsock);
    if (ack == Ack::Empty) shutdown(fd, SHUT_WR);
    std::vector<Msg> msgs;
    const uint8_t zeros[16] = {};
    uint8_t h[12];
    while (recv(fd, h, sizeof h, MSG_WAITALL) == ssize_t(sizeof h)) {
        Msg m{Be32(h), Be32(h + 4), Be32(h + 8), {}};
        if (m.length < 12 || m.length > 1036) break;
        m.payload.resize(m.length - 12);
        const ssize_t n = ssize_t(m.payload.size());  // a receive of 0 bytes would wait
        if (n > 0 && recv(fd, m.payload.data(), m.payload.size(), MSG_WAITALL) != n) break;
        msgs.push_back(m);
        if (int(msgs.size()) == closeAfter) break;
        if (ack == Ack::Normal) send(fd, zeros, sizeof zeros, MSG_NOSIGNAL);
    }
    close(fd);
    return msgs;
}

// A collector on a thread of its own, listening at `port` from the start; `msgs`
// is what it read once the other end closed.
struct Collector {
    int lsock = -1;
    const uint16_t port = Listen(&lsock);
    std::future<std::vector<Msg>> msgs = std::async(std::launch::async, [this] { return Read(lsock); });
};

// Asks the agent for a collection of this type and plays the collector for it.
inline std::vector<Msg> Collect(uint32_t type, uint32_t seq = 0, int closeAfter = 0,
                                Ack ack = Ack::Normal, int waitMs = 10000) {
    int lsock = -1;
    SendDatagram(Request(16, type, seq, Listen(&lsock)));
    return Read(lsock, closeAfter, ack, waitMs);
}

// Whether a socket of this network namespace holds UDP port 9099 (0x238B) as
// its local address: the 8 hex digits of that address follow the slot's colon
// and a space.
inline bool Udp9099Held() {
    std::ifstream table("/proc/net/udp");
    for (std::string line; std::getline(table, line);)
        if (line.find(":238B ") == line.find(':') + 10) return true;
    return false;
}

// The agent on a thread of its own, for good: Collect_Init never returns. It
// serves once its request socket holds the port (requests sent after that
// queue); that is watched from outside, since the agent's state belongs to its
// thread. False when another socket holds the port already.
inline bool StartAgent(uint32_t identity) {
    if (Udp9099Held()) return false;
    std::thread([identity] { Collect_Init(identity); }).detach();
    for (int i = 0; i < 500 && !Udp9099Held(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return Udp9099Held();
}

// Whether the agent's log, as the host's console shows it (stamps included), holds text.
inline bool Logged(const std::string &text) {
    dttest::ClearConsole();
    Collect_ShowLog();
    return dttest::ConsoleText().find(text) != std::string::npos;
}

// Owner 100's bytes once they reach `expected`, or after two seconds: the agent
// frees its send buffer only just after closing the connection.
inline uint32_t Owner100(uint32_t expected) {
    DTMemOwnerStats s{};  // read by the loop condition before each wait (a read gives 0)
    for (int i = 0; i < 200 && DTMem_GetOwnerStats(COLLECT_OWNER, &s) == 0 && s.bytes != expected; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return s.bytes;
}

}  // namespace ct
