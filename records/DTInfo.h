/* dtkit info store: variable-length framed records (key, data) laid end to end
 * in one area that grows up to maxsize and then works as a ring, erasing whole
 * oldest records. Framing: key length (1 byte), key, data length (2 bytes,
 * big-endian), data. Also the self-describing packed records (AddInfo kind). */
#ifndef DTKIT_DTINFO_H
#define DTKIT_DTINFO_H

#include <stdint.h>

#include "../foundation/DTMem.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Cursor value that starts a walk at the oldest record. */
#define DTINFO_START 0xFFFFFFFFu
/* Number of per-id flags; ids 0 .. DTINFO_FLAG_COUNT-1. */
#define DTINFO_FLAG_COUNT 2000

#pragma pack(push, 4)
/* Complete on purpose: a host that uses DTInfo_PackPre writes the data at
 * memory->data + freeAddr itself and then advances freeAddr / reduces freesize. */
typedef struct DTInfo {
    DTMemBlock *memory; /* record area; memory->size is the capacity */
    uint32_t maxsize;   /* multiple of 1024; 0 = no limit */
    uint32_t freeAddr;  /* where the next record goes */
    uint32_t useAddr;   /* oldest record */
    uint32_t freesize;  /* free bytes following freeAddr without a break */
    uint32_t ignore;    /* not 0: writes are dropped */
    uint8_t flags[250]; /* id n is bit (n % 8) of byte n / 8 */
} DTInfo;
#pragma pack(pop)

/* New store with a 1024-byte area; maxsize is raised to a multiple of 1024 (0 = no limit). */
DTInfo *DTInfo_New(uint32_t maxsize);
void DTInfo_Release(DTInfo *info);
/* Drops every record; flags and ignore stay. */
void DTInfo_Clear(DTInfo *info);
/* 1, or 0 for a null store or when no area can be had (the store is then left without area).
 * maxsize above 0xFFFFFC00 is taken as 0xFFFFFC00. */
int32_t DTInfo_ReSize(DTInfo *info, uint32_t maxsize);
void DTInfo_Ignore(DTInfo *info, uint32_t value);
/* action 1: flag id on; 2: all on; 3: all off; other: flag id off. No-op for id > 1999. */
void DTInfo_SetFlag(DTInfo *info, uint32_t id, uint32_t action);
/* The flag's bit; 1 for any id above 1999. A null store answers 0. */
int32_t DTInfo_GetFlag(DTInfo *info, uint32_t id);

/* Stores one record: its size 3 + keyLen + dataLen; 0 when ignoring; -1 on a null store,
 * no area, a damaged header or no room. A key length of 255 (the free-space mark) is refused
 * with -1, as is a null key or data pointer with a non-zero length.
 * When the area cannot be enlarged the old area stays as it was and the write is refused. */
int32_t DTInfo_Append(DTInfo *info, const void *key, uint8_t keyLen, const void *data,
                      uint16_t dataLen);
/* DTInfo_Append of two texts, lengths taken modulo 256 / 65536 (null text = empty);
 * a key of exactly 255 characters is therefore refused with -1. */
int32_t DTInfo_Write(DTInfo *info, const char *key, const char *data);
/* One record whose data is part1 then part2; 1 when stored or ignoring, 0 otherwise.
 * A data length sum above 65535 or a key length of 255 is refused with 0. */
int32_t DTInfo_Append2Message(DTInfo *info, const void *key, uint8_t keyLen, const void *part1,
                              uint16_t len1, const void *part2, uint16_t len2);
/* Walks the records oldest first. filter: null = none, filterLen 0 = strlen(filter); a record
 * matches when its key begins with the filter. *cursor = DTINFO_START starts a walk. 1 when
 * a record was found (addresses point into the area, valid until the next write), else 0.
 * Out pointers may be null. A record with empty data at the very end of the area yields the
 * one-past-the-end address (never dereference more than dataLen bytes). */
int32_t DTInfo_Get(DTInfo *info, const void *filter, uint32_t filterLen, uint32_t *cursor,
                   void **key, uint8_t *keyLen, void **data, uint16_t *dataLen);
/* Prints the store's header on standard output; does nothing for a null store. */
void DTLogger_Dump(DTInfo *info);

/* Packed records. */

/* Makes room for a whole record and writes its preamble (key length, key, data length)
 * at freeAddr; 1, or 0 (null, ignoring, no area, no room). keyLen 0 = strlen(key).
 * A key of 255 bytes or more, or a null key, is refused with 0. */
int32_t DTInfo_PackPre(DTInfo *info, const char *key, uint32_t keyLen, uint32_t dataLen);
/* Adds a "TBhI%dS%dS%dS" record (time, type, id, value, s1, s2, detail); the detail is kept
 * only while flag id is on (ids above 1999 always). A record whose data would exceed 65535
 * bytes, or a null string with a non-zero length, is not added. */
void DTInfo_AddInfo(DTInfo *info, uint32_t type, uint32_t id, const void *s1, uint32_t len1,
                    const void *s2, uint32_t len2, const void *detail, uint32_t len3,
                    uint32_t value);
/* Next record (any key): format = "*" + key + NUL (room for key length + 2 needed), *data =
 * its data. 1 when found, else 0; a null format or data pointer yields 0 without moving. */
int32_t DTInfo_GetPack(DTInfo *info, uint32_t *cursor, char *format, void **data);
/* Shows the AddInfo records that pass every filter (id -1, "" strings, 0 numbers = off),
 * numbered from 1, skipping the first `skip` matches and those numbered above `limit`
 * (0 = none), then "Total count %d". Records not of the exact AddInfo shape (key and data
 * length), or with a string of 200 bytes or more or a detail of 2000 or more, are passed over
 * uncounted; string filters are cut at 400 hex digits. */
void DTInfo_ShowInfo(DTInfo *info, int32_t id, const char *s1Filter, const char *s2Filter,
                     uint32_t value, uint32_t type, uint32_t skip, uint32_t limit);

#ifdef __cplusplus
}
#endif

#endif
