#include "records/DTInfo.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#if defined(__has_include)
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#define DTINFO_SINGLE_THREAD_KNOWN 1
#endif
#endif

#include "foundation/DTMem.h"
#include "foundation/DTPrint.h"
#include "foundation/DTString.h"
#include "platform/DTPlatform.h"
#include "records/DTBuffer.h"
#include "records/DTTime.h"

namespace {

const uint32_t kAreaStart = 1024;
const uint32_t kGrain = 1024;
const uint32_t kMaxGrowStep = 262144;
// Keeps cap + 8 (block header) + 4 (accounting header) inside 32 bits.
const uint32_t kAreaLimit = 0xFFFF0000u;
const uint32_t kMaxLimit = 0xFFFFFC00u;
const uint8_t kFreeMark = 0xFF;

// Answers of one room-making step.
enum { kRoomFailed = 0, kRoomMade = 1, kRoomProgress = 2 };

// The write path's small steps run once or twice per record; left to the
// compiler's -O2 judgement they become calls that cost more than their bodies.
#define DTINFO_INLINE inline __attribute__((always_inline))

// Records are mostly a few bytes long, where a library call costs more than
// the copy; fixed-size overlapping moves cover 1..16 bytes without one.
DTINFO_INLINE void copyBytes_(uint8_t *dst, const void *from, uint32_t n) {
    const uint8_t *src = (const uint8_t *)from;
    if (n > 16) {
        memcpy(dst, src, n);
    } else if (n >= 8) {
        memcpy(dst, src, 8);
        memcpy(dst + n - 8, src + n - 8, 8);
    } else if (n >= 4) {
        memcpy(dst, src, 4);
        memcpy(dst + n - 4, src + n - 4, 4);
    } else if (n >= 2) {
        memcpy(dst, src, 2);
        memcpy(dst + n - 2, src + n - 2, 2);
    } else if (n == 1) {
        dst[0] = src[0];
    }
}

DTINFO_INLINE void fillFree_(uint8_t *dst, uint32_t n) {
    static const uint8_t kMarks[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                       0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    if (n > 16)
        memset(dst, 0xFF, n);
    else
        copyBytes_(dst, kMarks, n);
}

uint32_t roundUp_(uint32_t v) { return (v + kGrain - 1) / kGrain * kGrain; }

uint32_t cap_(const DTInfo *info) { return info->memory != nullptr ? info->memory->size : 0; }

uint8_t *area_(DTInfo *info) { return info->memory->data; }

// A host may write at freeAddr itself, so the header is checked before every write:
// any offset outside the area would make the next write land outside it.
bool headerOk_(const DTInfo *info) {
    if (info->memory == nullptr) return false;
    uint32_t cap = cap_(info);
    return info->freeAddr <= cap && info->freesize <= cap &&
           (uint64_t)info->freeAddr + info->freesize <= cap && info->useAddr < cap;
}

uint16_t readLen16_(const uint8_t *p) { return (uint16_t)((p[0] << 8) | p[1]); }

int growStep_(DTInfo *info, uint32_t n) {
    uint32_t cap = cap_(info);
    uint32_t limit = info->maxsize;
    uint32_t free = info->freesize;
    uint32_t add;
    if (limit != 0 && (limit < 2ull * cap || n >= (uint64_t)limit + free - cap)) {
        add = limit - cap;
    } else {
        add = cap < kMaxGrowStep ? cap : kMaxGrowStep;
        if (add < n - free) add = roundUp_(n - free);
    }
    if ((uint64_t)cap + add > kAreaLimit) return kRoomFailed;
    DTLogger_Dump(info);
    DTMemBlock *grown = DTMem_realloc(info->memory, cap + add);
    // The old area is still ours when the realloc fails, so nothing is lost.
    if (grown == nullptr) return kRoomFailed;
    info->memory = grown;
    memset(grown->data + cap, kFreeMark, add);
    info->freesize += add;
    printf("add size %d, new size %d freesize %d\n", (int)add, (int)(cap + add),
           (int)info->freesize);
    DTLogger_Dump(info);
    return n <= info->freesize ? kRoomMade : kRoomProgress;
}

int ringStep_(DTInfo *info, uint32_t n) {
    uint32_t cap = cap_(info);
    uint8_t *a = area_(info);
    if (info->freeAddr > info->useAddr) {
        info->freeAddr = 0;
        info->freesize = 0;
    }
    uint32_t r = info->useAddr;
    if (a[r] == kFreeMark) {
        info->useAddr = 0;
        info->freesize = cap - info->freeAddr;
        return kRoomProgress;
    }
    uint32_t h = a[r];
    if ((uint64_t)r + 3 + h > cap) return kRoomFailed;
    uint32_t size = 3 + h + readLen16_(a + r + 1 + h);
    if ((uint64_t)r + size > cap) return kRoomFailed;
    memset(a + r, kFreeMark, size);
    r += size;
    if (r >= cap || a[r] == kFreeMark) {
        info->useAddr = 0;
        info->freesize = cap - info->freeAddr;
    } else {
        info->useAddr = r;
        info->freesize += size;
    }
    return n <= info->freesize ? kRoomMade : kRoomProgress;
}

// The "size %d" report goes out on every write that has to make room, which in
// the ring phase is nearly every write; it is formatted by hand rather than
// through printf's parser: same bytes, same stream.
// Writes "size " and the decimal digits of n (at most 15 bytes, no NUL).
DTINFO_INLINE uint32_t formatSize_(char *dst, uint32_t n) {
    memcpy(dst, "size ", 5);
    uint32_t len = 5;
    if (n < 100) {
        // Most records are short: two digits without a loop.
        if (n >= 10) dst[len++] = (char)('0' + n / 10u);
        dst[len++] = (char)('0' + n % 10u);
        return len;
    }
    char digits[10];
    uint32_t d = 0;
    do {
        digits[d++] = (char)('0' + n % 10u);
        n /= 10u;
    } while (n != 0);
    while (d > 0) dst[len++] = digits[--d];
    return len;
}

DTINFO_INLINE void printSize_(uint32_t n) {
    FILE *out = stdout;
    char local[16];
    char *dst = local;
    bool single = false;
#if DTINFO_SINGLE_THREAD_KNOWN
    // Until the process starts a second thread nobody can race us for the
    // stream, and its lock is pure cost; afterwards fwrite takes it as printf did.
    single = __libc_single_threaded != 0;
#if defined(__GLIBC__)
    // putc_unlocked's own fast path, for the whole text at once: a fully
    // buffered stream with room takes the characters straight into its
    // buffer (a line-buffered or unbuffered one never shows room there).
    if (single && out->_IO_write_end - out->_IO_write_ptr >= (ptrdiff_t)sizeof local) dst = out->_IO_write_ptr;
#endif
#endif
    uint32_t len = formatSize_(dst, n);
    if (dst != local) {
        out->_IO_write_ptr += len;
    } else if (single) {
        for (uint32_t i = 0; i < len; ++i) putc_unlocked(local[i], out);
    } else {
        fwrite(local, 1, len, out);
    }
}

// Frames one record in place: key length, key, 16-bit big-endian data
// length, then the data in up to two pieces. The same bytes as packing
// "B%dsH%ds" (or "B%dsH%ds%ds"), without building and parsing the format.
DTINFO_INLINE void putRecord_(uint8_t *at, const void *key, uint8_t keyLen, const void *part1, uint16_t len1,
                const void *part2, uint16_t len2) {
    uint32_t dataLen = (uint32_t)len1 + len2;
    at[0] = keyLen;
    copyBytes_(at + 1, key, keyLen);
    at += 1u + keyLen;
    at[0] = (uint8_t)(dataLen >> 8);
    at[1] = (uint8_t)dataLen;
    copyBytes_(at + 2, part1, len1);
    copyBytes_(at + 2 + len1, part2, len2);
}

// The general path is not the hot one: one copy of the report code for it.
__attribute__((noinline)) void printSizeSlow_(uint32_t n) { printSize_(n); }

int freeSize_(DTInfo *info, uint32_t n) {
    printSizeSlow_(n);
    uint32_t limit = info->maxsize;
    if (n <= info->freesize) return kRoomMade;
    if (limit != 0 && n > limit) return kRoomFailed;
    if (limit == 0 || cap_(info) < limit) return growStep_(info, n);
    return ringStep_(info, n);
}

// The steady state of a full ring, taken without the general loop: the oldest
// record sits past the write position, and erasing it alone makes room. Any
// other case (growth, a wrap, a damaged area, several erasures) is declined
// before anything is printed or changed, and the general path does exactly
// what it always did.
DTINFO_INLINE bool eraseOneFast_(DTInfo *info, uint32_t n) {
    const uint32_t cap = cap_(info), limit = info->maxsize, r = info->useAddr;
    if (limit == 0 || cap < limit || n > limit || info->freeAddr > r || r >= cap) return false;
    uint8_t *a = area_(info);
    uint32_t h = a[r];
    if (h == kFreeMark || (uint64_t)r + 3 + h > cap) return false;
    uint32_t size = 3 + h + readLen16_(a + r + 1 + h);
    uint64_t next = (uint64_t)r + size;
    if (next >= cap || a[next] == kFreeMark || n > (uint64_t)info->freesize + size) return false;
    printSize_(n);
    fillFree_(a + r, size);
    info->useAddr = (uint32_t)next;
    info->freesize += size;
    return true;
}

// Every step erases a record of at least 3 bytes, wraps, or grows; the bound only
// stops a damaged area from looping for ever.
bool makeRoom_(DTInfo *info, uint32_t n) {
    if (n <= info->freesize || eraseOneFast_(info, n)) return true;
    uint32_t guard = cap_(info) + 16;
    while (guard-- > 0) {
        int r = freeSize_(info, n);
        if (r == kRoomMade) return true;
        if (r == kRoomFailed) return false;
        if (!headerOk_(info)) return false;
    }
    return false;
}

void advance_(DTInfo *info, uint32_t n) {
    info->freeAddr += n;
    info->freesize -= n;
}

}  // namespace

DTInfo *DTInfo_New(uint32_t maxsize) {
    DTInfo *info = (DTInfo *)DTMem_LocalMalloc(sizeof(DTInfo));
    if (info == nullptr) return nullptr;
    memset(info, 0, sizeof(DTInfo));
    if (!DTInfo_ReSize(info, maxsize)) {
        DTMem_LocalFree(info);
        return nullptr;
    }
    return info;
}

void DTInfo_Release(DTInfo *info) {
    if (info == nullptr) return;
    DTMem_Release(info->memory);
    DTMem_LocalFree(info);
}

void DTInfo_Clear(DTInfo *info) {
    if (info == nullptr) return;
    info->freeAddr = 0;
    info->useAddr = 0;
    info->freesize = cap_(info);
    if (info->memory != nullptr) memset(area_(info), kFreeMark, cap_(info));
}

int32_t DTInfo_ReSize(DTInfo *info, uint32_t maxsize) {
    if (info == nullptr) return 0;
    maxsize = maxsize > kMaxLimit ? kMaxLimit : roundUp_(maxsize);
    if (info->memory != nullptr) {
        if (maxsize == info->maxsize) return 1;
        if (maxsize == 0 || maxsize > cap_(info)) {
            info->maxsize = maxsize;
            DTInfo_Clear(info);
            return 1;
        }
        DTMem_Release(info->memory);
        info->memory = nullptr;
        DTInfo_Clear(info);
    }
    DTMemBlock *m = DTMem_New(kAreaStart, 0);
    if (m == nullptr) return 0;
    info->memory = m;
    info->maxsize = maxsize;
    DTInfo_Clear(info);
    return 1;
}

void DTInfo_Ignore(DTInfo *info, uint32_t value) {
    if (info != nullptr) info->ignore = value;
}

void DTInfo_SetFlag(DTInfo *info, uint32_t id, uint32_t action) {
    if (info == nullptr || id >= DTINFO_FLAG_COUNT) return;
    uint8_t bit = (uint8_t)(1u << (id % 8));
    switch (action) {
        case 1: info->flags[id / 8] |= bit; break;
        case 2: memset(info->flags, 0xFF, sizeof(info->flags)); break;
        case 3: memset(info->flags, 0, sizeof(info->flags)); break;
        default: info->flags[id / 8] &= (uint8_t)~bit; break;
    }
}

int32_t DTInfo_GetFlag(DTInfo *info, uint32_t id) {
    if (info == nullptr) return 0;
    if (id >= DTINFO_FLAG_COUNT) return 1;
    return (info->flags[id / 8] >> (id % 8)) & 1;
}

int32_t DTInfo_Append(DTInfo *info, const void *key, uint8_t keyLen, const void *data,
                      uint16_t dataLen) {
    if (info == nullptr) return -1;
    if (info->ignore != 0) return 0;
    if (!headerOk_(info)) return -1;
    // 255 would read back as the free-space mark and break every walk.
    if (keyLen == kFreeMark) return -1;
    if ((key == nullptr && keyLen != 0) || (data == nullptr && dataLen != 0)) return -1;
    uint32_t n = 3u + keyLen + dataLen;
    if (!makeRoom_(info, n)) return -1;
    putRecord_(area_(info) + info->freeAddr, key, keyLen, data, dataLen, nullptr, 0);
    advance_(info, n);
    return (int32_t)n;
}

int32_t DTInfo_Write(DTInfo *info, const char *key, const char *data) {
    if (key == nullptr) key = "";
    if (data == nullptr) data = "";
    return DTInfo_Append(info, key, (uint8_t)strlen(key), data, (uint16_t)strlen(data));
}

int32_t DTInfo_Append2Message(DTInfo *info, const void *key, uint8_t keyLen, const void *part1,
                              uint16_t len1, const void *part2, uint16_t len2) {
    if (info == nullptr) return 0;
    if (info->ignore != 0) return 1;
    if (!headerOk_(info) || keyLen == kFreeMark) return 0;
    if ((key == nullptr && keyLen != 0) || (part1 == nullptr && len1 != 0) ||
        (part2 == nullptr && len2 != 0))
        return 0;
    uint32_t dataLen = (uint32_t)len1 + len2;
    if (dataLen > 0xFFFFu) return 0;
    uint32_t n = 3u + keyLen + dataLen;
    if (!makeRoom_(info, n)) return 0;
    putRecord_(area_(info) + info->freeAddr, key, keyLen, part1, len1, part2, len2);
    advance_(info, n);
    return 1;
}

int32_t DTInfo_Get(DTInfo *info, const void *filter, uint32_t filterLen, uint32_t *cursor,
                   void **key, uint8_t *keyLen, void **data, uint16_t *dataLen) {
    if (info == nullptr || info->memory == nullptr || cursor == nullptr) return 0;
    if (filter != nullptr && filterLen == 0) filterLen = (uint32_t)strlen((const char *)filter);
    const uint32_t w = info->freeAddr, r = info->useAddr, cap = cap_(info);
    if (r == w && info->freesize != 0) return 0;
    uint8_t *a = area_(info);
    uint32_t p = *cursor;
    for (uint32_t guard = cap / 3 + 4; guard > 0; --guard) {
        if (p == DTINFO_START) {
            p = r;
        } else {
            if (p >= w && (w > r || p < r)) return 0;
            if (p >= cap || a[p] == kFreeMark) {
                p = 0;
                *cursor = 0;
                // Nothing was written below the oldest record yet.
                if (r == 0 || w == 0) return 0;
            } else if (p == r) {
                return 0;
            }
        }
        *cursor = p;
        if (p >= cap || a[p] == kFreeMark) return 0;
        uint32_t h = a[p];
        if ((uint64_t)p + 3 + h > cap) return 0;
        uint32_t b = readLen16_(a + p + 1 + h);
        uint32_t next = p + 3 + h + b;
        if (next > cap) return 0;
        *cursor = next;
        bool skip = filter != nullptr && filterLen > 0 &&
                    (h < filterLen || memcmp(a + p + 1, filter, filterLen) != 0);
        if (skip) {
            p = next;
            continue;
        }
        if (key != nullptr) *key = a + p + 1;
        if (keyLen != nullptr) *keyLen = (uint8_t)h;
        if (data != nullptr) *data = a + p + 3 + h;
        if (dataLen != nullptr) *dataLen = (uint16_t)b;
        return 1;
    }
    return 0;
}

void DTLogger_Dump(DTInfo *info) {
    if (info == nullptr) return;
    printf("logger info addr: 0x%x\n", (unsigned)(uintptr_t)info);
    printf("memory addr: 0x%x\n", (unsigned)(uintptr_t)info->memory);
    printf("memory size: %d\n", (int)cap_(info));
    printf("free addr:   %d\n", (int)info->freeAddr);
    printf("use  addr:   %d\n", (int)info->useAddr);
    printf("maxsize: %d\n", (int)info->maxsize);
    printf("freesize: %d\n", (int)info->freesize);
}

/* Packed records. */

int32_t DTInfo_PackPre(DTInfo *info, const char *key, uint32_t keyLen, uint32_t dataLen) {
    if (info == nullptr || info->ignore != 0 || !headerOk_(info) || key == nullptr) return 0;
    if (keyLen == 0) keyLen = (uint32_t)strlen(key);
    if (keyLen >= kFreeMark) return 0;
    uint32_t b = dataLen & 0xFFFFu;
    if (!makeRoom_(info, 3 + keyLen + b)) return 0;
    uint8_t *p = area_(info) + info->freeAddr;
    p[0] = (uint8_t)keyLen;
    memcpy(p + 1, key, keyLen);
    p[1 + keyLen] = (uint8_t)(b >> 8);
    p[2 + keyLen] = (uint8_t)b;
    advance_(info, 3 + keyLen);
    return 1;
}

void DTInfo_AddInfo(DTInfo *info, uint32_t type, uint32_t id, const void *s1, uint32_t len1,
                    const void *s2, uint32_t len2, const void *detail, uint32_t len3,
                    uint32_t value) {
    if (info == nullptr || info->ignore != 0) return;
    if (!DTInfo_GetFlag(info, id)) len3 = 0;
    if ((s1 == nullptr && len1 != 0) || (s2 == nullptr && len2 != 0) ||
        (detail == nullptr && len3 != 0))
        return;
    // The data length field has 16 bits; a longer record would overrun its reserved room.
    if (11ull + len1 + len2 + len3 > 0xFFFFu) return;
    char key[100];
    Lumo_snprintf(key, sizeof(key), "TBhI%dS%dS%dS", (int)len1, (int)len2, (int)len3);
    uint32_t size = DTBuffer_GetPackSize(key, nullptr);
    if (!DTInfo_PackPre(info, key, 0, size)) return;
    DTBuffer_Pack(area_(info) + info->freeAddr, key, (int)DTTime_Now(), (int)type, (int)id,
                  value, s1, s2, detail);
    advance_(info, size);
}

int32_t DTInfo_GetPack(DTInfo *info, uint32_t *cursor, char *format, void **data) {
    if (format == nullptr || data == nullptr) return 0;
    void *key = nullptr;
    uint8_t keyLen = 0;
    void *d = nullptr;
    if (!DTInfo_Get(info, "", 0, cursor, &key, &keyLen, &d, nullptr)) return 0;
    format[0] = '*';
    memcpy(format + 1, key, keyLen);
    format[keyLen + 1] = '\0';
    *data = d;
    return 1;
}

namespace {

const uint32_t kStringMax = 200;
const uint32_t kDetailMax = 2000;
const uint32_t kFilterDigits = 400;

// Parses a decimal run; false when there is none or it is absurdly long.
bool parseCount_(const char *&s, const char *end, uint32_t *out) {
    uint32_t v = 0;
    const char *start = s;
    while (s < end && *s >= '0' && *s <= '9' && s - start < 6) v = v * 10 + (uint32_t)(*s++ - '0');
    *out = v;
    return s > start && (s >= end || *s < '0' || *s > '9');
}

// Only "TBhI<n1>S<n2>S<n3>S" with fitting lengths and the matching data length is
// extracted: any other key would make the extraction read or write out of bounds.
bool addInfoShape_(const uint8_t *key, uint32_t keyLen, uint32_t dataLen, uint32_t n[3]) {
    const char *s = (const char *)key;
    const char *end = s + keyLen;
    if (keyLen < 4 || memcmp(s, "TBhI", 4) != 0) return false;
    s += 4;
    for (int i = 0; i < 3; ++i) {
        if (!parseCount_(s, end, &n[i]) || s >= end || *s != 'S') return false;
        ++s;
    }
    if (s != end) return false;
    if (n[0] >= kStringMax || n[1] >= kStringMax || n[2] >= kDetailMax) return false;
    return 11 + n[0] + n[1] + n[2] == dataLen;
}

uint32_t hexFilter_(const char *text, uint8_t *out) {
    if (text == nullptr) return 0;
    size_t len = strlen(text);
    if (len > kFilterDigits) len = kFilterDigits;
    uint32_t count = 0;
    for (size_t i = 0; i + 1 < len; i += 2) {
        char pair[3] = {text[i], text[i + 1], '\0'};
        out[count++] = (uint8_t)strtol(pair, nullptr, 16);
    }
    return count;
}

struct AddInfoRecord {
    int32_t time;
    uint8_t type;
    uint16_t id;
    uint32_t value;
    uint32_t len[3];
    char s1[kStringMax];
    char s2[kStringMax];
    char detail[kDetailMax];
};

bool startsWith_(const char *bytes, uint32_t len, const uint8_t *prefix, uint32_t prefixLen) {
    return prefixLen == 0 || (len >= prefixLen && memcmp(bytes, prefix, prefixLen) == 0);
}

}  // namespace

void DTInfo_ShowInfo(DTInfo *info, int32_t id, const char *s1Filter, const char *s2Filter,
                     uint32_t value, uint32_t type, uint32_t skip, uint32_t limit) {
    if (info == nullptr) return;
    uint8_t f1[kFilterDigits / 2];
    uint8_t f2[kFilterDigits / 2];
    uint32_t f1Len = hexFilter_(s1Filter, f1);
    uint32_t f2Len = hexFilter_(s2Filter, f2);
    AddInfoRecord rec;
    uint32_t count = 0;
    uint32_t cursor = DTINFO_START;
    void *key;
    uint8_t keyLen;
    void *data;
    uint16_t dataLen;
    while (DTInfo_Get(info, "", 0, &cursor, &key, &keyLen, &data, &dataLen)) {
        if (!addInfoShape_((const uint8_t *)key, keyLen, dataLen, rec.len)) continue;
        char format[2 + 255];
        format[0] = '*';
        memcpy(format + 1, key, keyLen);
        format[keyLen + 1] = '\0';
        DTBuffer_UNPack(format + 1, data, &rec.time, &rec.type, &rec.id, &rec.value, rec.s1,
                        rec.s2, rec.detail);
        if (id != -1 && rec.id != (uint16_t)id) continue;
        if (!startsWith_(rec.s1, rec.len[0], f1, f1Len)) continue;
        if (!startsWith_(rec.s2, rec.len[1], f2, f2Len)) continue;
        if (value == 0xFFFFFFFFu ? rec.value == 0 : (value != 0 && rec.value != value)) continue;
        if (type != 0 && rec.type != type) continue;
        ++count;
        if (count <= skip || (limit != 0 && count > limit)) continue;
        DTPrint_Show(DTString_SFormat("index=%d,", (int)count), 0);
        DTBuffer_UNPack(format, data);
    }
    DTPrint_Show(DTString_SFormat("Total count %d", (int)count), 0);
}
