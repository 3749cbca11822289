// Device streams byte by byte, and a scripted device on a loopback address,
// for the collector's tests.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <initializer_list>
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
inline Bytes S(const std::string &s) { return Bytes(s.begin(), s.end()); }
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
    return Cat({Head(kind, section, block, code), Be(data.size(), 2), S(data)});
}
inline Bytes Entry(uint32_t index, const std::string &name) {
    return Cat({Be(index, 4), Be(name.size(), 2), S(name)});
}
inline Bytes Identity(uint32_t seq) { return Msg(0, {1, 2, 0, 0}, seq); }

inline uint32_t Be32(const uint8_t *p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

inline bool Readable(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

// A device's request socket on 127.0.0.x, port `port` (0: the system's choice).
struct Device {
    int udp = -1;
    uint16_t port = 0;
    uint32_t type = 0, sequence = 0, replyPort = 0;

    Device(const char *address, uint16_t p) {
        udp = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(p);
        inet_pton(AF_INET, address, &a.sin_addr);
        socklen_t len = sizeof a;
        bind(udp, reinterpret_cast<sockaddr *>(&a), sizeof a);
        getsockname(udp, reinterpret_cast<sockaddr *>(&a), &len);
        port = ntohs(a.sin_port);
    }
    ~Device() { close(udp); }
    // The next request within ms; false when none came.
    bool Receive(int ms) {
        uint8_t r[16];
        if (!Readable(udp, ms) || recv(udp, r, sizeof r, 0) != 16) return false;
        type = Be32(r + 4);
        sequence = Be32(r + 8);
        replyPort = Be32(r + 12);
        return true;
    }
};

inline int Connect(uint32_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Sends each message and waits (at most 2 s) for its 16-byte acknowledgement;
// false when one does not come.
inline bool Play(int fd, const std::vector<Bytes> &messages) {
    for (const Bytes &m : messages) {
        uint8_t ack[16];
        if (send(fd, m.data(), m.size(), MSG_NOSIGNAL) != ssize_t(m.size())) return false;
        if (!Readable(fd, 2000) || recv(fd, ack, sizeof ack, MSG_WAITALL) != 16) return false;
    }
    return true;
}

// True when the other end closes fd within ms.
inline bool ClosedWithin(int fd, int ms) {
    uint8_t b[64];
    return Readable(fd, ms) && recv(fd, b, sizeof b, 0) == 0;
}

}  // namespace cs
