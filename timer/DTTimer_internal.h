/* The timer loop's steps with the clock reading passed in, so that the firing
 * rule can be driven by a clock the caller controls (the wrap included). */
#ifndef DTKIT_DTTIMER_INTERNAL_H
#define DTKIT_DTTIMER_INTERNAL_H

#include <stdint.h>

#include "DTTimer.h"

#ifdef __cplusplus
extern "C" {
#endif
/* Kept out of the shared library's symbol table: only the library itself, the
 * tests and the fuzz targets (both linked statically) call these. */
#pragma GCC visibility push(hidden)

/* The millisecond clock: DTTime_GetUTime() / 1000. */
uint32_t DTTimer_Clock_(void);
/* DTTimer_Regist with now as the registration time. */
int32_t DTTimer_RegistAt_(DTTimerFn callback, uint32_t interval, uint32_t now);
/* One pass of the loop at clock reading now, without the sleep. */
void DTTimer_PassAt_(uint32_t now);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
