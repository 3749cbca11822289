// Fault logging and counter recording against what a host would use
// instead: a single-threaded ring-buffer log sink, and a bare big-endian
// append into a byte ring. Console muted, the library's standard output
// sent to /dev/null, as on a board whose console is not watched.
#include <benchmark/benchmark.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "fault/DTFault.h"

extern "C" int Kybe_RawPrint(const char *format, ...) {
    (void)format;
    return 0;
}

namespace {

// The library's "size" and growth lines go to stdout; the benchmark's own
// report goes to std::cout, which keeps the stream it was made with, so
// swapping the stdout handle silences the one and keeps the other.
struct MuteStdout {
    MuteStdout() {
        FILE *null = fopen("/dev/null", "w");
        if (null != nullptr) stdout = null;
    }
} g_mute;

// 48 characters, as a typical run-log line.
const char kLine[] = "link 3 down: carrier lost, retry 2 of 5 in 500ms";
static_assert(sizeof(kLine) - 1 == 48, "the measured line is 48 bytes");

// Enough lines to fill a 1 MiB run log several times over, so that every
// measured line erases old ones.
const int kWarmLines = 60000;

void BM_SetRunLog_dtkit(benchmark::State &state) {
    static DTFaultRecord *fault = DTFault_Regist("bench", nullptr);
    for (int i = 0; i < kWarmLines; ++i) DTFault_SetRunLog(fault, 1, 0, kLine);
    for (auto _ : state) DTFault_SetRunLog(fault, 1, 0, kLine);
}
BENCHMARK(BM_SetRunLog_dtkit);

void BM_SetRunLog_peer(benchmark::State &state) {
    auto sink = std::make_shared<spdlog::sinks::ringbuffer_sink_st>(1024);
    sink->set_pattern("%m/%d %H:%M:%S %v");
    spdlog::logger logger("bench", sink);
    for (int i = 0; i < kWarmLines; ++i) logger.info(kLine);
    for (auto _ : state) logger.info(kLine);
}
BENCHMARK(BM_SetRunLog_peer);

void BM_SetCounter_dtkit(benchmark::State &state) {
    static DTFaultRecord *fault = DTFault_Regist("counter", nullptr);
    uint32_t value = 0;
    // Warm: the value store exists and has grown to its limit.
    for (int i = 0; i < 1000000; ++i) DTFault_SetCounter(fault, 7, value++);
    for (auto _ : state) DTFault_SetCounter(fault, 7, value++);
}
BENCHMARK(BM_SetCounter_dtkit);

// As large as the fault value store (10 MiB), so both sides stream through
// the same amount of memory.
struct ByteRing {
    uint8_t bytes[10485760];
    uint32_t at;
};

// A record of the same 13 bytes as a counter's: key length, 2-byte key,
// 16-bit payload length, id and value, all big-endian.
__attribute__((noinline)) void RingAppend(ByteRing *ring, uint8_t index, uint32_t id, uint32_t value) {
    if (ring->at + 13 > sizeof ring->bytes) ring->at = 0;
    uint8_t *p = ring->bytes + ring->at;
    p[0] = 2;
    p[1] = 3;
    p[2] = index;
    p[3] = 0;
    p[4] = 8;
    p[5] = static_cast<uint8_t>(id >> 24);
    p[6] = static_cast<uint8_t>(id >> 16);
    p[7] = static_cast<uint8_t>(id >> 8);
    p[8] = static_cast<uint8_t>(id);
    p[9] = static_cast<uint8_t>(value >> 24);
    p[10] = static_cast<uint8_t>(value >> 16);
    p[11] = static_cast<uint8_t>(value >> 8);
    p[12] = static_cast<uint8_t>(value);
    ring->at += 13;
}

void BM_SetCounter_peer(benchmark::State &state) {
    static ByteRing ring;
    uint32_t value = 0;
    for (auto _ : state) {
        RingAppend(&ring, 1, 7, value++);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_SetCounter_peer);

}  // namespace
