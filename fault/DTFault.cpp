#include "fault/DTFault.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "foundation/DTMem.h"
#include "foundation/DTPrint.h"
#include "foundation/DTString.h"
#include "platform/DTPlatform.h"
#include "records/DTBuffer.h"
#include "records/DTLogger_internal.h"
#include "fault/DTFault_internal.h"

extern "C" {
DTList *g_DTFault_List;
DTInfo *g_DTFault_Info;
DTLogger *g_fcm_logger;
}

// Saves, registrations and shows run seldom: small code counts for more
// there on the board than speed does.
#define DTFAULT_COLD __attribute__((cold))

static int32_t bRunning;
uint32_t DTFault_durable_;

namespace {

const uint32_t kValueStoreSize = 10485760;
const uint32_t kHeadSize = 8;  // id and length in front of a block

void putBE32_(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// The store is made lazily and again after every save; a failed make is
// retried by the next recording.
DTInfo *valueStore_() {
    if (g_DTFault_Info == nullptr) g_DTFault_Info = DTInfo_New(kValueStoreSize);
    return g_DTFault_Info;
}

void append_(DTFaultRecord *fault, uint8_t kind, const uint8_t *payload, uint32_t len) {
    DTInfo *store = valueStore_();
    uint8_t key[2] = {kind, fault->index};
    DTInfo_Append(store, key, 2, payload, static_cast<uint16_t>(len & 0xFFFF));
}

int32_t setWord_(DTFaultRecord *fault, uint8_t kind, uint32_t id, uint32_t value) {
    if (fault == nullptr) return 0;
    uint8_t payload[8];
    putBE32_(payload, id);
    putBE32_(payload + 4, value);
    append_(fault, kind, payload, sizeof payload);
    return 0;
}

DTFAULT_COLD int32_t setWord64_(DTFaultRecord *fault, uint8_t kind, uint32_t id, uint64_t value) {
    if (fault == nullptr) return 0;
    uint8_t payload[12];
    putBE32_(payload, id);
    putBE32_(payload + 4, static_cast<uint32_t>(value >> 32));
    putBE32_(payload + 8, static_cast<uint32_t>(value));
    append_(fault, kind, payload, sizeof payload);
    return 0;
}

DTFAULT_COLD int32_t setBlock_(DTFaultRecord *fault, uint8_t kind, uint32_t id, const void *data, uint32_t len) {
    if (fault == nullptr) return 0;
    if (len > DTFAULT_BLOCK_MAX || (len > 0 && data == nullptr)) return 0;
    char fmt[10];
    Lumo_snprintf(fmt, sizeof fmt, "II%ds", static_cast<int>(len));
    uint8_t staging[kHeadSize + DTFAULT_BLOCK_MAX];
    uint32_t size = DTBuffer_Pack(staging, fmt, id, len, data);
    append_(fault, kind, staging, size);
    return 0;
}

DTFAULT_COLD void showLine_(const char *format, const char *name) {
    DTPrint_Show(DTString_SFormat(format, name), 0);
}

DTInfo *storeOf_(DTLogger *logger) { return logger ? logger->store : nullptr; }

void putBE16_(FILE *f, uint32_t v) {
    uint8_t b[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    fwrite(b, 1, 2, f);
}

DTFAULT_COLD void saveLog_(DTFaultRecord *fault, DTLogger *logger, const char *marker, FILE *f) {
    DTInfo *store = storeOf_(logger);
    if (store == nullptr) return;
    uint32_t n = static_cast<uint32_t>(strlen(fault->name));
    uint32_t cursor = DTINFO_START;
    void *data;
    uint16_t d;
    while (DTInfo_Get(store, nullptr, 0, &cursor, nullptr, nullptr, &data, &d)) {
        uint32_t len = d + 2 + n + 3;
        if (len > 0xFFFF) continue;
        putBE16_(f, len);
        fwrite(marker, 1, 3, f);
        fputc(' ', f);
        fwrite(fault->name, 1, n, f);
        fputc(' ', f);
        fwrite(data, 1, d, f);
    }
}

DTFAULT_COLD void saveValues_(FILE *f) {
    uint32_t cursor = DTINFO_START;
    void *key;
    uint8_t keyLen;
    void *data;
    uint16_t d;
    while (DTInfo_Get(g_DTFault_Info, nullptr, 0, &cursor, &key, &keyLen, &data, &d)) {
        if (keyLen != 2) continue;
        const uint8_t *k = static_cast<const uint8_t *>(key);
        DTFaultRecord *fault = static_cast<DTFaultRecord *>(DTList_Get(g_DTFault_List, k[1]));
        if (fault == nullptr) continue;
        uint32_t n = static_cast<uint32_t>(strlen(fault->name));
        uint32_t len = d + 1 + n + 1;
        if (len > 0xFFFF) continue;
        putBE16_(f, len);
        fputc(static_cast<int>(n + 1), f);
        fputc(k[0], f);
        fwrite(fault->name, 1, n, f);
        fwrite(data, 1, d, f);
    }
}

// The fault file's directory, worked out by the compiler: "name" is in ".",
// "/name" in "/", "a/b/name" in "a/b".
struct FaultDir {
    char path[sizeof DTFAULT_FILE + 1];
};
constexpr FaultDir faultDir_() {
    FaultDir d = {DTFAULT_FILE};
    uint32_t cut = sizeof DTFAULT_FILE - 1;
    while (cut > 0 && d.path[cut - 1] != '/') --cut;
    if (cut == 0) d.path[cut++] = '.';
    d.path[cut > 1 ? cut - 1 : cut] = '\0';
    return d;
}
constexpr FaultDir kFaultDir = faultDir_();

DTFaultRecord *faultAt_(int32_t pos) {
    return static_cast<DTFaultRecord *>(DTList_Get(g_DTFault_List, pos));
}

}  // namespace

extern "C" {

DTFAULT_COLD DTFaultRecord *DTFault_Regist(const char *name, DTFaultCallback callback) {
    if (g_DTFault_List == nullptr) {
        g_DTFault_List = DTList_New(0, DTMem_LocalFree);
        if (g_DTFault_List == nullptr) return nullptr;
    }
    DTFaultRecord *fault = static_cast<DTFaultRecord *>(DTMem_LocalMalloc(sizeof(DTFaultRecord)));
    if (fault == nullptr) return nullptr;
    memset(fault, 0, sizeof *fault);
    if (name != nullptr) {
        size_t n = strlen(name);
        if (n > DTFAULT_NAME_SIZE - 1) n = DTFAULT_NAME_SIZE - 1;
        memcpy(fault->name, name, n);
    }
    fault->callback = callback;
    fault->initLog = DTLogger_New(255);
    fault->runLog = DTLogger_New(255);
    fault->index = static_cast<uint8_t>(DTList_Length(g_DTFault_List));
    DTList_Append(g_DTFault_List, fault);
    return fault;
}

void DTFault_Ignore(DTFaultRecord *fault, uint32_t flag) {
    if (fault != nullptr) fault->ignore = flag;
}

int32_t DTFault_SetInfo(DTFaultRecord *fault, uint32_t info) {
    if (fault != nullptr) fault->info = info;
    return 0;
}

int32_t DTFault_SetRunLog(DTFaultRecord *fault, int32_t level, uint32_t unused, const char *text) {
    if (fault != nullptr && fault->ignore == 0) DTLogger_Append(fault->runLog, level, unused, text);
    return 0;
}

int32_t DTFault_SetInitLog(DTFaultRecord *fault, int32_t level, uint32_t unused, const char *text) {
    if (fault != nullptr && fault->ignore == 0) DTLogger_Append(fault->initLog, level, unused, text);
    return 0;
}

DTFAULT_COLD int32_t DTFault_ShowRunLogToBuf(DTFaultRecord *fault, DTBuf *buf) {
    if (fault != nullptr) DTLogger_ShowToBuf(fault->runLog, buf);
    return 0;
}

int32_t DTFault_ShowRunLog(DTFaultRecord *fault) { return DTFault_ShowRunLogToBuf(fault, nullptr); }

DTFAULT_COLD int32_t DTFault_ShowInitLogToBuf(DTFaultRecord *fault, DTBuf *buf) {
    if (fault != nullptr) DTLogger_ShowToBuf(fault->initLog, buf);
    return 0;
}

int32_t DTFault_ShowInitLog(DTFaultRecord *fault) { return DTFault_ShowInitLogToBuf(fault, nullptr); }

int32_t DTFault_SetRegist(DTFaultRecord *fault, uint32_t id, uint32_t value) {
    return setWord_(fault, DTFAULT_KIND_REGIST, id, value);
}

int32_t DTFault_SetRegist64(DTFaultRecord *fault, uint32_t id, uint64_t value) {
    return setWord64_(fault, DTFAULT_KIND_REGIST64, id, value);
}

int32_t DTFault_SetRegistEx(DTFaultRecord *fault, uint32_t id, const void *data, uint32_t len) {
    return setBlock_(fault, DTFAULT_KIND_REGISTEX, id, data, len);
}

int32_t DTFault_SetCounter(DTFaultRecord *fault, uint32_t id, uint32_t value) {
    return setWord_(fault, DTFAULT_KIND_COUNTER, id, value);
}

int32_t DTFault_SetCounter64(DTFaultRecord *fault, uint32_t id, uint64_t value) {
    return setWord64_(fault, DTFAULT_KIND_COUNTER64, id, value);
}

int32_t DTFault_SetCounterEx(DTFaultRecord *fault, uint32_t id, const void *data, uint32_t len) {
    return setBlock_(fault, DTFAULT_KIND_COUNTEREX, id, data, len);
}

DTFAULT_COLD int32_t DTFault_SetValue(DTFaultRecord *fault, uint32_t id, const void *data, uint32_t len) {
    if (fault == nullptr) return 0;
    if (len > DTFAULT_VALUE_MAX || (len > 0 && data == nullptr)) return 0;
    DTInfo *store = valueStore_();
    uint8_t key[2] = {DTFAULT_KIND_VALUE, fault->index};
    uint8_t head[kHeadSize];
    uint32_t size = DTBuffer_Pack(head, "II", id, len);
    DTInfo_Append2Message(store, key, 2, head, static_cast<uint16_t>(size), data,
                          static_cast<uint16_t>(len));
    return 0;
}

DTFAULT_COLD void DTFault_Start(void) {
    if (g_DTFault_List == nullptr || bRunning != 0) return;
    bRunning = 1;
    int32_t n = DTList_Length(g_DTFault_List);
    for (int32_t i = 0; i < n; ++i) {
        DTFaultRecord *fault = faultAt_(i);
        if (fault == nullptr || fault->callback == nullptr) continue;
        showLine_("start callback [%s]\n", fault->name);
        fault->callback();
        showLine_("end callback [%s]\n", fault->name);
    }
    // A file that cannot be opened leaves the module saving for good: the
    // values stay in the store for whoever looks at the device next.
    FILE *f = fopen(DTFault_durable_ != 0 ? DTFAULT_TEMP_FILE : DTFAULT_FILE, "wb");
    if (f == nullptr) return;
    for (int32_t i = 0; i < n; ++i) {
        DTFaultRecord *fault = faultAt_(i);
        if (fault == nullptr) continue;
        saveLog_(fault, fault->initLog, "log", f);
        saveLog_(fault, fault->runLog, "run", f);
    }
    putBE16_(f, 0);
    saveValues_(f);
    if (DTFault_durable_ != 0) {
        bool ok = fflush(f) == 0 && fsync(fileno(f)) == 0;
        DTFault_Publish_(fclose(f) == 0 && ok);
    } else {
        fclose(f);
    }
    // Unhooked before it is released: a crash from here on must not walk a
    // store that is already gone.
    DTInfo *values = g_DTFault_Info;
    g_DTFault_Info = nullptr;
    DTInfo_Release(values);
    bRunning = 0;
}

void DTFault_SetDurable(uint32_t on) { DTFault_durable_ = on != 0; }

DTFAULT_COLD void DTFault_Publish_(bool written) {
    // Until the rename the previous file stays whole; the directory is
    // flushed so that the new name survives a reset too.
    if (!written || rename(DTFAULT_TEMP_FILE, DTFAULT_FILE) != 0) {
        unlink(DTFAULT_TEMP_FILE);
        return;
    }
    int fd = open(kFaultDir.path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

}  // extern "C"
