// Key comparison and bucket choice for key sizes and bucket counts beyond
// the 4-byte keys of the main table tests, and the digest's word loading
// for every input length it reads.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "containers/DTHash.h"
#include "containers/DTMD5.h"
#include "dttest.h"

namespace {

// Every key in one bucket, so a lookup has to tell keys apart by their bytes.
uint32_t SameBucket(const void *, uint32_t, uint32_t) { return 0xFFFFFFFFu; }
// Large numbers, so the reduction to a bucket matters.
uint32_t FirstByteHigh(const void *key, uint32_t, uint32_t) {
    return 0xFFFFFF00u + *static_cast<const uint8_t *>(key);
}

std::vector<uint8_t> Key(uint32_t len, uint32_t pos, uint8_t byte) {
    std::vector<uint8_t> k(len, 0x5A);
    k[pos] = byte;
    return k;
}

uint32_t ValueOf(DTHash *h, const std::vector<uint8_t> &key) {
    void *v = nullptr;
    if (!DTHash_Get(h, key.data(), &v)) return ~0u;
    uint32_t x;
    memcpy(&x, v, 4);
    return x;
}

TEST(DTHashKeys, EveryKeyByteTellsKeysApart) {
    for (uint32_t len : {1u, 3u, 4u, 5u, 8u, 12u, 40u}) {
        DTHash *h = DTHash_New(len, 4, 7, SameBucket);
        ASSERT_NE(h, nullptr) << len;
        // Keys that differ in one byte only, at every position in turn.
        for (uint32_t pos = 0; pos < len; ++pos) {
            uint32_t v = pos;
            ASSERT_EQ(DTHash_Set(h, Key(len, pos, 0x11).data(), &v), 1) << len;
        }
        for (uint32_t pos = 0; pos < len; ++pos) {
            EXPECT_EQ(ValueOf(h, Key(len, pos, 0x11)), pos) << "len " << len << " pos " << pos;
            EXPECT_EQ(ValueOf(h, Key(len, pos, 0x12)), ~0u) << "len " << len << " pos " << pos;
        }
        // Replacing goes to the matching entry, not the first one in the bucket.
        uint32_t v = 99;
        EXPECT_EQ(DTHash_Set(h, Key(len, 0, 0x11).data(), &v), 1) << len;
        EXPECT_EQ(ValueOf(h, Key(len, 0, 0x11)), 99u) << len;
        EXPECT_EQ(ValueOf(h, Key(len, len - 1, 0x11)), len == 1 ? 99u : len - 1) << len;
        DTHash_Release(h);
    }
    EXPECT_EQ(dttest::LiveBlocks(), 0);
}

TEST(DTHashKeys, BucketIsTheHashModuloTheCount) {
    struct Case {
        uint32_t buckets;
        uint8_t first;
        const char *line;
    };
    // Odd counts divide; a masking shortcut would give 2, 0, 1 and 1 for them.
    const Case cases[] = {{7, 0x03, "pos=3,length=1\n"},  {7, 0x10, "pos=2,length=1\n"},
                          {10, 0x03, "pos=3,length=1\n"}, {12, 0x21, "pos=9,length=1\n"},
                          {16, 0x03, "pos=3,length=1\n"}, {16, 0xFF, "pos=15,length=1\n"},
                          {1, 0x03, "pos=0,length=1\n"}};
    for (const Case &c : cases) {
        DTHash *h = DTHash_New(8, 4, c.buckets, FirstByteHigh);
        std::vector<uint8_t> key = Key(8, 0, c.first);
        uint32_t v = 1;
        ASSERT_EQ(DTHash_Set(h, key.data(), &v), 1) << c.buckets;
        dttest::ClearConsole();
        DTHash_ShowDepth(h);
        EXPECT_EQ(dttest::ConsoleText(), c.line) << c.buckets << " buckets, first byte " << int(c.first);
        EXPECT_EQ(ValueOf(h, key), 1u) << c.buckets;
        DTHash_Release(h);
    }
}

std::string Digest(const std::vector<uint8_t> &in) {
    DTMD5 c;
    DTMD5_Init(&c);
    DTMD5_Encode(c.state, in.data(), static_cast<uint32_t>(in.size()));
    char hex[40];
    snprintf(hex, sizeof hex, "%08x %08x %08x %08x", c.state[0], c.state[1], c.state[2], c.state[3]);
    return hex;
}

TEST(DTHashKeys, DigestReadsEachOfTheFirstFortyBytesInPlace) {
    for (uint32_t n = 1; n <= 44; ++n) {
        std::vector<uint8_t> in(n);
        for (uint32_t i = 0; i < n; ++i) in[i] = uint8_t(0xA0 + i);
        // A short input digests as itself followed by zero bytes up to 40,
        // whether its last word is whole or not.
        std::vector<uint8_t> padded(in);
        padded.resize(n < 40 ? 40 : n, 0);
        EXPECT_EQ(Digest(in), Digest(padded)) << n;
        // Every byte it reads counts, each in its own place.
        for (uint32_t i = 0; i < n && i < 40; ++i) {
            std::vector<uint8_t> changed(in);
            changed[i] ^= 0x01;
            EXPECT_NE(Digest(changed), Digest(in)) << "length " << n << " byte " << i;
        }
    }
}

}  // namespace
