#include "records/DTLogger.h"

#include <string.h>
#include <unistd.h>

#include "foundation/DTMem.h"
#include "foundation/DTPrint.h"
#include "platform/DTPlatform.h"
#include "records/DTLogger_internal.h"
#include "records/DTTime.h"

namespace {

const uint32_t kDefaultInfoSize = 1048576;
const uintptr_t kConsoleOutputMax = 100;
const uint32_t kPauseEvery = 100;
const uint32_t kPauseUnits = 1000;

// Copies with truncation so that a long text can never run past its field.
void copyField_(char *dst, size_t size, const char *src) {
    size_t n = strlen(src);
    if (n >= size) n = size - 1;
    memcpy(dst, src, n);
    dst[n] = '\0';
}

const char *keyOf_(int32_t level) {
    if (level == 2) return "w";
    if (level == 3) return "e";
    return "l";
}

void echo_(const char *text, bool lineBreak) {
    DTPrint_Show(text, 0);
    if (lineBreak) DTPrint_Show("\n", 0);
}

void echoWrite_(uint32_t flags, int32_t level, const char *text) {
    if ((flags & DTLOGGER_ECHO) == 0) return;
    if ((flags & DTLOGGER_ECHO_03) == 0) {
        if (text[0] != '\0') echo_(text, level != 0);
        return;
    }
    if (level == 3) echo_(text, true);
    if (level == 0) echo_(text, false);
}

// A stamp changes once a second, so each writer keeps the last one it
// formatted and reuses it within the same second. Per thread: loggers on
// different threads must not share a half-written stamp.
struct Stamp_ {
    int32_t second;
    uint32_t len;
    char text[32];
};

thread_local Stamp_ tl_writeStamp = {0, 0, {0}};
thread_local Stamp_ tl_appendStamp = {0, 0, {0}};

const Stamp_ &stampNow_(Stamp_ &stamp, const char *pattern) {
    int32_t now = DTTime_Now();
    // 0 is never a cached second: it means "now" to the formatter.
    if (now == 0 || now != stamp.second) {
        DTTime_Format(stamp.text, pattern, now);
        stamp.len = (uint32_t)strlen(stamp.text);
        stamp.second = now;
    }
    return stamp;
}

// Both writers store the stamp first, then the text, under the level's key.
int32_t store_(DTLogger *logger, int32_t level, Stamp_ &cache, const char *pattern, const char *text) {
    if (logger->store == nullptr) logger->store = DTInfo_New(logger->infoSize);
    const Stamp_ &stamp = stampNow_(cache, pattern);
    const char *key = keyOf_(level);
    int32_t sum = DTInfo_Append(logger->store, key, 1, stamp.text, (uint16_t)stamp.len);
    return sum + DTInfo_Append(logger->store, key, 1, text, (uint16_t)strlen(text));
}

}  // namespace

DTLogger *DTLogger_New(uint32_t flags) {
    DTLogger *logger = (DTLogger *)DTMem_LocalMalloc(sizeof(DTLogger));
    if (logger == nullptr) return nullptr;
    memset(logger, 0, sizeof(DTLogger));
    logger->flags = flags;
    logger->headerTop = -1;
    logger->infoSize = kDefaultInfoSize;
    return logger;
}

void DTLogger_Release(DTLogger *logger) {
    if (logger == nullptr) return;
    DTInfo_Release(logger->store);
    if (logger->fd != 0) close(logger->fd);
    DTMem_LocalFree(logger);
}

int32_t DTLogger_Write(DTLogger *logger, int32_t level, const char *text) {
    if (logger == nullptr) return -1;
    if (logger->ignore != 0) return 0;
    if (text == nullptr) text = "";
    uint32_t flags = logger->flags;
    if (level >= 0 && level <= 3 && (flags & (1u << level)) == 0) return -1;
    echoWrite_(flags, level, text);
    if ((flags & DTLOGGER_STORE) == 0) return -1;
    return store_(logger, level, tl_writeStamp, "YYYY/MM/DD HH:MI:SS", text);
}

void DTLogger_Append(DTLogger *logger, int32_t level, uint32_t unused, const char *text) {
    (void)unused;
    if (logger == nullptr || logger->ignore != 0) return;
    if (text == nullptr) text = "";
    if (text[0] != '\0' && level == 0) echo_(text, true);
    store_(logger, level, tl_appendStamp, "MM/DD HH:MI:SS ", text);
}

void DTLogger_ShowToBuf(DTLogger *logger, DTBuf *out) {
    if (logger == nullptr || logger->store == nullptr) return;
    bool console = (uintptr_t)out <= kConsoleOutputMax;
    uint16_t shown = 0;
    uint32_t cursor = DTINFO_START;
    void *data;
    uint16_t len;
    while (DTInfo_Get(logger->store, "", 0, &cursor, nullptr, nullptr, &data, &len)) {
        // A length of 0 would mean "up to the NUL" to both sinks, and the stored
        // bytes carry none, so an empty line is shown as the line break alone.
        if (console) {
            if (len != 0) DTPrint_Show((const char *)data, len);
            DTPrint_Show("\n", 0);
        } else {
            if (len != 0) DTBuf_Append(out, data, len);
            DTBuf_Append(out, "\n", 1);
        }
        if (shown % kPauseEvery == 0) Kybe_Delay(kPauseUnits);
        ++shown;
    }
}

void DTLogger_ShowInfo(DTLogger *logger, uint32_t unused) {
    (void)unused;
    DTLogger_ShowToBuf(logger, nullptr);
}

void DTLogger_ClearInfo(DTLogger *logger) {
    if (logger != nullptr) DTInfo_Clear(logger->store);
}

void DTLogger_SetInfoSize(DTLogger *logger, uint32_t size) {
    if (logger != nullptr && logger->store == nullptr) logger->infoSize = size;
}

void DTLogger_SetFlag(DTLogger *logger, uint32_t flags) {
    if (logger != nullptr) logger->flags = flags;
}

void DTLogger_Ignore(DTLogger *logger, uint32_t value) {
    if (logger != nullptr) logger->ignore = value;
}

void DTLogger_SetFileName(DTLogger *logger, const char *name) {
    if (logger == nullptr || name == nullptr) return;
    copyField_(logger->fileName, sizeof(logger->fileName), name);
}

void DTLogger_SetUDP(DTLogger *logger, const char *addr, int32_t port) {
    if (logger == nullptr) return;
    if (addr != nullptr) copyField_(logger->udpAddr, sizeof(logger->udpAddr), addr);
    logger->udpPort = port;
}

void DTLogger_Header(DTLogger *logger, const char *text) {
    if (logger == nullptr || text == nullptr) return;
    if (logger->headerTop < DTLOGGER_HEADER_COUNT - 1) logger->headerTop++;
    copyField_(logger->headers[logger->headerTop], DTLOGGER_HEADER_SIZE, text);
}

void DTLogger_Tail(DTLogger *logger) {
    if (logger != nullptr && logger->headerTop >= 0) logger->headerTop--;
}
