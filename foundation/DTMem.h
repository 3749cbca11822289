/* Accounted memory: every block is counted against an owner id (its low
 * 8 bits), a never-released static pool, and sized memory objects with
 * bounds-limited offset operations. */
#ifndef DTKIT_DTMEM_H
#define DTKIT_DTMEM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sized memory object. Packed to 4 because it lives behind a 4-byte size
 * header, so nothing may assume more than 4-byte alignment. The flexible
 * member is standard C99; __extension__ keeps pedantic C++ builds quiet. */
#pragma pack(push, 4)
typedef struct DTMemBlock {
    uint32_t size;     /* number of data bytes */
    uint32_t isStatic; /* nonzero: carved from the static pool, never released */
    __extension__ uint8_t data[]; /* size bytes, not cleared on creation */
} DTMemBlock;
#pragma pack(pop)

/* Counted block of size bytes under slot owner & 0xFF, or null.
 * Choice: a size that would wrap size + 4 past 2^32 is refused (null, nothing counted). */
void *DTMem_Malloc(uint32_t owner, uint32_t size);
/* Null is ignored. Choice: a pointer into a pool chunk (pool block, static object) is
 * ignored, nothing freed or counted; the first 64 chunks are recognised. */
void DTMem_Free(uint32_t owner, void *p);
void *DTMem_LocalMalloc(uint32_t size);
void DTMem_LocalFree(void *p);

/* Never-released block of at least size bytes (raised to a multiple of 4), or null.
 * Choice: sizes that would wrap when rounded up are refused (null). */
void *DTMem_Malloc_Static(uint32_t owner, uint32_t size);
void *DTMem_LocalMalloc_Static(uint32_t size);

/* New object with size data bytes, or null.
 * Choice: a size that would wrap size + 8 past 2^32 is refused (null). */
DTMemBlock *DTMem_New(uint32_t size, uint32_t isStatic);
/* Releases m unless it is null or static. */
void DTMem_Release(DTMemBlock *m);
/* The object to use from now on, or null (m then stays valid).
 * Choice: a shrink copies only newSize bytes, so it never writes past the new object. */
DTMemBlock *DTMem_realloc(DTMemBlock *m, uint32_t newSize);

/* data + offset, or null when m is null or offset >= size. */
void *DTMem_Get(DTMemBlock *m, uint32_t offset);
/* Bytes copied out; a range past the end is cut at the end of the data. */
uint32_t DTMem_memget(DTMemBlock *m, uint32_t offset, void *dst, uint32_t len);
/* Bytes copied in; a range past the end is cut at the end of the data. */
uint32_t DTMem_memcpy(DTMemBlock *m, uint32_t offset, const void *src, uint32_t len);
/* Fills with the low byte of value; a range past the end is cut at the end of the data. */
void DTMem_memset(DTMemBlock *m, uint32_t offset, int32_t value, uint32_t len);
/* -1 when m or other is null or offset >= size, else memcmp's result.
 * Choice: a range running past the end of the data returns -1 without reading. */
int32_t DTMem_memcmp(DTMemBlock *m, uint32_t offset, const void *other, uint32_t len);

/* Prints the per-owner accounting table and the static pool counters. */
void DTMem_Show(void);

/* One owner slot's accounting, the figures DTMem_Show prints on its row. */
typedef struct DTMemOwnerStats {
    uint32_t bytes;    /* bytes held, each block's 4-byte header included */
    uint32_t mallocs;  /* allocations counted */
    uint32_t frees;    /* releases counted */
} DTMemOwnerStats;

/* The static pool's figures, as DTMem_Show prints them. */
typedef struct DTMemPoolStats {
    uint32_t left;     /* bytes still free in the current chunk */
    uint32_t chunks;   /* chunks taken from the heap */
    uint32_t mallocs;  /* blocks carved from the pool */
} DTMemPoolStats;

/* Fills out with slot owner & 0xFF's figures; 0, or -1 when out is null.
 * Choice: any owner value is accepted and folded to its slot, as DTMem_Malloc does. */
int32_t DTMem_GetOwnerStats(uint32_t owner, DTMemOwnerStats *out);
/* Fills out with the static pool's figures; 0, or -1 when out is null. */
int32_t DTMem_GetPoolStats(DTMemPoolStats *out);

#ifdef __cplusplus
}
#endif

#endif
