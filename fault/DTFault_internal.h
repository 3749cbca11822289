/* What the normal save and the crash save share: the durable file steps.
 * Not installed. */
#ifndef DTKIT_DTFAULT_INTERNAL_H
#define DTKIT_DTFAULT_INTERNAL_H

#include <stdint.h>

#include "fault/DTFault.h"

/* The file a durable save writes before it renames it over the fault file. */
#define DTFAULT_TEMP_FILE DTFAULT_FILE ".tmp"

extern "C" {
/* Kept out of the shared library's symbol table: only the library itself, the
 * tests and the benchmarks (linked statically) call these. */
#pragma GCC visibility push(hidden)

extern uint32_t DTFault_durable_;
/* The temporary file, flushed and closed: renamed over the fault file and the
 * directory flushed when written is true, else removed. */
void DTFault_Publish_(bool written);
/* The save the crash handler makes, callable without a signal (the benchmark
 * and the tests): info and context may be null. */
void DTFault_CrashSave_(int sig, const void *info, const void *context);

#pragma GCC visibility pop
}

#endif
