#include "fault/DTFault.h"

#include <errno.h>
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

int32_t setWord64_(DTFaultRecord *fault, uint8_t kind, uint32_t id, uint64_t value) {
    if (fault == nullptr) return 0;
    uint8_t payload[12];
    putBE32_(payload, id);
    putBE32_(payload + 4, static_cast<uint32_t>(value >> 32));
    putBE32_(payload + 8, static_cast<uint32_t>(value));
    append_(fault, kind, payload, sizeof payload);
    return 0;
}

int32_t setBlock_(DTFaultRecord *fault, uint8_t kind, uint32_t id, const void *data, uint32_t len) {
    if (fault == nullptr) return 0;
    if (len > DTFAULT_BLOCK_MAX || (len > 0 && data == nullptr)) return 0;
    char fmt[10];
    Lumo_snprintf(fmt, sizeof fmt, "II%ds", static_cast<int>(len));
    uint8_t staging[kHeadSize + DTFAULT_BLOCK_MAX];
    uint32_t size = DTBuffer_Pack(staging, fmt, id, len, data);
    append_(fault, kind, staging, size);
    return 0;
}

void showLine_(const char *format, const char *name) {
    DTPrint_Show(DTString_SFormat(format, name), 0);
}

DTInfo *storeOf_(DTLogger *logger) { return logger ? logger->store : nullptr; }

void saveLog_(DTFaultRecord *fault, DTLogger *logger, const char *marker, DTFaultOut *o) {
    DTInfo *store = storeOf_(logger);
    if (store == nullptr) return;
    uint32_t n = static_cast<uint32_t>(strlen(fault->name));
    uint32_t cursor = DTINFO_START;
    void *data;
    uint16_t d;
    while (DTInfo_Get(store, nullptr, 0, &cursor, nullptr, nullptr, &data, &d))
        DTFault_PutLog_(o, marker, fault->name, n, data, d);
}

void saveValues_(DTFaultOut *o) {
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
        DTFault_PutValue_(o, k[0], fault->name, static_cast<uint32_t>(strlen(fault->name)), data, d);
    }
}

// The directory that holds the fault file, so that a rename into it can be
// made durable too.
void syncDir_() {
    char dir[sizeof DTFAULT_FILE + 1];
    memcpy(dir, DTFAULT_FILE, sizeof DTFAULT_FILE);
    char *slash = strrchr(dir, '/');
    if (slash == nullptr) memcpy(dir, ".", 2);
    else slash[slash == dir ? 1 : 0] = '\0';
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

const char kTempFile[] = DTFAULT_FILE ".tmp";

DTFaultRecord *faultAt_(int32_t pos) {
    return static_cast<DTFaultRecord *>(DTList_Get(g_DTFault_List, pos));
}

}  // namespace

