// The collector's end of the collection protocol, for tests: a TCP listener
// on 127.0.0.1, the UDP request, and a reader that acknowledges messages.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "collect/collect_api.h"
#include "containers/DTBuf.h"
#include "foundation/DTMem.h"

namespace ct {

using Bytes = std::vector<uint8_t>;

inline uint32_t Be32(const uint8_t *p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline void PutBe32(Bytes &b, uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(uint8_t(v >> s));
}
inline Bytes Request(uint32_t length, uint32_t type, uint32_t seq, uint32_t port) {
    Bytes b;
    PutBe32(b, length);
    PutBe32(b, type);
    PutBe32(b, seq);
    PutBe32(b, port);
    return b;
}
inline void SendDatagram(const Bytes &b) {
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(COLLECT_REQUEST_PORT);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(s, b.data(), b.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a);
    close(s);
}

enum class Ack { Normal, Empty, Never };

struct Msg {
    uint32_t length, type, sequence;
    Bytes payload;
};

struct Record {
    uint8_t kind;
    uint32_t section, block, code;
    uint64_t number;  // int and long
    Bytes data;       // string and buffer pieces
};

// Every record of the data messages, in stream order. Stops at a record that
// runs past its message (the test then sees fewer records than it expects).
inline std::vector<Record> Records(const std::vector<Msg> &msgs) {
    std::vector<Record> out;
    for (const Msg &m : msgs) {
        if (m.type != COLLECT_MSG_DATA) continue;
        const Bytes &p = m.payload;
        size_t i = 0;
        while (i + 13 <= p.size()) {
            Record r{p[i], Be32(&p[i + 1]), Be32(&p[i + 5]), Be32(&p[i + 9]), 0, {}};
            uint8_t k = r.kind & 0x7F;
            size_t size = k == 1 ? 17 : k == 2 ? 21 : 15;
            if (i + size > p.size()) return out;
            if (k == 1) r.number = Be32(&p[i + 13]);
            if (k == 2) r.number = (uint64_t(Be32(&p[i + 13])) << 32) | Be32(&p[i + 17]);
            if (k == 3 || k == 4) {
                size += (p[i + 13] << 8) | p[i + 14];
                if (i + size > p.size()) return out;
                r.data.assign(p.begin() + i + 15, p.begin() + i + size);
            }
            out.push_back(r);
            i += size;
        }
    }
    return out;
}

inline std::string Text(const Bytes &b) { return std::string(b.begin(), b.end()); }

// Listens on 127.0.0.1 (ephemeral port); Serve() runs the collector on a thread.
class Collector {
public:
    Collector() {
        lsock_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(lsock_, reinterpret_cast<sockaddr *>(&a), sizeof a);
        listen(lsock_, 4);
        socklen_t len = sizeof a;
        getsockname(lsock_, reinterpret_cast<sockaddr *>(&a), &len);
        port_ = ntohs(a.sin_port);
    }
    ~Collector() {
        if (thread_.joinable()) thread_.join();
        close(lsock_);
    }
    uint16_t Port() const { return port_; }

    // closeAfter k: close as soon as the k-th message has arrived, unacknowledged (0 = never).
    // Ack::Empty shuts the write side at once, so every acknowledgement reads as 0 bytes;
    // Ack::Never reads everything and never answers.
    // acceptMs: how long to wait for the agent's connection.
    void Serve(int closeAfter = 0, Ack ack = Ack::Normal, int acceptMs = 10000) {
        acceptMs_ = acceptMs;
        thread_ = std::thread([this, closeAfter, ack] { Run(closeAfter, ack); });
    }
    // Serve, then send the request for it from 127.0.0.1 to the agent.
    void Request(uint32_t type, uint32_t seq, int closeAfter = 0, Ack ack = Ack::Normal) {
        Serve(closeAfter, ack);
        SendDatagram(ct::Request(16, type, seq, port_));
    }
    // Joins the collector; every message received, in order.
    const std::vector<Msg> &Wait() {
        if (thread_.joinable()) thread_.join();
        return msgs_;
    }
    bool Connected() const { return connected_; }

private:
    bool ReadFull(int fd, uint8_t *p, size_t n) {
        while (n > 0) {
            pollfd pf{fd, POLLIN, 0};
            if (poll(&pf, 1, 10000) != 1) return false;
            ssize_t r = recv(fd, p, n, 0);
            if (r <= 0) return false;
            p += r;
            n -= size_t(r);
        }
        return true;
    }
    void Run(int closeAfter, Ack ack) {
        pollfd pf{lsock_, POLLIN, 0};
        if (poll(&pf, 1, acceptMs_) != 1) return;
        int fd = accept(lsock_, nullptr, nullptr);
        connected_ = true;
        if (ack == Ack::Empty) shutdown(fd, SHUT_WR);
        for (;;) {
            uint8_t h[12];
            pollfd pf2{fd, POLLIN, 0};
            if (poll(&pf2, 1, 10000) != 1) break;
            ssize_t r = recv(fd, h, 1, MSG_PEEK);
            if (r == 0) break;
            if (!ReadFull(fd, h, 12)) break;
            Msg m{Be32(h), Be32(h + 4), Be32(h + 8), {}};
            if (m.length < 12 || m.length > 1036) break;
            m.payload.resize(m.length - 12);
            if (!ReadFull(fd, m.payload.data(), m.payload.size())) break;
            msgs_.push_back(m);
            if (closeAfter != 0 && int(msgs_.size()) == closeAfter) break;
            uint8_t zeros[16] = {};
            if (ack == Ack::Normal) send(fd, zeros, sizeof zeros, MSG_NOSIGNAL);
        }
        close(fd);
    }

    int acceptMs_ = 10000;
    int lsock_ = -1;
    uint16_t port_ = 0;
    std::thread thread_;
    std::vector<Msg> msgs_;
    bool connected_ = false;
};

// The agent on a thread of its own, for good: Collect_Init never returns, so the
// thread is detached and ends with the test process.
inline void StartAgent(uint32_t identity) {
    std::thread([identity] { Collect_Init(identity); }).detach();
    for (int i = 0; i < 500; i++) {
        if (*static_cast<DTLogger *volatile *>(&g_collect_param.logger) != nullptr) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// The agent's log as text, one line a record (stamps included).
inline std::string AgentLog() {
    DTBuf *buf = DTBuf_New(1, 1024, 0);
    DTLogger_ShowToBuf(g_collect_param.logger, buf);
    void *p = nullptr;
    uint32_t n = DTBuf_Length(buf);
    DTBuf_Get(buf, 0, &p);
    std::string text = p ? std::string(static_cast<char *>(p), n) : std::string();
    DTBuf_Release(buf);
    return text;
}

inline uint32_t Owner100Bytes() {
    DTMemOwnerStats s{};
    DTMem_GetOwnerStats(COLLECT_OWNER, &s);
    return s.bytes;
}
// Owner 100's bytes once the agent has let go of the send buffer (it frees it
// just after closing, so give it a moment).
inline uint32_t SettledOwner100(uint32_t expected) {
    for (int i = 0; i < 200 && Owner100Bytes() != expected; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return Owner100Bytes();
}

}  // namespace ct
