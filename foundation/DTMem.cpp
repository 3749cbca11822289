#include "foundation/DTMem.h"

#include <string.h>

#include <algorithm>

#include "foundation/DTPrint.h"
#include "foundation/DTString.h"
#include "platform/DTPlatform.h"

namespace {

const uint32_t kHeader = 4;              // size header in front of each counted block
const uint32_t kChunkSize = 0x100000;    // one pool chunk
const uint32_t kPoolLimit = 0x80000;     // larger static requests bypass the pool
const uint32_t kObjectHeader = 8;        // DTMemBlock's size and isStatic words
const uint32_t kTrackedChunks = 64;      // 64 MiB of pool is far beyond any board we run on

}  // namespace

static uint32_t DTMem_Size[256];
static uint32_t DTMem_MallocCnt[256];
static uint32_t DTMem_FreeCnt[256];

static uint8_t *static_mem;
static uint32_t l_static_leftsize;
static uint32_t l_static_times;
static uint32_t l_static_malloc_times;
// Chunk starts, so that a pool block handed to DTMem_Free is recognised: it has
// no header, and giving it to the platform would corrupt the platform's heap.
static uint8_t *l_static_chunks[kTrackedChunks];

static bool DTMem_InPool_(const void *p) {
    uintptr_t a = reinterpret_cast<uintptr_t>(p);
    uint32_t n = l_static_times < kTrackedChunks ? l_static_times : kTrackedChunks;
    for (uint32_t i = 0; i < n; ++i) {
        uintptr_t base = reinterpret_cast<uintptr_t>(l_static_chunks[i]);
        if (a >= base && a - base < kChunkSize) return true;
    }
    return false;
}

