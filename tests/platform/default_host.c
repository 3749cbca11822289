// A C host that keeps the library's default platform layer. A delay waits
// its milliseconds, and console text is out at once: the host ends without
// flushing anything, as a crashing process would. A delay off by a millisecond
// (or a nanosecond per millisecond: 1000001 in place of 1000000) is within what
// a clock here can tell; a whole second lost in the split into seconds and
// milliseconds is not.
#define _POSIX_C_SOURCE 200112L
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "dtkit.h"

int main(void) {
    // 1250 needs its milliseconds part; exactly 1000 is all seconds, none left over.
    const uint32_t delays[] = {1250, 1000};
    for (int i = 0; i < 2; ++i) {
        struct timespec a, b;
        clock_gettime(CLOCK_MONOTONIC, &a);
        Kybe_Delay(delays[i]);
        clock_gettime(CLOCK_MONOTONIC, &b);
        double waited = (double)(b.tv_sec - a.tv_sec) + (double)(b.tv_nsec - a.tv_nsec) / 1e9;
        if (waited < delays[i] / 1000.0 - 0.05 || waited > 5.0) {
            fprintf(stderr, "Kybe_Delay(%u) took %.3f s\n", (unsigned)delays[i], waited);
            return 1;
        }
    }
    DTPrint_Puts("default console", 0);
    _exit(0);
}
