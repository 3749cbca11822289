#include "collect/collect_getdata.h"

#include <string.h>

#include "collect/collect_client_internal.h"
#include "records/DTLogger_internal.h"

namespace {

const uint8_t kString = COLLECT_KIND_STRING & 0x7F;
const uint8_t kBuffer = COLLECT_KIND_BUFFER & 0x7F;

uint32_t index_(const CollectSection *s) { return static_cast<uint32_t>(s->index); }

// Sends one value whole, piece after piece. A writer that takes nothing has
// no send buffer (outside a collection); stopping there keeps a stray put
// from spinning for ever. One call is always made, so an empty value still
// leaves its single empty last piece.
void putPieces_(CollectSection *s, uint8_t kind, uint32_t code, const uint8_t *data,
                uint32_t len) {
    if (!CollectClient_Active_()) return;
    uint32_t offset = 0;
    do {
        int32_t n = CollectClient_CollectPiece_(kind, index_(s), s->block, code, data + offset,
                                                static_cast<int32_t>(len - offset));
        if (n <= 0 && len > 0) return;
        offset += static_cast<uint32_t>(n);
    } while (offset < len);
}

void putLog_(CollectSection *s, uint32_t code, DTLogger *log) {
    if (s == nullptr || log == nullptr || log->store == nullptr) return;
    uint32_t cursor = DTINFO_START;
    void *data = nullptr;
    uint16_t dataLen = 0;
    // The body is not terminated: its stored length is what goes out.
    while (DTInfo_Get(log->store, "", 0, &cursor, nullptr, nullptr, &data, &dataLen) == 1) {
        putPieces_(s, kString, code, static_cast<const uint8_t *>(data), dataLen);
    }
}

}  // namespace

extern "C" {

void Collect_BeginSection(CollectSection *section, uint32_t block) {
    if (section != nullptr) section->block = block;
}

void Collect_EndSection(CollectSection *section) {
    if (section != nullptr) section->block = 0;
}

void Collect_PutInt(CollectSection *section, uint32_t code, uint32_t value) {
    if (section == nullptr) return;
    CollectClient_CollectInt(index_(section), section->block, code, value);
}

void Collect_PutLong(CollectSection *section, uint32_t code, uint64_t value) {
    if (section == nullptr) return;
    CollectClient_CollectLong(index_(section), section->block, code, value);
}

void Collect_PutStruct(CollectSection *section, uint32_t code, const void *data, uint32_t len) {
    if (section == nullptr || data == nullptr || len == 0 || len >= 0x80000000u) return;
    putPieces_(section, kBuffer, code, static_cast<const uint8_t *>(data), len);
}

void Collect_PutString(CollectSection *section, uint32_t code, const char *text, int32_t len) {
    if (section == nullptr || text == nullptr || len < 0) return;
    uint32_t n = len == 0 ? static_cast<uint32_t>(strlen(text)) : static_cast<uint32_t>(len);
    if (n >= 0x80000000u) return;
    putPieces_(section, kString, code, reinterpret_cast<const uint8_t *>(text), n);
}

void Collect_PutRunLog(CollectSection *section, uint32_t code, DTFaultRecord *fault) {
    if (fault == nullptr) return;
    putLog_(section, code, fault->runLog);
}

void Collect_PutInitLog(CollectSection *section, uint32_t code, DTFaultRecord *fault) {
    if (fault == nullptr) return;
    putLog_(section, code, fault->initLog);
}

}  // extern "C"
