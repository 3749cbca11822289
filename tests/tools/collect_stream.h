// Device streams byte by byte, and a scripted device on a loopback address,
// for the collector's tests.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

namespace cs {

using Bytes = std::vector<uint8_t>;

inline Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes b;
    for (const Bytes &p : parts) b.insert(b.end(), p.begin(), p.end());
    return b;
}
inline Bytes Be(uint64_t v, int n) {
    Bytes b;
    for (int i = n - 1; i >= 0; --i) b.push_back(uint8_t(v >> (8 * i)));
    return b;
}
inline Bytes Msg(uint32_t type, const Bytes &payload, uint32_t seq, uint32_t len = 0) {
    return Cat({Be(len ? len : 12 + payload.size(), 4), Be(type, 4), Be(seq, 4), payload});
}
inline Bytes Head(uint8_t kind, uint32_t section, uint32_t block, uint32_t code) {
    return Cat({{kind}, Be(section, 4), Be(block, 4), Be(code, 4)});
}
inline Bytes Num(uint8_t kind, uint32_t section, uint32_t block, uint32_t code, uint64_t v) {
    return Cat({Head(kind, section, block, code), Be(v, kind == 0x81 ? 4 : 8)});
}
inline Bytes Piece(uint8_t kind, uint32_t section, uint32_t block, uint32_t code, const std::string &data) {
    return Cat({Head(kind, section, block, code), Be(data.size(), 2), Bytes(data.begin(), data.end())});
}
inline Bytes Entry(uint32_t index, const std::string &name) {
    return Cat({Be(index, 4), Be(name.size(), 2), Bytes(name.begin(), name.end())});
}
inline Bytes Identity(uint32_t seq) { return Msg(0, {1, 2, 0, 0}, seq); }

inline bool Readable(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

// A device's request socket on 127.0.0.x, port `port` (0: the system's choice).
struct Device {
    int udp = socket(AF_INET, SOCK_DGRAM, 0);
    uint16_t port = 0;
    uint32_t request[4] = {};  // length, type, sequence, port of the last request
    uint32_t &sequence = request[2], &replyPort = request[3];

    Device(const char *address, uint16_t p) {
        sockaddr_in a{AF_INET, htons(p), {inet_addr(address)}, {}};
        socklen_t len = sizeof a;
        bind(udp, reinterpret_cast<sockaddr *>(&a), sizeof a);
        getsockname(udp, reinterpret_cast<sockaddr *>(&a), &len);
        port = ntohs(a.sin_port);
    }
    ~Device() { close(udp); }
    // The next request within ms; false when none came.
    bool Receive(int ms) {
        if (!Readable(udp, ms) || recv(udp, request, sizeof request, 0) != 16) return false;
        for (uint32_t &w : request) w = ntohl(w);
        return true;
    }
};

inline int Connect(uint32_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, htons(uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}};
    connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    return fd;
}

// Sends each message and waits (at most 2 s) for its 16-byte acknowledgement;
// false when one does not come.
inline bool Play(int fd, const std::vector<Bytes> &messages) {
    for (const Bytes &m : messages) {
        uint8_t ack[16];
        bool sent = send(fd, m.data(), m.size(), MSG_NOSIGNAL) == ssize_t(m.size());
        if (!sent || !Readable(fd, 2000) || recv(fd, ack, sizeof ack, MSG_WAITALL) != 16) return false;
    }
    return true;
}

// True when the other end closes fd within ms.
inline bool ClosedWithin(int fd, int ms) {
    uint8_t b[64];
    return Readable(fd, ms) && recv(fd, b, sizeof b, 0) == 0;
}

}  // namespace cs
