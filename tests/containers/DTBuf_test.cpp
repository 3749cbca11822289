#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "containers/DTBuf.h"
#include "dttest.h"

static std::string Contents(DTBuf *buf, uint32_t bytes) {
    void *p = nullptr;
    DTBuf_Get(buf, 0, &p);
    return p ? std::string((const char *)p, bytes) : "";
}

// Untestable by design: refusing a storage size of exactly 0xFFFFFFFF before the
// allocator or letting the allocator refuse it (it never asks the platform) is the same.
TEST(DTBuf, GrowsByStepZeroFilledGetSetClearAndRefusals) {
    DTBuf *buf = DTBuf_New(1, 16, 0);
    const std::string text = "abcdefghijklmnopqrst";
    EXPECT_EQ(1, DTBuf_Set(buf, 10, "xy", 2));
    EXPECT_EQ(0u, DTBuf_Length(buf));
    const uint32_t calls = dttest::MallocCalls();
    EXPECT_EQ(1, DTBuf_Append(buf, text.c_str(), 0));
    EXPECT_EQ(1, DTBuf_Append(buf, text.c_str(), 20));
    EXPECT_EQ(std::string(text + text + std::string(8, '\0')), Contents(buf, 48));
    EXPECT_EQ(1, DTBuf_Append(buf, "12345678", 0));  // fills 48
    EXPECT_EQ(2u, dttest::MallocCalls() - calls);  // 16 -> 32 -> 48 only
    void *p = &p;
    EXPECT_EQ(2, DTBuf_Get(buf, 47, &p));
    EXPECT_EQ('8', *(char *)p);
    EXPECT_EQ(0, DTBuf_Get(buf, 48, &p));
    EXPECT_EQ(nullptr, p);
    DTBuf_Clear(buf);
    DTBuf_Append(buf, "ab", 0);
    EXPECT_EQ(std::string("ab\0\0", 4), Contents(buf, 4));  // emptied and zeroed, from the start again
    DTBuf_Release(buf);

    buf = DTBuf_New(4, 0, 0);  // no step at all: grows to the exact size
    const uint32_t words[3] = {1, 2, 3};
    EXPECT_EQ(1, DTBuf_Append(buf, words, 3));
    EXPECT_EQ(4, DTBuf_Get(buf, 0, nullptr));
    EXPECT_EQ(std::string((const char *)words, 12), Contents(buf, 12));
    const uint32_t nine = 9;
    EXPECT_EQ(1, DTBuf_Set(buf, 2, &nine, 1));  // offsets count elements, not bytes
    EXPECT_EQ(2, DTBuf_Get(buf, 2, &p));
    EXPECT_EQ(0, memcmp(p, &nine, 4));
    EXPECT_EQ(1, DTBuf_Append(buf, words, 1));  // a grown copy keeps whole elements
    EXPECT_EQ(0, memcmp(Contents(buf, 8).data(), words, 8));
    DTBuf_Release(buf);
    EXPECT_EQ(nullptr, DTBuf_New(0, 4, 4));
    p = &p;
    int32_t results[] = {DTBuf_Append(nullptr, "x", 0), DTBuf_Set(nullptr, 0, "x", 1), DTBuf_Get(nullptr, 0, &p),
                         (int32_t)DTBuf_Length(nullptr)};
    for (int32_t k = 0; k < 4; ++k) EXPECT_EQ(0, results[k]) << "null handle, call " << k;
    EXPECT_EQ(&p, p);
    DTBuf_Clear(nullptr);
    DTBuf_Release(nullptr);
}
