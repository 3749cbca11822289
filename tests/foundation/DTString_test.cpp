#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/DTString.h"

TEST(DTString, HexDumpSharedBuffersAndSplitInPlace) {
    uint8_t bytes[40];
    for (int i = 0; i < 40; ++i) bytes[i] = static_cast<uint8_t>(i * 0x11);
    char out[200];
    struct { int32_t len; size_t chars, newlines; } cases[] = {{-3, 0, 0}, {0, 0, 0}, {1, 3, 0}, {16, 48, 0}, {17, 52, 1}, {32, 97, 1}, {33, 101, 2}};
    for (const auto &c : cases) {
        memset(out, 'Z', sizeof out);
        std::string s = DTString_HFormat(out, bytes, c.len);
        EXPECT_EQ(s.size(), c.chars) << c.len;
        EXPECT_EQ(size_t(std::count(s.begin(), s.end(), '\n')), c.newlines) << c.len;
        EXPECT_EQ(out[c.chars + 1], 'Z') << c.len;  // nothing written past the zero
    }
    EXPECT_STREQ(DTString_HFormat(out, bytes, 17), "00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF \n10 ");
    // Shared buffers: a hex buffer one byte larger would change nothing, as dumps stop at 3265 bytes.
    char *first = DTString_SFormat("%d-%s", 7, "x");
    EXPECT_EQ(DTString_SFormat("%s", "second"), first);
    EXPECT_STREQ(first, "second");
    EXPECT_EQ(DTString_SFormat(nullptr), first);
    EXPECT_STREQ(first, "") << "no format: emptied";
    EXPECT_EQ(strlen(DTString_SFormat("%s", std::string(1500, 'L').c_str())), 999u);
    std::vector<uint8_t> big(4000, 0xEE);
    char *dump = DTString_SHFormat(big.data(), 3265);
    EXPECT_EQ(strlen(dump), 9999u);
    EXPECT_EQ(DTString_SHFormat(big.data(), 4000), dump);
    EXPECT_EQ(strlen(dump), 9999u);  // cut at what the shared buffer holds
    EXPECT_EQ(DTString_Format(out, "%s=%04x", "id", 0x2a), out);
    EXPECT_STREQ(out, "id=002a");
    // Splitting in place.
    struct { const char *text, *sep; int32_t max; std::vector<std::string> parts; } splits[] = {
        {"a,b,c", ",", 0, {"a", "b", "c"}}, {"a,b,c", ",", 2, {"a", "b,c"}}, {"a,b,c", ",", -1, {"a,b,c"}},
        {"key==value", "==", 0, {"key", "value"}}, {"", ",", 0, {""}}, {"a,,b", ",", 0, {"a", "", "b"}},
        {"a==", "==", 0, {"a", ""}}, {"abc", "", 0, {"abc"}}, {",a", ",", 0, {"", "a"}},
    };
    for (const auto &c : splits) {
        char str[32];
        strcpy(str, c.text);
        char *parts[8];
        std::fill(parts, parts + 8, str + 31);
        int32_t n = DTString_Split(str, c.sep, parts, c.max);
        ASSERT_EQ(n, int32_t(c.parts.size())) << c.text;
        for (int32_t i = 0; i < n; ++i) EXPECT_EQ(parts[i], c.parts[i]) << c.text << " part " << i;
        EXPECT_EQ(parts[n], str + 31) << c.text;  // nothing stored beyond the count
    }
    char str[] = "a,b";
    char *parts[2];
    for (int32_t n : {DTString_Split(nullptr, ",", parts, 0), DTString_Split(str, nullptr, parts, 0),
                      DTString_Split(str, ",", nullptr, 0)})
        EXPECT_EQ(n, 0);
    DTString_Trim(str, 1);
    EXPECT_STREQ(str, "a,b");
}
