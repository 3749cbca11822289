/* dtkit timers: a process-wide list of periodic callbacks and the loop that
 * drives them, one pass every 100 ms on the thread that calls DTTimer_Loop. */
#ifndef DTKIT_DTTIMER_H
#define DTKIT_DTTIMER_H

#include <stdint.h>

#include "../containers/DTList.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DTTimer DTTimer;
/* Runs when the timer is due; returning 0 stops the timer for good. */
typedef int32_t (*DTTimerFn)(DTTimer *entry);

/* One timer. Packed to 4 because entries live in accounted memory, which is
 * only 4-byte aligned. The callback may change its own entry's fields; the
 * loop reads them afresh in every pass. Times are on the millisecond clock:
 * the microsecond counter / 1000, which starts again at 0 after 4294967. */
#pragma pack(push, 4)
struct DTTimer {
    DTTimerFn callback;
    uint32_t interval; /* least milliseconds between two runs */
    uint32_t last;     /* clock of the last run's pass, or of registration */
    int32_t status;    /* 1 active, 0 stopped */
    uint32_t times;    /* runs so far */
};
#pragma pack(pop)

/* Every registered timer in registration order; null until the first registration. */
extern DTList *g_DTTimer_List;

/* 1 when registered; 0 when the entry could not be allocated.
 * Choice: when the list itself cannot be made, 0 as well, with nothing
 * allocated; the next registration tries to make the list again. */
int32_t DTTimer_Regist(DTTimerFn callback, uint32_t interval);
/* Never returns: every 100 ms runs each active timer whose interval has passed
 * since its last run (at most once per pass, lateness never made up). */
void DTTimer_Loop(void);
/* "current tm=..." then one line per timer with a callback. */
void DTTimer_Show(void);

#ifdef __cplusplus
}
#endif

#endif
