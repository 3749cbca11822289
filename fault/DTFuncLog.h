/* dtkit function log: call records of a fixed set of host functions, one
 * packed record per call (a time field, then the values the host keeps),
 * walked and shown decoded. The host writes the records itself into `info`. */
#ifndef DTKIT_DTFUNCLOG_H
#define DTKIT_DTFUNCLOG_H

#include <stdint.h>

#include "../records/DTInfo.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One entry of the host's function table; the table is the host's and is never copied. */
typedef struct DTFuncLogEntry {
    const char *func;   /* the function's name */
    const char *fmt;    /* pack format of the values kept per call, without the time field */
    int32_t cnt;        /* the host's count; only shown */
    const char *suffix; /* printed right after the name */
} DTFuncLogEntry;

#pragma pack(push, 4)
typedef struct DTFuncLog {
    const DTFuncLogEntry *funcs;
    int32_t count;
    DTInfo *info;    /* call records: key = the function's table position (1 byte),
                        data = T field + values packed by the entry's fmt */
    uint32_t ignore; /* for the code that writes records; the module never reads it */
} DTFuncLog;
#pragma pack(pop)

/* New log with an info store of infoSize bytes; null with nothing left allocated on failure. */
DTFuncLog *DTFuncLog_New(const DTFuncLogEntry *funcs, int32_t count, uint32_t infoSize);
/* Releases the log and its store; the function table is left alone. */
void DTFuncLog_Release(DTFuncLog *log);
void DTFuncLog_Ignore(DTFuncLog *log, uint32_t flag);
/* Next record of function `index` (negative: any) from cursor *pos (start at 0xFFFFFFFF);
 * 1 with its table position, data and length, 0 at the end or on failure. */
int32_t DTFuncLog_Get(DTFuncLog *log, int32_t index, uint32_t *pos, uint32_t *funcIndex,
                      void **data, uint32_t *len);
/* Lists the function table, two lines an entry, after an empty line. */
void DTFuncLog_ShowFunc(DTFuncLog *log);
/* Shows records skip .. skip+count-1 (of funcName, or all when null or empty), decoded.
 * Choice: a record whose fmt is longer than 97 characters, or whose data is shorter than
 * its format describes, is shown as a hex dump of its data instead of being decoded, so
 * the decoder never reads past the record. */
void DTFuncLog_Show(DTFuncLog *log, const char *funcName, int32_t skip, int32_t count);

#ifdef __cplusplus
}
#endif

#endif
