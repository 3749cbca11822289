/* Print buffer: gathers text in a caller's buffer and hands whole runs to the
 * raw console, one Kybe_RawPrint("%s", text) call per hand-over. */
#ifndef DTKIT_DTPRINT_H
#define DTKIT_DTPRINT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DTPrint DTPrint;

/* New print object (printOn 1) over buffer, or null.
 * Choice: a null buffer or a capacity below 2 is refused (null), since no character could ever fit. */
DTPrint *DTPrint_New(char *buffer, int32_t capacity);
/* Flushes, then releases the object (never the buffer). */
void DTPrint_Release(DTPrint *p);
void DTPrint_SetPrint(DTPrint *p, uint32_t on);
void DTPrint_PrintCh(DTPrint *p, int32_t ch, int32_t count);
/* Appends s count times; a string never fits cut, it goes whole to the buffer or the console. */
void DTPrint_Print(DTPrint *p, const char *s, int32_t count);
/* Hands the gathered text to the console; with printing off the text stays gathered. */
void DTPrint_Flush(DTPrint *p);

/* Writes text through the module's own print object, one console call per line;
 * len 0 means up to the terminating zero, a negative len shows nothing. */
void DTPrint_Show(const char *text, int32_t len);
/* DTPrint_Show, then a newline. */
void DTPrint_Puts(const char *text, int32_t len);
/* DTPrint_Show, then a flush of everything gathered. */
void DTPrint_ShowEx(const char *text, int32_t len);

#ifdef __cplusplus
}
#endif

#endif
