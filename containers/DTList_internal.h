// Layout of the list handle and its nodes, for library modules that must
// walk a list without the position-based API. Not installed.
#ifndef DTKIT_DTLIST_INTERNAL_H
#define DTKIT_DTLIST_INTERNAL_H

#include "containers/DTList.h"

// Both structs live in accounted or pool memory, which is only 4-byte
// aligned on a 64-bit host.
#pragma pack(push, 4)
typedef struct DTListNode {
    struct DTListNode *next;
    void *item;
} DTListNode;

struct DTList {
    int32_t count;
    int32_t limit;
    DTListFreeFn freeItem;
    DTListNode *head;
};
#pragma pack(pop)

#endif
