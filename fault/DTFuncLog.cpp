#include "fault/DTFuncLog.h"

#include <string.h>

#include "foundation/DTMem.h"
#include "foundation/DTPrint.h"
#include "foundation/DTString.h"
#include "records/DTBuffer.h"

// Making, releasing and showing run seldom: small code counts for more there
// on the board than speed does.
#define DTFUNCLOG_COLD __attribute__((cold))

namespace {

const size_t kDumpFormatSize = 100;
const size_t kFmtMax = 97;  // "*", "T" and the terminator take the rest of the dump format

int32_t findFunc_(const DTFuncLog *log, const char *name) {
    for (int32_t i = 0; i < log->count; ++i)
        if (strcmp(log->funcs[i].func, name) == 0) return i;
    return -1;
}

DTFUNCLOG_COLD void showRecord_(const DTFuncLogEntry *entry, int32_t k, const void *data, uint32_t len) {
    DTPrint_Show(DTString_SFormat("\nindex=%d,func:%s %s\n", static_cast<int>(k), entry->func,
                                  entry->suffix),
                 0);
    char dumpFmt[kDumpFormatSize];
    memset(dumpFmt, 0, sizeof dumpFmt);
    size_t n = strlen(entry->fmt);
    if (n <= kFmtMax) {
        dumpFmt[0] = '*';
        dumpFmt[1] = 'T';
        memcpy(dumpFmt + 2, entry->fmt, n);
        if (DTBuffer_GetPackSize(dumpFmt, nullptr) <= len) {
            DTBuffer_UNPack(dumpFmt, data);
            return;
        }
    }
    DTPrint_Puts(DTString_SHFormat(data, static_cast<int32_t>(len)), 0);
}

}  // namespace

extern "C" {

DTFUNCLOG_COLD DTFuncLog *DTFuncLog_New(const DTFuncLogEntry *funcs, int32_t count, uint32_t infoSize) {
    DTFuncLog *log = static_cast<DTFuncLog *>(DTMem_LocalMalloc(sizeof(DTFuncLog)));
    if (log == nullptr) return nullptr;
    log->info = DTInfo_New(infoSize);
    if (log->info == nullptr) {
        DTMem_LocalFree(log);
        return nullptr;
    }
    log->funcs = funcs;
    log->count = count;
    log->ignore = 0;
    return log;
}

DTFUNCLOG_COLD void DTFuncLog_Release(DTFuncLog *log) {
    if (log == nullptr) return;
    if (log->info != nullptr) DTInfo_Release(log->info);
    DTMem_LocalFree(log);
}

void DTFuncLog_Ignore(DTFuncLog *log, uint32_t flag) {
    if (log != nullptr) log->ignore = flag;
}

int32_t DTFuncLog_Get(DTFuncLog *log, int32_t index, uint32_t *pos, uint32_t *funcIndex,
                      void **data, uint32_t *len) {
    if (log == nullptr || index >= log->count || pos == nullptr) return 0;
    uint8_t key = static_cast<uint8_t>(index);
    void *k = nullptr;
    uint8_t kl = 0;
    void *d = nullptr;
    uint16_t dl = 0;
    int32_t found;
    // The store matches key prefixes; a function's records have exactly its one-byte key.
    do {
        found = index >= 0 ? DTInfo_Get(log->info, &key, 1, pos, &k, &kl, &d, &dl)
                           : DTInfo_Get(log->info, nullptr, 0, pos, &k, &kl, &d, &dl);
    } while (found && index >= 0 && kl != 1);
    if (!found) return 0;
    if (len) *len = dl;
    if (data) *data = d;
    if (k == nullptr) return 0;
    if (funcIndex) *funcIndex = *static_cast<uint8_t *>(k);
    return 1;
}

DTFUNCLOG_COLD void DTFuncLog_ShowFunc(DTFuncLog *log) {
    if (log == nullptr) return;
    DTPrint_Puts("", 0);
    for (int32_t i = 0; i < log->count; ++i) {
        const DTFuncLogEntry *e = &log->funcs[i];
        DTPrint_Puts(DTString_SFormat("%s%s", e->func, e->suffix), 0);
        DTPrint_Puts(DTString_SFormat("id:%d;cnt:%d;fmt:%s", static_cast<int>(i),
                                      static_cast<int>(e->cnt), e->fmt),
                     0);
    }
}

DTFUNCLOG_COLD void DTFuncLog_Show(DTFuncLog *log, const char *funcName, int32_t skip, int32_t count) {
    if (log == nullptr) return;
    int32_t filter = -1;
    if (funcName != nullptr && funcName[0] != '\0') {
        filter = findFunc_(log, funcName);
        if (filter < 0) return;
    }
    uint32_t pos = DTINFO_START;
    uint32_t funcIndex = 0;
    void *data = nullptr;
    uint32_t len = 0;
    for (int32_t k = 0; DTFuncLog_Get(log, filter, &pos, &funcIndex, &data, &len); ++k) {
        if (k < skip) continue;
        if (k - skip >= count) return;
        if (funcIndex >= static_cast<uint32_t>(log->count)) return;
        showRecord_(&log->funcs[funcIndex], k, data, len);
    }
}

}  // extern "C"
