// A C host that keeps the library's default platform layer. A delay waits
// its milliseconds, and console text is out at once: the host ends without
// flushing anything, as a crashing process would. A delay off by a millisecond
// (the split into seconds at 1001) is within what a clock here can tell.
#define _POSIX_C_SOURCE 200112L
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "dtkit.h"

int main(void) {
    struct timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    Kybe_Delay(1250);
    clock_gettime(CLOCK_MONOTONIC, &b);
    double waited = (double)(b.tv_sec - a.tv_sec) + (double)(b.tv_nsec - a.tv_nsec) / 1e9;
    if (waited < 1.2 || waited > 5.0) {
        fprintf(stderr, "Kybe_Delay(1250) took %.3f s\n", waited);
        return 1;
    }
    DTPrint_Puts("default console", 0);
    _exit(0);
}
