/* dtkit growable buffer: an array of fixed-size elements, mostly used as a
 * growable text buffer (element size 1). Storage beyond what was written is
 * always zero. */
#ifndef DTKIT_DTBUF_H
#define DTKIT_DTBUF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DTBuf DTBuf;

/* New empty buffer; growStep 0 means the initial capacity. Null when memory is short.
 * Element size 0, or count * elemSize beyond 32 bits, is refused with null.
 * A growth step that ends up 0 (step and capacity both 0) grows to the exact size needed. */
DTBuf *DTBuf_New(uint32_t elemSize, uint32_t count, uint32_t growStep);
/* Appends count elements (0: src is a zero-terminated string); 1, or 0 for a null
 * buffer, a null source or no memory. The text is not zero-terminated by the append. */
int32_t DTBuf_Append(DTBuf *buf, const void *src, uint32_t count);
/* Writes count elements at index without changing the length; 1, or 0 (null buffer,
 * null source, no memory). Elements set beyond the length are lost at the next growth. */
int32_t DTBuf_Set(DTBuf *buf, uint32_t index, const void *src, uint32_t count);
/* length - index + 1 and *out = element index when index < length; else 0 and *out = null.
 * A null buffer leaves *out alone; a null out is allowed. */
int32_t DTBuf_Get(DTBuf *buf, uint32_t index, void **out);
uint32_t DTBuf_Length(DTBuf *buf);
/* Zeroes what was written and sets the length to 0; the storage keeps its size. */
void DTBuf_Clear(DTBuf *buf);
void DTBuf_Release(DTBuf *buf);

#ifdef __cplusplus
}
#endif

#endif
