#include "dttest.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <numeric>

#include "platform/DTPlatform.h"

namespace {
std::vector<std::string> g_console;
std::vector<uint32_t> g_delays;
uint32_t g_mallocCalls = 0;
uint32_t g_failAt = 0;    // absolute call number that fails, 0 = none
int64_t g_live = 0;
}  // namespace

namespace dttest {
const std::vector<std::string> &Console() { return g_console; }
std::string ConsoleText() { return std::accumulate(g_console.begin(), g_console.end(), std::string()); }
void ClearConsole() { g_console.clear(); }
void FailMallocAt(uint32_t k) { g_failAt = k ? g_mallocCalls + k : 0; }
uint32_t MallocCalls() { return g_mallocCalls; }
int64_t LiveBlocks() { return g_live; }
const std::vector<uint32_t> &Delays() { return g_delays; }
void ClearDelays() { g_delays.clear(); }
}  // namespace dttest

extern "C" {

#if defined(__SANITIZE_ADDRESS__)
// The library keeps pointers in 4-byte-aligned blocks on 64-bit hosts, which
// the leak checker only follows with use_unaligned; the static pool is never
// given back by design.
const char *__asan_default_options() { return "detect_leaks=1"; }
const char *__lsan_default_options() {
    return "use_unaligned=1:suppressions=" DTKIT_LSAN_SUPPRESSIONS;
}
const char *__ubsan_default_options() { return "halt_on_error=1:print_stacktrace=1"; }
#endif

void *Kybe_Malloc(uint32_t size) {
    ++g_mallocCalls;
    if (g_failAt && g_mallocCalls == g_failAt) return nullptr;
    void *p = malloc(size ? size : 1);
    if (p) ++g_live;
    return p;
}

void Kybe_Free(void *ptr) {
    if (ptr) --g_live;
    free(ptr);
}

int Kybe_RawPrint(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    char *s = nullptr;
    int n = vasprintf(&s, format, ap);
    va_end(ap);
    g_console.push_back(n > 0 ? s : "");
    if (n >= 0) free(s);
    return n;
}

void Kybe_Delay(uint32_t units) { g_delays.push_back(units); }

}  // extern "C"
