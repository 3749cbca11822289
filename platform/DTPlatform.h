/* dtkit platform layer: the five functions the host process supplies.
 * The library ships weak defaults (standard C library); a host that defines
 * any of them replaces the default at link time, static or shared. */
#ifndef DTKIT_DTPLATFORM_H
#define DTKIT_DTPLATFORM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Raw memory; must return memory aligned to at least 4 bytes, or null. Default: malloc. */
void *Kybe_Malloc(uint32_t size);
/* Releases exactly what Kybe_Malloc returned. Default: free. */
void Kybe_Free(void *ptr);
/* printf-like output to the raw console, adding nothing. Default: standard output. */
int Kybe_RawPrint(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* Pauses the calling thread. Default: the units are milliseconds. */
void Kybe_Delay(uint32_t units);
/* Bounded formatted print. Default: vsnprintf. */
int Lumo_snprintf(char *buffer, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
