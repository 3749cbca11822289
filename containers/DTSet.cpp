#include "containers/DTSet.h"

#include <string.h>

#include "containers/DTSet_internal.h"
#include "foundation/DTMem.h"

extern "C" {

DTSet *DTSet_New(uint32_t size) {
    if (size == 0) return nullptr;
    // Rounded up without size + 7, which wraps for the largest sizes.
    uint32_t bytes = size / 8 + (size % 8 != 0);
    uint32_t total = (uint32_t)sizeof(DTSet) + bytes;
    DTSet *s = static_cast<DTSet *>(DTMem_LocalMalloc(total));
    if (!s) return nullptr;
    memset(s, 0, total);
    s->size = size;
    return s;
}

int32_t DTSet_Get(DTSet *s, uint32_t i) {
    if (!s || i >= s->size) return 0;
    return (s->bits[i / 8] >> (i % 8)) & 1;
}

int32_t DTSet_Set(DTSet *s, uint32_t i, uint32_t on) {
    if (!s || i >= s->size) return 0;
    uint8_t mask = (uint8_t)(1u << (i % 8));
    uint8_t byte = s->bits[i / 8];
    bool present = (byte & mask) != 0;
    if (on) {
        s->bits[i / 8] = (uint8_t)(byte | mask);
        if (present) return 0;
        s->count++;
        return 1;
    }
    s->bits[i / 8] = (uint8_t)(byte & ~mask);
    if (!present) return 0;
    s->count--;
    return 1;
}

void DTSet_Release(DTSet *s) { DTMem_LocalFree(s); }

}  // extern "C"
