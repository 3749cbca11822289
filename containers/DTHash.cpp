#include "containers/DTHash.h"

#include <string.h>

#include "containers/DTList.h"
#include "containers/DTList_internal.h"
#include "containers/DTMD5.h"
#include "foundation/DTMem.h"
#include "foundation/DTPrint.h"
#include "foundation/DTString.h"
#include "platform/DTPlatform.h"
#include "records/DTBuffer.h"

// Everything here lives in accounted memory, which is only 4-byte aligned on
// a 64-bit host; a bucket is wrapped in a struct so that the pointer it holds
// is read and written at that alignment too.
#pragma pack(push, 4)
typedef struct DTHashBucket {
    DTList *list;
} DTHashBucket;

struct DTHash {
    DTHashBucket *buckets;
    uint32_t bucketCount;
    DTHashFn hashFn;
    uint32_t keyLen;
    uint32_t valueLen;
    uint32_t isStatic;
};

// Search key handed to the bucket lists' comparison.
typedef struct DTHashKey {
    uint32_t keyLen;
    const void *key;
} DTHashKey;

// What DTHash_PreFind needs to turn a list comparison into a visit.
typedef struct DTHashVisit {
    DTHash *table;
    DTHashVisitFn visit;
    void *arg;
} DTHashVisit;
#pragma pack(pop)

namespace {

int DTHash_Cmp(void *entry, void *keyRecord) {
    const DTHashKey *k = static_cast<const DTHashKey *>(keyRecord);
    return memcmp(entry, k->key, k->keyLen);
}

int DTHash_PreFind(void *entry, void *visitRecord) {
    const DTHashVisit *v = static_cast<const DTHashVisit *>(visitRecord);
    uint8_t *bytes = static_cast<uint8_t *>(entry);
    return v->visit(bytes, bytes + v->table->keyLen, v->arg);
}

void DTHash_ShowNode(DTHash *h, uint8_t *entry) {
    char fmt[100];
    DTPrint_Show(DTString_SFormat("key=>\n"), 0);
    Lumo_snprintf(fmt, sizeof fmt, "*%dS", (int)h->keyLen);
    DTBuffer_UNPack(fmt, entry);
    DTPrint_Show(DTString_SFormat("result=>\n"), 0);
    Lumo_snprintf(fmt, sizeof fmt, "*%dS", (int)h->valueLen);
    DTBuffer_UNPack(fmt, entry + h->keyLen);
    DTPrint_Show(DTString_SFormat("-----------------------------------------\n"), 0);
}

// Used as a list comparison that never matches, so that DTList_Find walks
// a whole bucket once instead of seeking every position from the head.
int ShowEach_(void *entry, void *table) {
    DTHash_ShowNode(static_cast<DTHash *>(table), static_cast<uint8_t *>(entry));
    return 1;
}

// Power-of-two tables (the usual choice) mask instead of dividing: the
// result is the same remainder, without a divide on the lookup path.
// The fields are read again after the call, so that only the table's
// address has to survive it: fewer registers to save on every lookup.
inline uint32_t BucketOf_(const DTHash *h, const void *key) {
    uint32_t v = h->hashFn(key, h->keyLen, h->bucketCount);
    uint32_t n = h->bucketCount;
    return (n & (n - 1)) == 0 ? v & (n - 1) : v % n;
}

// Hint to fetch the cache line around an address. Addresses are computed as
// plain numbers: the guesses below may point outside any object, which a
// prefetch tolerates (it never faults) but pointer arithmetic would not.
inline void Prefetch_(const void *p, intptr_t offset) {
    __builtin_prefetch(reinterpret_cast<const void *>(reinterpret_cast<uintptr_t>(p) + offset));
}

// Set allocates a new bucket's list, then the entry, then the node, and
// each later key's entry right before its node, so neighbours in memory are
// usually what the walk reads next. Asking for them as soon as an address is
// known overlaps those fetches instead of chaining them.
inline void PrefetchNode_(const DTListNode *node) {
    Prefetch_(node, 0);
    Prefetch_(node, -32);
}

// The bucket walk of DTList_Find with DTHash_Cmp, done here over the node
// layout so that each node costs its own load and its entry's, and nothing
// else. Bucket lists only ever hold entries, never 0. The common key sizes
// compare as one plain load against a word read once; the same bytes as
// DTHash_Cmp's memcmp, without a library call per node.
template <typename Word>
inline uint8_t *FindWord_(const DTListNode *node, const void *key) {
    Word want;
    memcpy(&want, key, sizeof want);
    for (; node; node = node->next) {
        Prefetch_(node, -32);
        PrefetchNode_(node->next);
        uint8_t *entry = static_cast<uint8_t *>(node->item);
        Word have;
        memcpy(&have, entry, sizeof have);
        if (have == want) return entry;
    }
    return nullptr;
}

// Other key sizes, out of line so that the common sizes' walk needs no
// more registers than it uses.
__attribute__((noinline)) uint8_t *FindBytes_(const DTListNode *node, const void *key, uint32_t len) {
    for (; node; node = node->next) {
        Prefetch_(node, -32);
        PrefetchNode_(node->next);
        uint8_t *entry = static_cast<uint8_t *>(node->item);
        if (memcmp(entry, key, len) == 0) return entry;
    }
    return nullptr;
}

inline uint8_t *FindEntry_(const DTHash *h, const DTList *list, const void *key) {
    Prefetch_(list, 48);
    Prefetch_(list, 96);
    const DTListNode *head = list->head;
    switch (h->keyLen) {
    case 8:
        return FindWord_<uint64_t>(head, key);
    case 4:
        return FindWord_<uint32_t>(head, key);
    default:
        return FindBytes_(head, key, h->keyLen);
    }
}

// DTList_Push for a bucket list, which never has a limit: the node is made
// exactly as the list makes it (pool or counted, by its release function)
// and linked at the head, without the three calls in between.
inline int32_t PushEntry_(DTList *list, uint8_t *entry) {
    void *mem = list->freeItem ? DTMem_Malloc(0, sizeof(DTListNode))
                               : DTMem_LocalMalloc_Static(sizeof(DTListNode));
    if (!mem) return 0;
    DTListNode *node = static_cast<DTListNode *>(mem);
    node->item = entry;
    node->next = list->head;
    list->head = node;
    list->count++;
    return 1;
}

}  // namespace

