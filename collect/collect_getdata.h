/* Put operations: what a section's callback calls to send its values into
 * the collection being served. */
#ifndef DTKIT_COLLECT_GETDATA_H
#define DTKIT_COLLECT_GETDATA_H

#include <stdint.h>

#include "../fault/DTFault.h"
#include "collect_api.h"

#ifdef __cplusplus
extern "C" {
#endif

void Collect_BeginSection(CollectSection *section, uint32_t block);
void Collect_EndSection(CollectSection *section);
/* Outside a collection every put operation sends nothing and returns at once. */
void Collect_PutInt(CollectSection *section, uint32_t code, uint32_t value);
void Collect_PutLong(CollectSection *section, uint32_t code, uint64_t value);
/* Buffer pieces until all len bytes are taken. Choice: len of 2^31 or more, or null data,
 * sends nothing. */
void Collect_PutStruct(CollectSection *section, uint32_t code, const void *data, uint32_t len);
/* String pieces until all are taken; len 0 = the text's length; a null text sends nothing.
 * Choice: a negative len sends nothing. */
void Collect_PutString(CollectSection *section, uint32_t code, const char *text, int32_t len);
/* Every record of the fault's run / init log, oldest first, one string value each. */
void Collect_PutRunLog(CollectSection *section, uint32_t code, DTFaultRecord *fault);
void Collect_PutInitLog(CollectSection *section, uint32_t code, DTFaultRecord *fault);

#ifdef __cplusplus
}
#endif

#endif
