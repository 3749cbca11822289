// Weak defaults of the host platform layer. The only place in the library
// that may touch the C allocator or standard output directly.
#include "platform/DTPlatform.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

extern "C" {

__attribute__((weak)) void *Kybe_Malloc(uint32_t size) { return malloc(size); }

__attribute__((weak)) void Kybe_Free(void *ptr) { free(ptr); }

__attribute__((weak)) int Kybe_RawPrint(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = vprintf(format, ap);
    va_end(ap);
    fflush(stdout);
    return n;
}

__attribute__((weak)) void Kybe_Delay(uint32_t units) {
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(units / 1000u);
    ts.tv_nsec = static_cast<long>(units % 1000u) * 1000000L;
    nanosleep(&ts, nullptr);
}

__attribute__((weak)) int Lumo_snprintf(char *buffer, size_t size, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(buffer, size, format, ap);
    va_end(ap);
    return n;
}

}  // extern "C"
