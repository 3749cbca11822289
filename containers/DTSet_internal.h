// Layout of a set, for code that needs its member count. Not installed.
#ifndef DTKIT_DTSET_INTERNAL_H
#define DTKIT_DTSET_INTERNAL_H

#include "containers/DTSet.h"

// One accounted block, so only 4-byte aligned.
#pragma pack(push, 4)
struct DTSet {
    uint32_t size;
    uint32_t count;
    uint8_t bits[]; /* member i is bit i % 8 of bits[i / 8] */
};
#pragma pack(pop)

#endif
