/* What the normal save and the crash save share: where a save's bytes go,
 * the file records' layout, and the durable file steps. Not installed. */
#ifndef DTKIT_DTFAULT_INTERNAL_H
#define DTKIT_DTFAULT_INTERNAL_H

#include <stdint.h>
#include <stdio.h>

#include "fault/DTFault.h"

/* Kept out of the shared library's symbol table: only the library itself, the
 * tests and the benchmarks (linked statically) call these. */
extern "C" {
#pragma GCC visibility push(hidden)

/* Today's stdio file when file is set; otherwise a descriptor behind a buffer,
 * so that the crash save allocates nothing and calls nothing but write. */
struct DTFaultOut {
    FILE *file;
    int fd;          /* -1 once a write has failed: the rest is dropped */
    uint8_t *buf;
    uint32_t size;
    uint32_t used;
};

void DTFault_OutBytes_(DTFaultOut *o, const void *p, uint32_t n);
void DTFault_OutByte_(DTFaultOut *o, uint32_t c);
void DTFault_OutBE16_(DTFaultOut *o, uint32_t v);
/* Writes out what the buffer holds; false once any write has failed. */
bool DTFault_OutFlush_(DTFaultOut *o);
/* One log record: length, marker, space, name, space, data. Nothing when its
 * 16-bit length would wrap. */
void DTFault_PutLog_(DTFaultOut *o, const char *marker, const char *name, uint32_t n,
                     const void *data, uint32_t d);
/* One value record: length, name length + 1, kind, name, payload. Nothing when
 * its 16-bit length would wrap. */
void DTFault_PutValue_(DTFaultOut *o, uint32_t kind, const char *name, uint32_t n,
                       const void *data, uint32_t d);

extern uint32_t DTFault_durable_;
/* The descriptor a save writes to: the temporary file in durable mode, else
 * the fault file itself; -1 when it cannot be made. */
int DTFault_OpenFd_(void);
/* Flushes and closes; in durable mode fsync, rename over the fault file and
 * flush the directory. false when any step failed (the temporary file is then gone). */
bool DTFault_CloseFd_(DTFaultOut *o);

/* The save the crash handler makes, callable without a signal (the benchmark
 * and the tests): info and context may be null. */
void DTFault_CrashSave_(int sig, const void *info, const void *context);

#pragma GCC visibility pop
}

#endif
