// The crash save against the least a handler could do: the same bytes, ready
// in memory, written with one write (and one fsync in durable mode). 64
// faults whose init and run logs are full at 16 KiB, and 1,000 values. The
// save routine is called directly, without a signal.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "fault/DTFault_internal.h"
#include "records/DTLogger_internal.h"

extern "C" int Kybe_RawPrint(const char *format, ...) {
    (void)format;
    return 0;
}

namespace {

const char kLine[] = "link 3 down: carrier lost, retry 2 of 5 in 500ms";

std::vector<uint8_t> g_bytes;  // what one crash save writes

void Setup() {
    if (!g_bytes.empty()) return;
    DTFaultRecord *first = nullptr;
    for (int i = 0; i < 64; ++i) {
        char name[16];
        snprintf(name, sizeof name, "fault%02d", i);
        DTFaultRecord *f = DTFault_Regist(name, nullptr);
        if (first == nullptr) first = f;
        DTLogger_SetInfoSize(f->initLog, 16384);
        DTLogger_SetInfoSize(f->runLog, 16384);
        // Enough lines to go round each ring once.
        for (int line = 0; line < 400; ++line) {
            DTFault_SetInitLog(f, 1, 0, kLine);
            DTFault_SetRunLog(f, 1, 0, kLine);
        }
    }
    for (uint32_t v = 0; v < 1000; ++v) DTFault_SetCounter(first, v, v);
    DTFault_SaveOnCrash(first);
    DTFault_CrashSave_(SIGSEGV, nullptr, nullptr);
    FILE *f = fopen(DTFAULT_FILE, "rb");
    uint8_t chunk[65536];
    size_t n;
    while (f != nullptr && (n = fread(chunk, 1, sizeof chunk, f)) > 0) g_bytes.insert(g_bytes.end(), chunk, chunk + n);
    if (f != nullptr) fclose(f);
}

void Dtkit(benchmark::State &state, uint32_t durable) {
    Setup();
    DTFault_SetDurable(durable);
    for (auto _ : state) DTFault_CrashSave_(SIGSEGV, nullptr, nullptr);
    DTFault_SetDurable(0);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_bytes.size()));
}

void Peer(benchmark::State &state, bool sync) {
    Setup();
    for (auto _ : state) {
        int fd = open(DTFAULT_FILE ".peer", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (write(fd, g_bytes.data(), g_bytes.size()) != static_cast<ssize_t>(g_bytes.size())) state.SkipWithError("short write");
        if (sync) fsync(fd);
        close(fd);
    }
    unlink(DTFAULT_FILE ".peer");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_bytes.size()));
}

void BM_CrashSave_dtkit(benchmark::State &state) { Dtkit(state, 0); }
void BM_CrashSave_peer(benchmark::State &state) { Peer(state, false); }
void BM_CrashSaveDurable_dtkit(benchmark::State &state) { Dtkit(state, 1); }
void BM_CrashSaveDurable_peer(benchmark::State &state) { Peer(state, true); }
BENCHMARK(BM_CrashSave_dtkit)->UseRealTime();
BENCHMARK(BM_CrashSave_peer)->UseRealTime();
BENCHMARK(BM_CrashSaveDurable_dtkit)->UseRealTime();
BENCHMARK(BM_CrashSaveDurable_peer)->UseRealTime();

}  // namespace
