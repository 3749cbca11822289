/* String helpers: formatting into a caller's or a shared buffer, hex dumps,
 * in-place splitting. */
#ifndef DTKIT_DTSTRING_H
#define DTKIT_DTSTRING_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Formats into buf and returns buf; the caller's buffer must hold the text. */
char *DTString_Format(char *buf, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
/* Formats into a shared 1000-byte buffer, overwritten by the next call.
 * Choice: longer output is cut at 999 characters, always zero-terminated. */
char *DTString_SFormat(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
/* "%02X " per byte, a newline after every 16th byte that has a successor.
 * out must hold 3 * len + (len - 1) / 16 + 1 bytes; len <= 0 gives "". */
char *DTString_HFormat(char *out, const void *bytes, int32_t len);
/* HFormat into a shared 10000-byte buffer, overwritten by the next call.
 * Choice: len above 3265 is dumped only up to 3265 bytes, so the buffer never overflows. */
char *DTString_SHFormat(const void *bytes, int32_t len);
/* Splits str in place at sep, storing part pointers; max 0 means no limit. 0 for null str/sep.
 * Choice: back-to-back separators give an empty part (every separator splits);
 * a trailing separator gives a counted and stored empty part;
 * an empty separator does not split (1 part); a null parts array returns 0. */
int32_t DTString_Split(char *str, const char *sep, char **parts, int32_t max);
/* Choice: the trims leave the string unchanged and ignore the second word. */
void DTString_LTrim(char *str, uint32_t word);
void DTString_RTrim(char *str, uint32_t word);
void DTString_Trim(char *str, uint32_t word);

#ifdef __cplusplus
}
#endif

#endif
