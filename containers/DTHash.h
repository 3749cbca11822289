/* Hash table of fixed-length raw-byte keys and values over a fixed number of
 * bucket lists. A static table takes its entries from the never-released
 * pool: nothing is ever deleted from it and it is never released. */
#ifndef DTKIT_DTHASH_H
#define DTKIT_DTHASH_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DTHash DTHash;

/* Any number; the table reduces it modulo bucketCount itself. */
typedef uint32_t (*DTHashFn)(const void *key, uint32_t keyLen, uint32_t bucketCount);
/* 0 accepts the entry and ends the search. */
typedef int32_t (*DTHashVisitFn)(const void *key, void *value, void *arg);

/* Null hashFn selects DTMD5_Hash; null when memory is short.
 * Choice: 0 buckets makes a table that stays empty (Set refuses, Get/Find miss);
 * key + value lengths, or a bucket array, too large for 32 bits are refused (null). */
DTHash *DTHash_NewEx(uint32_t keyLen, uint32_t valueLen, uint32_t bucketCount, DTHashFn hashFn,
                     uint32_t isStatic);
DTHash *DTHash_New(uint32_t keyLen, uint32_t valueLen, uint32_t bucketCount, DTHashFn hashFn);
/* 1 when added or replaced, 0 on failure. Choice: a null key or value is refused (0). */
int32_t DTHash_Set(DTHash *h, const void *key, const void *value);
/* 1 and *value = the entry's own value bytes (writable in place), else 0 and *value = null.
 * A null table leaves *value alone. Choice: a null key is a miss; a null out is ignored. */
int32_t DTHash_Get(DTHash *h, const void *key, void **value);
/* Removes and frees the key's entry; a static table keeps it. Choice: a null key does nothing. */
void DTHash_Delete(DTHash *h, const void *key);
/* Buckets from 0 up, each newest first: the first entry's key bytes that visit accepts, or 0.
 * Choice: a null visit function finds nothing (0). */
void *DTHash_Find(DTHash *h, DTHashVisitFn visit, void *arg);
/* Dumps every entry, key and value, one console line at a time. */
void DTHash_Show(DTHash *h);
/* One "pos=%d,length=%d" line per bucket that has a list, emptied ones included. */
void DTHash_ShowDepth(DTHash *h);
/* Frees entries, bucket lists and the table; a static table is left intact. */
void DTHash_Release(DTHash *h);

#ifdef __cplusplus
}
#endif

#endif
