#include "containers/DTMD5.h"

#include <gtest/gtest.h>

#include <cstdio>

static std::string Counting(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i);
    return s;
}

// The state words as hex text, then the sum.
static std::string Digest(const std::string &in) {
    DTMD5 c;
    DTMD5_Init(&c);
    DTMD5_Encode(c.state, in.data(), static_cast<uint32_t>(in.size()));
    char hex[48];
    snprintf(hex, sizeof hex, "%08x %08x %08x %08x %08x", c.state[0], c.state[1], c.state[2], c.state[3],
             c.state[0] + c.state[1] + c.state[2] + c.state[3]);
    return hex;
}

TEST(DTMD5, ReferenceValuesAndRefusals) {
    EXPECT_EQ(Digest(""), "a8f5e99c 3ea1b463 93fc8d0f 54e4ff11 d0792a1f");
    EXPECT_EQ(Digest("abcd"), "f2ff3e17 522de7ca 623f2674 a1e5c029 49520c7e");
    EXPECT_EQ(Digest("hello"), "2de078d4 500e4e5b b39306c8 63c12354 9542f14b");
    EXPECT_EQ(Digest(Counting(40)), "38d27754 e2269057 47138e87 671afb1c c927914e");
    EXPECT_EQ(DTMD5_Hash("hello", 5, 1000003u), 0x9542f14bu % 1000003u);
    for (size_t n : {41u, 64u, 200u}) EXPECT_EQ(Digest(Counting(n)), Digest(Counting(40))) << n;
    DTMD5 c = {{~0u, ~0u}, {}};
    DTMD5_Init(&c);
    DTMD5_Encode(c.state, nullptr, 10);
    EXPECT_EQ(c.state[0], 0x67452301u);
    EXPECT_EQ(c.bitCount[0], 0u);
    DTMD5_Encode(nullptr, "abcd", 4);
    DTMD5_Init(nullptr);
    EXPECT_EQ(DTMD5_Hash(nullptr, 4, 97), 0u);
    EXPECT_EQ(DTMD5_Hash("abcd", 4, 0), 0u);  // no division by zero
}
