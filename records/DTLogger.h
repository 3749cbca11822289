/* dtkit logger: time-stamped text lines in an info store, two records a line
 * (stamp, then text), optionally echoed to the console. */
#ifndef DTKIT_DTLOGGER_H
#define DTKIT_DTLOGGER_H

#include <stdint.h>

#include "../containers/DTBuf.h"
#include "DTInfo.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DTLogger DTLogger;

/* Flag word bits (DTLogger_Write only); the library's own loggers use 255. */
#define DTLOGGER_LEVEL0 0x01u
#define DTLOGGER_LEVEL1 0x02u
#define DTLOGGER_LEVEL2 0x04u
#define DTLOGGER_LEVEL3 0x08u
#define DTLOGGER_ECHO_03 0x10u /* echo only levels 3 (with line break) and 0 (without) */
#define DTLOGGER_STORE 0x40u
#define DTLOGGER_ECHO 0x80u

DTLogger *DTLogger_New(uint32_t flags);
/* Releases the store, closes fd when not 0, frees the logger; null is allowed. */
void DTLogger_Release(DTLogger *logger);
/* -1 (null logger, level not accepted, or storing off), 0 when ignoring, else the sum of
 * the two DTInfo_Write results (stamp "YYYY/MM/DD HH:MI:SS", then text). Null text = "". */
int32_t DTLogger_Write(DTLogger *logger, int32_t level, const char *text);
/* Always stores (stamp "MM/DD HH:MI:SS "); level 0 text is echoed with a line break.
 * `unused` is not read. Null text = "". Both writers format their stamp once per second
 * per thread and reuse it: a time-zone change shows from the next second on. */
void DTLogger_Append(DTLogger *logger, int32_t level, uint32_t unused, const char *text);
/* Shows every record's data, one line each, into `out` or, when out is 0..100, to the
 * console; Kybe_Delay(1000), in the platform's units, after the 1st, 101st... record. Empty
 * records show as an empty line (their bytes are never handed on as a zero-terminated text). */
void DTLogger_ShowToBuf(DTLogger *logger, DTBuf *out);
/* DTLogger_ShowToBuf to the console; `unused` is not read. */
void DTLogger_ShowInfo(DTLogger *logger, uint32_t unused);
void DTLogger_ClearInfo(DTLogger *logger);
/* Effective only before the first write made the store. */
void DTLogger_SetInfoSize(DTLogger *logger, uint32_t size);
void DTLogger_SetFlag(DTLogger *logger, uint32_t flags);
void DTLogger_Ignore(DTLogger *logger, uint32_t value);
/* Texts too long for their field are cut (499 characters); a null text changes nothing. */
void DTLogger_SetFileName(DTLogger *logger, const char *name);
/* Address cut at 19 characters; a null address leaves the address as it is, the port is set. */
void DTLogger_SetUDP(DTLogger *logger, const char *addr, int32_t port);
/* Pushes a header (cut at 49 characters; a null text pushes nothing); when the 100 slots are
 * full the top slot is overwritten. */
void DTLogger_Header(DTLogger *logger, const char *text);
void DTLogger_Tail(DTLogger *logger);

#ifdef __cplusplus
}
#endif

#endif
