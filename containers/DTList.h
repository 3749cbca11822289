/* dtkit list: a singly linked list of one-word items, addressed by
 * position from the head (0 = head). A list made without a release
 * function is static: its nodes come from the never-released pool, it
 * never loses an item and is never released. */
#ifndef DTKIT_DTLIST_H
#define DTKIT_DTLIST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DTList DTList;
typedef void (*DTListFreeFn)(void *item);
/* 0 means the item matches the key. */
typedef int (*DTListCmpFn)(void *item, void *key);

/* limit bounds DTList_Push only (0 = unbounded); null freeItem = static list. */
DTList *DTList_New(int32_t limit, DTListFreeFn freeItem);
int32_t DTList_Length(DTList *l);
/* Negative pos: new head; pos >= 0: the item lands at pos + 1 (tail when past the end). */
int32_t DTList_Insert(DTList *l, int32_t pos, void *item);
int32_t DTList_Append(DTList *l, void *item);
/* pos past the end extends the list with 0 items and returns 0; negative pos changes nothing. */
void *DTList_Set(DTList *l, int32_t pos, void *item);
/* pos <= 0 gives the head; pos >= count gives 0. */
void *DTList_Get(DTList *l, int32_t pos);
/* A null comparison function finds nothing (0 / -1). */
void *DTList_Find(DTList *l, DTListCmpFn cmp, void *key);
int32_t DTList_FindPos(DTList *l, DTListCmpFn cmp, void *key);
/* Negative pos removes nothing and returns 0 (treated as out of range). */
void *DTList_Remove(DTList *l, int32_t pos);
void *DTList_PopTail(DTList *l);
void *DTList_Popup(DTList *l);
/* Adds at the head; when full, drops the tail item to freeItem first. */
int32_t DTList_Push(DTList *l, void *item);
void DTList_RemoveAll(DTList *l);
void DTList_Release(DTList *l);

#ifdef __cplusplus
}
#endif

#endif
