/* Fixed-size set of the numbers 0 to size - 1, one bit per member. */
#ifndef DTKIT_DTSET_H
#define DTKIT_DTSET_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DTSet DTSet;

/* New empty set, or null for size 0 or when memory is short. */
DTSet *DTSet_New(uint32_t size);
/* 1 when i is a member; 0 when not, when i >= size, or for a null set. */
int32_t DTSet_Get(DTSet *s, uint32_t i);
/* on nonzero adds i, 0 removes it; 1 when the set changed, 0 otherwise
 * (already in that state, i >= size, or a null set). */
int32_t DTSet_Set(DTSet *s, uint32_t i, uint32_t on);
void DTSet_Release(DTSet *s);

#ifdef __cplusplus
}
#endif

#endif
