/* dtkit clock: wall-clock seconds, a wrapping microsecond counter, a
 * millisecond sleep and a small pattern language for time stamps. */
#ifndef DTKIT_DTTIME_H
#define DTKIT_DTTIME_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* time(NULL) + offset, 32-bit wrap-around addition. */
int32_t DTTime_GetTime(int32_t offset);
int32_t DTTime_Now(void);
/* Low 32 bits of the microseconds since 1970; subtract readings as uint32_t. */
uint32_t DTTime_GetUTime(void);
/* One usleep(ms * 1000); a sleep cut short by a signal is not resumed and not reported. */
void DTTime_Sleep(uint32_t ms);
/* Tokens YYYY YY yy MM mm DD dd HH hh MI mi SS ss; t == 0 means now. The
 * output never exceeds the pattern length for years 1000..9999. */
char *DTTime_Format(char *buf, const char *pattern, int32_t t);

#ifdef __cplusplus
}
#endif

#endif
