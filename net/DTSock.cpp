#include "net/DTSock.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

void SetBroadcast_(int32_t sock, int on) {
    // The result is not examined: a socket that refuses the switch fails at sendto.
    (void)setsockopt(sock, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
}

sockaddr_in Address_(in_addr_t addr, int32_t port) {
    sockaddr_in sa;
    memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    sa.sin_addr.s_addr = addr;
    return sa;
}

// 1 when sock is readable, 0 on time-out or error. An fd_set holds
// descriptors 0..FD_SETSIZE-1 only; anything else counts as a failed wait
// rather than writing past the set.
int Wait_(int32_t sock, int32_t timeoutMs) {
    if (sock < 0 || sock >= FD_SETSIZE) return 0;
    // A negative limit is an error to select; no platform gets to read it as a wait.
    if (timeoutMs < -1) return 0;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(sock, &readable);
    timeval limit;
    limit.tv_sec = timeoutMs / 1000;
    limit.tv_usec = (timeoutMs % 1000) * 1000;
    int n = select(sock + 1, &readable, nullptr, nullptr, timeoutMs == -1 ? nullptr : &limit);
    return n > 0 ? 1 : 0;
}

}  // namespace

extern "C" {

int32_t DTSock_UDP_Create(const char *addr, int32_t port) {
    int32_t sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (port <= 0 || !addr) return sock;
    sockaddr_in sa = Address_(inet_addr(addr), port);
    if (bind(sock, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == -1) {
        DTSock_UDP_Close(sock);
        return -1;
    }
    return sock;
}

int32_t DTSock_UDP_SendMessage(int32_t sock, const char *addr, int32_t port, const void *data,
                               int32_t len) {
    if (!addr) return 0;
    const char *bytes = static_cast<const char *>(data);
    if (!bytes || bytes[0] == 0 || port < 0 || len < 0) return -1;
    in_addr_t to;
    if (strcmp(addr, DTSOCK_BROADCAST) == 0) {
        SetBroadcast_(sock, 1);
        to = inet_addr("255.255.255.255");
    } else {
        SetBroadcast_(sock, 0);
        to = inet_addr(addr);
    }
    sockaddr_in sa = Address_(to, port);
    return static_cast<int32_t>(
        sendto(sock, bytes, static_cast<size_t>(len), 0, reinterpret_cast<sockaddr *>(&sa), sizeof sa));
}

int32_t DTSock_UDP_RecvMessage(int32_t sock, char *fromAddr, int32_t *fromPort, void *buf,
                               int32_t size) {
    if (!buf) return -1;
    if (size < 0) size = 0;
    sockaddr_in from;
    memset(&from, 0, sizeof from);
    socklen_t fromLen = sizeof from;
    ssize_t n = recvfrom(sock, buf, static_cast<size_t>(size), 0, reinterpret_cast<sockaddr *>(&from),
                         &fromLen);
    if (n < 0) return -1;
    if (fromAddr) {
        // inet_ntoa's text is at most "255.255.255.255": 16 bytes with its terminator.
        const char *dotted = inet_ntoa(from.sin_addr);
        size_t k = strnlen(dotted, 15);
        memcpy(fromAddr, dotted, k);
        fromAddr[k] = 0;
    }
    if (fromPort) *fromPort = ntohs(from.sin_port);
    static_cast<char *>(buf)[n] = 0;
    return static_cast<int32_t>(n);
}

int32_t DTSock_UDP_GetMessage(int32_t sock, char *addr, int32_t *port, void *data, int32_t len,
                              int32_t size, int32_t timeoutMs) {
    if (!addr || !port || !data) return 0;
    int32_t sent = DTSock_UDP_SendMessage(sock, addr, *port, data, len);
    if (sent < 0) return sent;
    if (!Wait_(sock, timeoutMs)) return 0;
    return DTSock_UDP_RecvMessage(sock, addr, port, data, size);
}

void DTSock_UDP_Close(int32_t sock) {
    if (sock >= 0) close(sock);
}

}  // extern "C"
