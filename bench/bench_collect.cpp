// One section putting 10 MB through the agent to a collector on loopback,
// against a bare loop in the same run that sends the same 1036-byte messages
// over loopback TCP and waits for the same 16-byte acknowledgements.
// The agent prints "size=16" on standard output for every request: run with
// standard output sent elsewhere, or read the figures past those lines.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "collect/collect_api.h"
#include "collect/collect_getdata.h"

namespace {

constexpr uint32_t kBytes = 10u * 1024 * 1024;
constexpr uint32_t kPiece = COLLECT_PIECE_MAX;
// Data messages of full pieces, plus identity, list, section close and end.
constexpr uint32_t kMessages = (kBytes + kPiece - 1) / kPiece + 4;
constexpr uint32_t kMessageSize = COLLECT_HEADER_SIZE + COLLECT_PAYLOAD_MAX;

std::vector<uint8_t> &Data() {
    static std::vector<uint8_t> data(kBytes, 0x5A);
    return data;
}

CollectSection *g_bulk;
void PutBulk(uint32_t) { Collect_PutStruct(g_bulk, 1, Data().data(), kBytes); }

int Listener(uint16_t *port) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a);
    listen(s, 1);
    socklen_t len = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr *>(&a), &len);
    *port = ntohs(a.sin_port);
    return s;
}

bool ReadFull(int fd, uint8_t *p, size_t n) {
    while (n > 0) {
        ssize_t r = recv(fd, p, n, 0);
        if (r <= 0) return false;
        p += r;
        n -= size_t(r);
    }
    return true;
}

// The collector's side, the same for both: read each message whole, acknowledge it.
uint64_t Drain(int fd) {
    uint8_t msg[kMessageSize];
    uint8_t ack[16] = {};
    uint64_t bytes = 0;
    while (ReadFull(fd, msg, COLLECT_HEADER_SIZE)) {
        uint32_t len = (uint32_t(msg[0]) << 24) | (uint32_t(msg[1]) << 16) |
                       (uint32_t(msg[2]) << 8) | msg[3];
        if (len < COLLECT_HEADER_SIZE || len > kMessageSize) break;
        if (!ReadFull(fd, msg + COLLECT_HEADER_SIZE, len - COLLECT_HEADER_SIZE)) break;
        bytes += len;
        send(fd, ack, sizeof ack, MSG_NOSIGNAL);
    }
    return bytes;
}

void StartAgentOnce() {
    static bool started = false;
    if (started) return;
    started = true;
    Data();  // touched here, so no run pays for its first page faults
    g_bulk = Collect_New("bulk", PutBulk, nullptr);
    std::thread([] { Collect_Init(0x01020000); }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
}

// The collector's side, the same for both devices: request a collection from
// the device's request socket, take its connection and drain it.
void CollectFrom(benchmark::State &state, const sockaddr_in &device) {
    uint16_t port = 0;
    int lsock = Listener(&port);
    int usock = socket(AF_INET, SOCK_DGRAM, 0);
    const uint8_t req[16] = {0, 0, 0, 16, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0,
                             uint8_t(port >> 8), uint8_t(port)};
    for (auto _ : state) {
        sendto(usock, req, sizeof req, 0, reinterpret_cast<const sockaddr *>(&device), sizeof device);
        int fd = accept(lsock, nullptr, nullptr);
        benchmark::DoNotOptimize(Drain(fd));
        close(fd);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kBytes);
    close(usock);
    close(lsock);
}

void BM_Collect10MB_dtkit(benchmark::State &state) {
    StartAgentOnce();
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_port = htons(COLLECT_REQUEST_PORT);
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    CollectFrom(state, agent);
}

// The bare loop lives as the agent does: a thread of its own that waits for a
// request datagram, connects back to the port it names and streams.
void PeerLoop(int usock) {
    for (;;) {
        uint8_t req[16];
        if (recv(usock, req, sizeof req, 0) != sizeof req) continue;
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(uint16_t((req[14] << 8) | req[15]));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a);
        uint8_t msg[kMessageSize] = {0, 0, 4, 12, 0, 0, 0, 2};
        uint8_t ack[16];
        for (uint32_t i = 0; i < kMessages; i++) {
            send(s, msg, sizeof msg, MSG_NOSIGNAL);
            recv(s, ack, sizeof ack, 0);
        }
        close(s);
    }
}

void BM_Collect10MB_peer(benchmark::State &state) {
    static sockaddr_in peer{};
    static int usock = -1;
    if (usock < 0) {
        usock = socket(AF_INET, SOCK_DGRAM, 0);
        peer.sin_family = AF_INET;
        peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(usock, reinterpret_cast<sockaddr *>(&peer), sizeof peer);
        socklen_t len = sizeof peer;
        getsockname(usock, reinterpret_cast<sockaddr *>(&peer), &len);
        std::thread(PeerLoop, usock).detach();
    }
    CollectFrom(state, peer);
}

BENCHMARK(BM_Collect10MB_dtkit)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Collect10MB_peer)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
