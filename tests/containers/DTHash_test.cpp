#include "containers/DTHash.h"

#include <gtest/gtest.h>

#include <cstring>

#include "dttest.h"

namespace {

using Lines = std::vector<std::string>;

// Keys and values are native 4-byte numbers; the bucket is the key's top byte.
uint32_t U32(const void *p) {
    uint32_t x;
    memcpy(&x, p, 4);
    return x;
}
uint32_t TopByte(const void *key, uint32_t, uint32_t) { return U32(key) >> 24; }
// Every key in one bucket, so a lookup has to tell keys apart by their bytes.
uint32_t SameBucket(const void *, uint32_t, uint32_t) { return 0xFFFFFFFFu; }
uint32_t FirstByte(const void *key, uint32_t, uint32_t) { return *static_cast<const uint8_t *>(key); }
int32_t Set(DTHash *h, uint32_t key, uint32_t value) { return DTHash_Set(h, &key, &value); }
void Del(DTHash *h, uint32_t key) { DTHash_Delete(h, &key); }
// The value, or -1 when missing (then the out pointer must have been nulled).
int64_t Get(DTHash *h, const void *key) {
    void *v = &v;
    return DTHash_Get(h, key, &v) ? int64_t(U32(v)) : v == nullptr ? -1 : -2;
}
int64_t Get(DTHash *h, uint32_t key) { return Get(h, &key); }
std::vector<uint8_t> Key(uint32_t len, uint32_t pos, uint8_t byte) {
    std::vector<uint8_t> k(len, 0x5A);
    k[pos] = byte;
    return k;
}

std::vector<uint32_t> g_visited;
int32_t Visit(const void *key, void *value, void *want) {
    g_visited.push_back(U32(key));
    EXPECT_EQ(U32(value), U32(key) + 1) << "the value follows its key";
    return U32(key) == *static_cast<uint32_t *>(want) ? 0 : 1;
}

TEST(DTHash, EveryKeyByteTellsKeysApart) {
    for (uint32_t len : {1u, 3u, 4u, 5u, 8u, 12u, 40u}) {
        SCOPED_TRACE("key length " + std::to_string(len));
        DTHash *h = DTHash_New(len, 4, 7, SameBucket);
        // Keys that differ in one byte only, at every position in turn.
        for (uint32_t pos = 0; pos < len; ++pos) ASSERT_EQ(DTHash_Set(h, Key(len, pos, 0x11).data(), &pos), 1);
        for (uint32_t pos = 0; pos < len; ++pos) {
            EXPECT_EQ(Get(h, Key(len, pos, 0x11).data()), pos) << "pos " << pos;
            EXPECT_EQ(Get(h, Key(len, pos, 0x12).data()), -1) << "pos " << pos;
        }
        // Replacing goes to the matching entry, not the first one in the bucket.
        uint32_t v = 99;
        EXPECT_EQ(DTHash_Set(h, Key(len, 0, 0x11).data(), &v), 1);
        EXPECT_EQ(Get(h, Key(len, 0, 0x11).data()), 99);
        DTHash_Release(h);
    }
}

// The lookup's prefetches are hints: without any of them, or at another distance
// (DTHash.cpp:112), every answer is the same. Show's walk only needs a nonzero answer
// from its comparison to go on (DTHash.cpp:73: -1 walks as 1 does).
TEST(DTHash, FindAndShowGoByBucketThenNewestFirstAndRefusals) {
    DTHash *h = DTHash_New(4, 4, 4, TopByte);
    // Replacing the oldest key keeps its single entry where it was.
    for (uint32_t key : {0x02000001u, 0x00000001u, 0x02000002u, 0x05000001u, 0x00000002u, 0x02000001u})
        ASSERT_EQ(Set(h, key, key + 1), 1);
    uint32_t want = 0;
    EXPECT_EQ(DTHash_Find(h, Visit, &want), nullptr);
    EXPECT_EQ(g_visited, (std::vector<uint32_t>{2, 1, 0x05000001u, 0x02000002u, 0x02000001u}));
    g_visited.clear();
    want = 0x05000001u;
    EXPECT_EQ(U32(DTHash_Find(h, Visit, &want)), want);
    EXPECT_EQ(g_visited.size(), 3u);
    DTHash_ShowDepth(h);
    Del(h, 0x05000001u);
    Del(h, 0x05000002u);  // not there: nothing happens
    EXPECT_EQ(Get(h, 0x05000001u), -1);
    DTHash_ShowDepth(h);  // the emptied bucket keeps its list
    EXPECT_EQ(dttest::Console(), (Lines{"pos=0,length=2\n", "pos=1,length=1\n", "pos=2,length=2\n",
                                        "pos=0,length=2\n", "pos=1,length=0\n", "pos=2,length=2\n"}));
    EXPECT_EQ(DTHash_Set(h, nullptr, &want), 0);
    EXPECT_EQ(DTHash_Set(h, &want, nullptr), 0);
    EXPECT_EQ(Get(h, nullptr), -1);
    EXPECT_EQ(DTHash_Find(h, nullptr, nullptr), nullptr) << "no visitor, with buckets to visit";
    DTHash_Delete(h, nullptr);
    DTHash_Release(h);

    // Four buckets mask: with any other mask the newer key would come first.
    h = DTHash_New(4, 2, 4, FirstByte);
    ASSERT_EQ(DTHash_Set(h, "\x01\0\x01\x02", "\xFF\0"), 1);
    ASSERT_EQ(DTHash_Set(h, "\x02\0\0\x07", "\x12\x34"), 1);
    dttest::ClearConsole();
    DTHash_Show(h);
    const std::string d = std::string(41, '-') + "\n";
    EXPECT_EQ(dttest::Console(),
              (Lines{"key=>\n", "format:*4S\n", "0001[4S]=>\n", "01 00 01 02 \n", "result=>\n", "format:*2S\n",
                     "0001[2S]=>\n", "FF 00 \n", d, "key=>\n", "format:*4S\n", "0001[4S]=>\n", "02 00 00 07 \n",
                     "result=>\n", "format:*2S\n", "0001[2S]=>\n", "12 34 \n", d}));
    DTHash_Release(h);

    void *out = &want;
    EXPECT_EQ(DTHash_Get(nullptr, &want, &out), 0);
    EXPECT_EQ(out, &want);  // a null table leaves the out pointer alone
    EXPECT_EQ(DTHash_New(0xFFFFFFF0u, 0x20, 8, nullptr), nullptr);  // entry size wraps
    EXPECT_EQ(DTHash_New(4, 4, 0x7FFFFFFFu, nullptr), nullptr);     // bucket array wraps
    DTHash_Show(nullptr);
    DTHash_ShowDepth(nullptr);

    // No buckets: nowhere to put a key (a bucket looked up there would be a crash). Find and
    // the shows skip their guard harmlessly here: an empty loop is the same.
    h = DTHash_New(4, 4, 0, TopByte);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(Set(h, 1, 1), 0);
    EXPECT_EQ(Get(h, 1), -1);
    Del(h, 1);
    DTHash_Release(h);
}

}  // namespace
