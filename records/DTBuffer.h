/* dtkit pack format: fields back to back, integers big-endian, described
 * by a format string of the letters B b H h I i T S s (digits before S/s
 * give their byte count). */
#ifndef DTKIT_DTBUFFER_H
#define DTKIT_DTBUFFER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Integer fields take int-promoted values, S/s a pointer; null dst returns 0.
 * A null S/s source packs zeros, and a count prefix too large for 32 bits (above
 * 2147483647, however many digits) makes an empty field, in all three operations alike. */
uint32_t DTBuffer_Pack(void *dst, const char *fmt, ...);
/* Bytes the format describes; *fields (if given) gets the number of fields.
 * A format whose total would pass 32 bits is refused whole by all three operations:
 * size 0 and 0 fields here, nothing written by Pack, nothing read or printed by UNPack (0). */
uint32_t DTBuffer_GetPackSize(const char *fmt, uint32_t *fields);
/* Extract mode: one pointer per field (S/s need count + 1 bytes); a null
 * source walks nothing and returns 0. A leading "*" selects dump mode, which
 * prints the fields instead of storing them.
 * Long s/S in dump mode: shown whole, in pieces (s text straight to the print buffer, S hex 3264 bytes per piece); never cut.
 * H in dump mode: always four hex digits (0x8000 shows as 0x8000, no FFFF sign extension). */
int32_t DTBuffer_UNPack(const char *fmt, const void *src, ...);

#ifdef __cplusplus
}
#endif

#endif
