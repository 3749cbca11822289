/* dtkit fault records: named parts of the host, each with an init log and a
 * run log, plus recorded values, counters and registers, saved on demand to
 * the fault file "/fcm.log". */
#ifndef DTKIT_DTFAULT_H
#define DTKIT_DTFAULT_H

#include <stdint.h>

#include "../containers/DTBuf.h"
#include "../containers/DTList.h"
#include "../records/DTInfo.h"
#include "../records/DTLogger.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*DTFaultCallback)(void);

#define DTFAULT_NAME_SIZE 23
/* DTFAULT_FILE, the fault file's path: a build-time setting (DTKIT_FAULT_FILE),
 * "/fcm.log" on the board. */
#include "DTFault_config.h"

/* Value record kinds: key byte 0 of a record in g_DTFault_Info. */
#define DTFAULT_KIND_REGIST 0
#define DTFAULT_KIND_REGIST64 1
#define DTFAULT_KIND_REGISTEX 2
#define DTFAULT_KIND_COUNTER 3
#define DTFAULT_KIND_COUNTER64 4
#define DTFAULT_KIND_COUNTEREX 5
#define DTFAULT_KIND_VALUE 6

/* Largest data block of DTFault_SetRegistEx / DTFault_SetCounterEx. */
#define DTFAULT_BLOCK_MAX 300
/* Largest data of DTFault_SetValue: its 8-byte head and the data share a 16-bit length. */
#define DTFAULT_VALUE_MAX (65535 - 8)

#pragma pack(push, 4)
typedef struct DTFaultRecord {
    DTFaultCallback callback; /* run by DTFault_Start before the file is written; may be null */
    DTLogger *initLog;
    DTLogger *runLog;
    uint32_t info;   /* the host's word; the library never reads it */
    uint32_t ignore; /* nonzero: the log text operations drop their text */
    uint8_t index;   /* faults registered before this one, modulo 256 */
    char name[DTFAULT_NAME_SIZE];
} DTFaultRecord;
#pragma pack(pop)

/* Registered faults in registration order; made by the first registration, never released. */
extern DTList *g_DTFault_List;
/* The fault value store (10 MiB); made on first recording, released by each completed save. */
extern DTInfo *g_DTFault_Info;
/* A slot for the host's own fault logger; the library never reads or writes it. */
extern DTLogger *g_fcm_logger;

/* New fault record, or null when the list or the record cannot be had.
 * Choice: a name longer than 22 characters is cut to its first 22; a logger that cannot
 * be made stays null, and every operation (and the save) passes that log over. */
DTFaultRecord *DTFault_Regist(const char *name, DTFaultCallback callback);
void DTFault_Ignore(DTFaultRecord *fault, uint32_t flag);
/* Always 0. Choice: a null handle is ignored. */
int32_t DTFault_SetInfo(DTFaultRecord *fault, uint32_t info);
/* DTLogger_Append on the run / init log unless the fault ignores text; always 0. */
int32_t DTFault_SetRunLog(DTFaultRecord *fault, int32_t level, uint32_t unused, const char *text);
int32_t DTFault_SetInitLog(DTFaultRecord *fault, int32_t level, uint32_t unused, const char *text);
/* The log's text into buf, or to the console when buf is null; always 0. */
int32_t DTFault_ShowRunLogToBuf(DTFaultRecord *fault, DTBuf *buf);
int32_t DTFault_ShowRunLog(DTFaultRecord *fault);
int32_t DTFault_ShowInitLogToBuf(DTFaultRecord *fault, DTBuf *buf);
int32_t DTFault_ShowInitLog(DTFaultRecord *fault);

/* Value recordings: one record each in g_DTFault_Info, integers big-endian; always 0. */
int32_t DTFault_SetRegist(DTFaultRecord *fault, uint32_t id, uint32_t value);
int32_t DTFault_SetRegist64(DTFaultRecord *fault, uint32_t id, uint64_t value);
/* Choice: a block longer than DTFAULT_BLOCK_MAX bytes is refused (nothing recorded),
 * never cut, so a reader never sees a length that does not match its bytes. */
int32_t DTFault_SetRegistEx(DTFaultRecord *fault, uint32_t id, const void *data, uint32_t len);
int32_t DTFault_SetCounter(DTFaultRecord *fault, uint32_t id, uint32_t value);
int32_t DTFault_SetCounter64(DTFaultRecord *fault, uint32_t id, uint64_t value);
/* Choice: as DTFault_SetRegistEx, a block over DTFAULT_BLOCK_MAX bytes is refused. */
int32_t DTFault_SetCounterEx(DTFaultRecord *fault, uint32_t id, const void *data, uint32_t len);
/* Choice: data longer than DTFAULT_VALUE_MAX bytes is refused: its record length would wrap. */
int32_t DTFault_SetValue(DTFaultRecord *fault, uint32_t id, const void *data, uint32_t len);

/* Runs every fault's callback, then writes "/fcm.log": log records, 00 00, value records;
 * then releases g_DTFault_Info. A nested call returns at once; after a failed open every
 * later call does nothing.
 * Choice: a record whose 16-bit file length would wrap is left out of the file, so a
 * reader never loses its place. */
void DTFault_Start(void);

/* Saves the fault file from memory when the process dies by SIGSEGV, SIGBUS, SIGILL, SIGFPE
 * or SIGABRT, with a stamp and a "crash: SIG..." record at the end of fault's run log; then
 * the previous disposition is restored and the process dies by the same signal. 0 when the
 * handlers are in place, -1 for a null fault or when they cannot be. A second call only
 * changes the fault named. No save callback runs.
 * Choice: the alternate stack (32 KiB) and the save's buffer (68 KiB) are one accounted block
 * (owner 0), made by the first call and kept for the process's life, so nothing is counted
 * until a host switches this on; a thread that already has an alternate stack keeps its own,
 * and threads other than the caller run the handler on their own stacks.
 * Choice: the stamp's local time uses the UTC offset in force at this call.
 * Choice: the first crashing thread writes; another thread crashing meanwhile waits for it
 * (at most 10 s) and then dies by its own signal. A crash save switches the handlers off.
 * Choice: for a signal the process sent itself (abort, raise, kill) the address reads 0. */
int32_t DTFault_SaveOnCrash(DTFaultRecord *fault);
/* Puts back the handlers found by DTFault_SaveOnCrash; the alternate stack stays. */
void DTFault_SaveOnCrashOff(void);
/* While on (nonzero), every save, normal or crash, writes DTFAULT_FILE ".tmp" beside the
 * fault file, flushes it (fsync), renames it over the fault file and flushes the directory.
 * Choice: a temporary file that cannot be made counts as a fault file that cannot be
 * created (DTFault_Start then stays saving for good, the values stay); a failed write, flush
 * or rename removes the temporary file, leaves the previous fault file whole, and the save
 * otherwise completes, as a short write does today. */
void DTFault_SetDurable(uint32_t on);

#ifdef __cplusplus
}
#endif

#endif