extern "C" {

void *DTMem_Malloc(uint32_t owner, uint32_t size) {
    // A size this close to 2^32 would wrap the platform request to a few bytes
    // and hand back a block far smaller than the caller believes.
    if (size > UINT32_MAX - kHeader) return nullptr;
    uint8_t *raw = static_cast<uint8_t *>(Kybe_Malloc(size + kHeader));
    if (!raw) return nullptr;
    memcpy(raw, &size, sizeof size);
    uint32_t slot = owner & 0xFF;
    DTMem_Size[slot] += size + kHeader;
    DTMem_MallocCnt[slot] += 1;
    return raw + kHeader;
}

void DTMem_Free(uint32_t owner, void *p) {
    if (!p || DTMem_InPool_(p)) return;
    uint8_t *raw = static_cast<uint8_t *>(p) - kHeader;
    uint32_t size;
    memcpy(&size, raw, sizeof size);
    Kybe_Free(raw);
    uint32_t slot = owner & 0xFF;
    DTMem_Size[slot] -= size + kHeader;
    DTMem_FreeCnt[slot] += 1;
}

void *DTMem_LocalMalloc(uint32_t size) { return DTMem_Malloc(0, size); }

void DTMem_LocalFree(void *p) { DTMem_Free(0, p); }

void *DTMem_Malloc_Static(uint32_t owner, uint32_t size) {
    if (size == 0) return nullptr;
    if (size & 3) {
        if (size > UINT32_MAX - 4) return nullptr;  // rounding up would wrap to 0
        size = (size & ~3u) + 4;
    }
    if (size > kPoolLimit) return DTMem_Malloc(owner, size);
    if (!static_mem || size > l_static_leftsize) {
        // Whatever is left of the old chunk is abandoned: pool blocks are never
        // freed, so there is nothing to gain from tracking holes.
        static_mem = static_cast<uint8_t *>(DTMem_Malloc(owner, kChunkSize));
        if (!static_mem) return DTMem_Malloc(owner, size);
        if (l_static_times < kTrackedChunks) l_static_chunks[l_static_times] = static_mem;
        l_static_leftsize = kChunkSize;
        l_static_times += 1;
    }
    uint8_t *result = static_mem;
    static_mem += size;
    l_static_leftsize -= size;
    l_static_malloc_times += 1;
    return result;
}

void *DTMem_LocalMalloc_Static(uint32_t size) { return DTMem_Malloc_Static(0, size); }

DTMemBlock *DTMem_New(uint32_t size, uint32_t isStatic) {
    if (size > UINT32_MAX - kObjectHeader) return nullptr;
    uint32_t total = size + kObjectHeader;
    void *raw = isStatic ? DTMem_LocalMalloc_Static(total) : DTMem_LocalMalloc(total);
    if (!raw) return nullptr;
    DTMemBlock *m = static_cast<DTMemBlock *>(raw);
    m->size = size;
    m->isStatic = isStatic;
    return m;
}

void DTMem_Release(DTMemBlock *m) {
    if (!m || m->isStatic) return;
    DTMem_LocalFree(m);
}

DTMemBlock *DTMem_realloc(DTMemBlock *m, uint32_t newSize) {
    if (!m) return nullptr;
    if (m->isStatic) return m;
    DTMemBlock *n = DTMem_New(newSize, 0);
    if (!n) return nullptr;
    uint32_t oldSize = m->size;
    // Copying the old size into a smaller object would overrun it.
    memcpy(n->data, m->data, oldSize < newSize ? oldSize : newSize);
    n->isStatic = m->isStatic;
    DTMem_LocalFree(m);
    return n;
}

// Bytes an offset operation may touch, 0 when the offset is outside the data.
static uint32_t DTMem_Span_(const DTMemBlock *m, uint32_t offset, uint32_t len) {
    if (!m) return 0;
    uint32_t size = m->size;
    if (offset >= size) return 0;
    uint32_t room = size - offset;
    return std::min(len, room);
}

void *DTMem_Get(DTMemBlock *m, uint32_t offset) {
    if (!m || offset >= m->size) return nullptr;
    return m->data + offset;
}

uint32_t DTMem_memget(DTMemBlock *m, uint32_t offset, void *dst, uint32_t len) {
    if (!dst) return 0;
    uint32_t n = DTMem_Span_(m, offset, len);
    if (n) memcpy(dst, m->data + offset, n);
    return n;
}

uint32_t DTMem_memcpy(DTMemBlock *m, uint32_t offset, const void *src, uint32_t len) {
    if (!src) return 0;
    uint32_t n = DTMem_Span_(m, offset, len);
    if (n) memcpy(m->data + offset, src, n);
    return n;
}

void DTMem_memset(DTMemBlock *m, uint32_t offset, int32_t value, uint32_t len) {
    uint32_t n = DTMem_Span_(m, offset, len);
    if (n) memset(m->data + offset, value & 0xFF, n);
}

int32_t DTMem_memcmp(DTMemBlock *m, uint32_t offset, const void *other, uint32_t len) {
    if (!m || !other) return -1;
    uint32_t size = m->size;
    if (offset >= size) return -1;
    if (len > size - offset) return -1;  // never read past the object
    return memcmp(m->data + offset, other, len);
}

void DTMem_Show(void) {
    DTPrint_Puts(DTString_SFormat("   id        size    malloc    free"), 0);
    DTPrint_Puts(DTString_SFormat("-------------------------------------"), 0);
    for (uint32_t slot = 0; slot < 256; ++slot) {
        if (DTMem_Size[slot] == 0) continue;
        DTPrint_Puts(DTString_SFormat("  %3d  0x%08x      %4d    %4d", static_cast<int>(slot),
                                      DTMem_Size[slot], static_cast<int>(DTMem_MallocCnt[slot]),
                                      static_cast<int>(DTMem_FreeCnt[slot])),
                     0);
    }
    DTPrint_Puts("", 0);
    DTPrint_Puts(DTString_SFormat("static memory : left         = 0x%08x", l_static_leftsize), 0);
    DTPrint_Puts(DTString_SFormat("static memory : times        = %d", static_cast<int>(l_static_times)), 0);
    DTPrint_Puts(DTString_SFormat("static memory : malloc times = %d",
                                  static_cast<int>(l_static_malloc_times)),
                 0);
}

int32_t DTMem_GetOwnerStats(uint32_t owner, DTMemOwnerStats *out) {
    if (!out) return -1;
    uint32_t slot = owner & 0xFF;
    out->bytes = DTMem_Size[slot];
    out->mallocs = DTMem_MallocCnt[slot];
    out->frees = DTMem_FreeCnt[slot];
    return 0;
}

int32_t DTMem_GetPoolStats(DTMemPoolStats *out) {
    if (!out) return -1;
    out->left = l_static_leftsize;
    out->chunks = l_static_times;
    out->mallocs = l_static_malloc_times;
    return 0;
}

}  // extern "C"
