/* Layout of the print object, shared with modules that render into a
 * caller's buffer and need the gathered length. Not installed. */
#ifndef DTKIT_DTPRINT_INTERNAL_H
#define DTKIT_DTPRINT_INTERNAL_H

#include <stdint.h>

#include "foundation/DTPrint.h"

#pragma pack(push, 4)
struct DTPrint {
    char *buffer;     /* the caller's; never allocated or released here */
    int32_t capacity; /* terminating zero included */
    int32_t length;   /* gathered and not yet handed on */
    uint32_t printOn;
};
#pragma pack(pop)

#endif
