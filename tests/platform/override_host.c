// A C host that supplies its own console and allocator. Built twice, against
// the static and the shared library: both must call these, not the library's
// weak defaults.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dtkit.h"

static int g_mallocs;
static char g_last[64];

int Kybe_RawPrint(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(g_last, sizeof g_last, format, ap);
    va_end(ap);
    return n;
}

void *Kybe_Malloc(uint32_t size) {
    ++g_mallocs;
    return malloc(size);
}

int main(void) {
    DTMem_LocalFree(DTMem_LocalMalloc(8));
    DTPrint_Puts("host console", 0);
    if (g_mallocs < 1 || strcmp(g_last, "host console\n") != 0) {
        fprintf(stderr, "host overrides not called: mallocs=%d last=[%s]\n", g_mallocs, g_last);
        return 1;
    }
    return 0;
}