extern "C" {

DTFaultRecord *DTFault_Regist(const char *name, DTFaultCallback callback) {
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

int32_t DTFault_ShowRunLogToBuf(DTFaultRecord *fault, DTBuf *buf) {
    if (fault != nullptr) DTLogger_ShowToBuf(fault->runLog, buf);
    return 0;
}

int32_t DTFault_ShowRunLog(DTFaultRecord *fault) { return DTFault_ShowRunLogToBuf(fault, nullptr); }

int32_t DTFault_ShowInitLogToBuf(DTFaultRecord *fault, DTBuf *buf) {
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

int32_t DTFault_SetValue(DTFaultRecord *fault, uint32_t id, const void *data, uint32_t len) {
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

void DTFault_Start(void) {
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
    uint8_t buf[4096];
    DTFaultOut o = {nullptr, -1, buf, sizeof buf, 0};
    if (DTFault_durable_ != 0) {
        o.fd = DTFault_OpenFd_();
        if (o.fd < 0) return;
    } else {
        o.file = fopen(DTFAULT_FILE, "wb");
        if (o.file == nullptr) return;
    }
    for (int32_t i = 0; i < n; ++i) {
        DTFaultRecord *fault = faultAt_(i);
        if (fault == nullptr) continue;
        saveLog_(fault, fault->initLog, "log", &o);
        saveLog_(fault, fault->runLog, "run", &o);
    }
    DTFault_OutBE16_(&o, 0);
    saveValues_(&o);
    if (o.file != nullptr) fclose(o.file);
    else DTFault_CloseFd_(&o);
    // Unhooked before it is released: a crash from here on must not walk a
    // store that is already gone.
    DTInfo *values = g_DTFault_Info;
    g_DTFault_Info = nullptr;
    DTInfo_Release(values);
    bRunning = 0;
}

void DTFault_SetDurable(uint32_t on) { DTFault_durable_ = on != 0; }

void DTFault_OutBytes_(DTFaultOut *o, const void *p, uint32_t n) {
    if (o->file != nullptr) {
        fwrite(p, 1, n, o->file);
        return;
    }
    const uint8_t *b = static_cast<const uint8_t *>(p);
    while (n > 0) {
        if (o->used == o->size) DTFault_OutFlush_(o);
        uint32_t room = o->size - o->used;
        uint32_t take = n < room ? n : room;
        memcpy(o->buf + o->used, b, take);
        o->used += take;
        b += take;
        n -= take;
    }
}

void DTFault_OutByte_(DTFaultOut *o, uint32_t c) {
    if (o->file != nullptr) {
        fputc(static_cast<int>(c & 0xFF), o->file);
        return;
    }
    uint8_t b = static_cast<uint8_t>(c);
    DTFault_OutBytes_(o, &b, 1);
}

void DTFault_OutBE16_(DTFaultOut *o, uint32_t v) {
    uint8_t b[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    DTFault_OutBytes_(o, b, 2);
}

bool DTFault_OutFlush_(DTFaultOut *o) {
    uint32_t at = 0;
    while (at < o->used && o->fd >= 0) {
        ssize_t w = write(o->fd, o->buf + at, o->used - at);
        if (w > 0) at += static_cast<uint32_t>(w);
        else if (w < 0 && errno == EINTR) continue;
        else o->fd = -2 - o->fd;  // still closable, but nothing more is written
    }
    o->used = 0;
    return o->fd >= 0;
}

void DTFault_PutLog_(DTFaultOut *o, const char *marker, const char *name, uint32_t n,
                     const void *data, uint32_t d) {
    uint32_t len = d + 2 + n + 3;
    if (len > 0xFFFF) return;
    DTFault_OutBE16_(o, len);
    DTFault_OutBytes_(o, marker, 3);
    DTFault_OutByte_(o, ' ');
    DTFault_OutBytes_(o, name, n);
    DTFault_OutByte_(o, ' ');
    DTFault_OutBytes_(o, data, d);
}

void DTFault_PutValue_(DTFaultOut *o, uint32_t kind, const char *name, uint32_t n,
                       const void *data, uint32_t d) {
    uint32_t len = d + 1 + n + 1;
    if (len > 0xFFFF) return;
    DTFault_OutBE16_(o, len);
    DTFault_OutByte_(o, n + 1);
    DTFault_OutByte_(o, kind);
    DTFault_OutBytes_(o, name, n);
    DTFault_OutBytes_(o, data, d);
}

int DTFault_OpenFd_(void) {
    const char *path = DTFault_durable_ != 0 ? kTempFile : DTFAULT_FILE;
    return open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
}

bool DTFault_CloseFd_(DTFaultOut *o) {
    bool ok = DTFault_OutFlush_(o);
    int fd = ok ? o->fd : -2 - o->fd;
    if (DTFault_durable_ == 0) return close(fd) == 0 && ok;
    // Until the rename the previous file stays whole; the data must reach the
    // disk before the name does, and the name before the save returns.
    ok = ok && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(kTempFile, DTFAULT_FILE) != 0) {
        unlink(kTempFile);
        return false;
    }
    syncDir_();
    return true;
}

}  // extern "C"