extern "C" {

DTHash *DTHash_NewEx(uint32_t keyLen, uint32_t valueLen, uint32_t bucketCount, DTHashFn hashFn,
                     uint32_t isStatic) {
    // An entry is one block of keyLen + valueLen bytes; a sum that wraps
    // would make every copy into it overrun.
    if (keyLen + valueLen < keyLen) return nullptr;
    if (bucketCount > UINT32_MAX / sizeof(DTHashBucket)) return nullptr;
    DTHash *h = static_cast<DTHash *>(DTMem_LocalMalloc(sizeof(DTHash)));
    if (!h) return nullptr;
    h->hashFn = hashFn ? hashFn : DTMD5_Hash;
    h->keyLen = keyLen;
    h->valueLen = valueLen;
    h->isStatic = isStatic;
    h->bucketCount = bucketCount;
    h->buckets = nullptr;
    // Without buckets there is nowhere to put a key: such a table stays empty.
    if (bucketCount == 0) return h;
    uint32_t bytes = bucketCount * (uint32_t)sizeof(DTHashBucket);
    h->buckets = static_cast<DTHashBucket *>(DTMem_LocalMalloc(bytes));
    if (!h->buckets) {
        DTMem_LocalFree(h);
        return nullptr;
    }
    memset(h->buckets, 0, bytes);
    return h;
}

DTHash *DTHash_New(uint32_t keyLen, uint32_t valueLen, uint32_t bucketCount, DTHashFn hashFn) {
    return DTHash_NewEx(keyLen, valueLen, bucketCount, hashFn, 0);
}

int32_t DTHash_Set(DTHash *h, const void *key, const void *value) {
    if (!h || !key || !value || h->bucketCount == 0) return 0;
    // One hash serves both the search and a new bucket list.
    uint32_t b = BucketOf_(h, key);
    DTHashBucket *bucket = &h->buckets[b];
    DTList *list = bucket->list;
    if (list) {
        uint8_t *entry = FindEntry_(h, list, key);
        if (entry) {
            memcpy(entry + h->keyLen, value, h->valueLen);
            return 1;
        }
    } else {
        list = DTList_New(0, h->isStatic ? nullptr : DTMem_LocalFree);
        if (!list) return 0;
        bucket->list = list;
    }
    uint32_t size = h->keyLen + h->valueLen;
    // Owner 0 directly: the same block and count as DTMem_LocalMalloc, one call less.
    void *mem = h->isStatic ? DTMem_LocalMalloc_Static(size) : DTMem_Malloc(0, size);
    if (!mem) return 0;
    uint8_t *entry = static_cast<uint8_t *>(mem);
    memcpy(entry, key, h->keyLen);
    memcpy(entry + h->keyLen, value, h->valueLen);
    if (PushEntry_(list, entry)) return 1;
    // The list could not take it; a pool entry cannot go back, an ordinary one must.
    if (!h->isStatic) DTMem_LocalFree(entry);
    return 0;
}

int32_t DTHash_Get(DTHash *h, const void *key, void **value) {
    if (!h) return 0;
    uint8_t *entry = nullptr;
    if (key && h->bucketCount != 0) {
        uint32_t b = BucketOf_(h, key);
        DTList *list = h->buckets[b].list;
        if (list) entry = FindEntry_(h, list, key);
    }
    if (value) *value = entry ? entry + h->keyLen : nullptr;
    return entry ? 1 : 0;
}

void DTHash_Delete(DTHash *h, const void *key) {
    if (!h || !key || h->bucketCount == 0) return;
    DTList *list = h->buckets[BucketOf_(h, key)].list;
    if (!list) return;
    DTHashKey k = {h->keyLen, key};
    int32_t pos = DTList_FindPos(list, DTHash_Cmp, &k);
    if (pos < 0) return;
    // A static bucket list refuses to give the entry up, so nothing is freed.
    void *entry = DTList_Remove(list, pos);
    if (entry) DTMem_LocalFree(entry);
}

void *DTHash_Find(DTHash *h, DTHashVisitFn visit, void *arg) {
    if (!h || !visit || h->bucketCount == 0) return nullptr;
    DTHashVisit v = {h, visit, arg};
    for (uint32_t b = 0; b < h->bucketCount; ++b) {
        DTList *list = h->buckets[b].list;
        if (!list) continue;
        void *entry = DTList_Find(list, DTHash_PreFind, &v);
        if (entry) return entry;
    }
    return nullptr;
}

void DTHash_Show(DTHash *h) {
    if (!h || h->bucketCount == 0) return;
    for (uint32_t b = 0; b < h->bucketCount; ++b) {
        DTList *list = h->buckets[b].list;
        if (list) DTList_Find(list, ShowEach_, h);
    }
}

void DTHash_ShowDepth(DTHash *h) {
    if (!h || h->bucketCount == 0) return;
    for (uint32_t b = 0; b < h->bucketCount; ++b) {
        DTList *list = h->buckets[b].list;
        if (!list) continue;
        DTPrint_Show(DTString_SFormat("pos=%d,length=%d\n", (int)b, (int)DTList_Length(list)), 0);
    }
}

void DTHash_Release(DTHash *h) {
    if (!h || h->isStatic) return;
    for (uint32_t b = 0; b < h->bucketCount; ++b) DTList_Release(h->buckets[b].list);
    DTMem_LocalFree(h->buckets);
    DTMem_LocalFree(h);
}

}  // extern "C"
