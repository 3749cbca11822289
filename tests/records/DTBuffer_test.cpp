#include "records/DTBuffer.h"

#include <gtest/gtest.h>

#include <time.h>

#include "dttest.h"

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

// Counts past 2^31 are empty fields; totals past 2^32 - 1 refuse the whole format.
TEST(DTBuffer, PackAndExtract) {
    uint8_t buf[32];
    memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(15u, DTBuffer_Pack(buf, "I H-B h2si", 0x12345678u, 0x1234, 0x1FF, -2, "xyz", -3));
    EXPECT_EQ((Bytes{0x12, 0x34, 0x56, 0x78, 0x12, 0x34, 0xFF, 0xFF, 0xFE, 'x', 'y', 0xFF, 0xFF, 0xFF, 0xFD, 0xEE}),
              Bytes(buf, buf + 16));
    EXPECT_EQ(0u, DTBuffer_Pack(nullptr, "I", 1));
    EXPECT_EQ(0, DTBuffer_UNPack(nullptr, buf));
    EXPECT_EQ(0, DTBuffer_UNPack("B", nullptr));

    EXPECT_EQ(14u, DTBuffer_Pack(buf, "bHi2S5sS", 200, 0xBEEF, -5, "\x01\x02", "abcde", "x"));
    struct { uint8_t b; uint16_t H; int32_t i; } v{};
    char S[3], s[6] = "#####", empty[2] = "?";
    EXPECT_EQ(6, DTBuffer_UNPack("bHi2S5sS", buf, &v.b, &v.H, &v.i, S, s, empty));
    EXPECT_EQ(200, v.b);
    EXPECT_EQ(0xBEEF, v.H);
    EXPECT_EQ(-5, v.i);
    EXPECT_EQ(0, memcmp(S, "\x01\x02", 3));
    EXPECT_EQ(0, memcmp(s, "abcde", 6));
    EXPECT_STREQ("", empty);
    EXPECT_EQ(2147483647u, DTBuffer_GetPackSize("2147483647S", nullptr));  // the largest count
    EXPECT_EQ(0xFFFFFFFFu, DTBuffer_GetPackSize("2147483647S2147483647S1S", nullptr));  // the largest total
    // One byte more: nothing packed, nothing read.
    EXPECT_EQ(0u, DTBuffer_Pack(buf, "B2147483647S2147483647S1S", 7, "a", "b", "c"));
    EXPECT_EQ(0, DTBuffer_UNPack("B2147483647S2147483647S1S", buf, &v.b, nullptr, nullptr, nullptr));
    EXPECT_EQ(200, buf[0]);
}

static Lines Dump(const char *fmt, const Bytes &src) {
    dttest::ClearConsole();
    uint32_t fields = 0;
    DTBuffer_GetPackSize(fmt, &fields);
    EXPECT_EQ(static_cast<int32_t>(fields), DTBuffer_UNPack(fmt, src.data())) << fmt;
    return dttest::Console();
}

// Equal by design: a last empty S piece (nothing is shown for it); the value of an s or
// S field read as a number before it is dumped as text or hex (never used).
TEST(DTBuffer, DumpLinesAndLongFieldsWhole) {
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ((Lines{"format:*3S\n", "0001[3S]=>\n", "41 42 43 \n"}), Dump("*3S", {0x41, 0x42, 0x43}));
    Bytes rec = {0x0A, 0xFF, 0x80, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00, 0x2A, 0xFF, 0xFF,
                 0xFF, 0xFF, 0x6A, 0xFC, 0x18, 0xBF, 'a', 'b', 0, 'd', 0x01};
    EXPECT_EQ((Lines{"format:*BbHh I.i T4s1S\n", "0001[B]=>0x0A<\n", "0002[B]=>255<\n", "0003[H]=>0x8000<\n",
                     "0004[h]=>-32768<\n", "0005[I]=>0x0000002A<\n", "0006[i]=>-1<\n",
                     "0007[T]=>2026/11/17 09:05:03<\n", "0008[4s]=>ab<\n", "0009[1S]=>\n", "01 \n"}),
              Dump("*BbHh I.i T4s1S", rec));
    EXPECT_EQ((Lines{"format:*S\n", "0001[0S]=>\n", "\n"}), Dump("*S", {0}));
    EXPECT_EQ((Lines{"format:*1s\n", "0001[1s]=>x<\n"}), Dump("*1s", {'x'}));
    EXPECT_EQ(Lines{}, Dump("*B2147483647S2147483647S1S", {0}));  // refused whole: nothing shown
    EXPECT_EQ((Lines{"format:*B2147483648sB\n", "0001[B]=>0x01<\n", "0002[0s]=><\n", "0003[B]=>0x02<\n"}),
              Dump("*B2147483648sB", {1, 2}));
    // Long fields are shown whole.
    Dump("*1500s", Bytes(1500, 'q'));
    EXPECT_EQ("format:*1500s\n0001[1500s]=>" + std::string(1500, 'q') + "<\n", dttest::ConsoleText());
    Bytes bytes(4000);
    Lines want = {"format:*4000S\n", "0001[4000S]=>\n"};  // then one hand-over per 16-byte line
    for (size_t k = 0; k < bytes.size(); ++k) {
        bytes[k] = static_cast<uint8_t>(k * 7);
        if (k % 16 == 0) want.emplace_back();
        want.back() += "0123456789ABCDEF"[bytes[k] >> 4];
        want.back() += "0123456789ABCDEF"[bytes[k] & 15];
        want.back() += k % 16 == 15 || k + 1 == bytes.size() ? " \n" : " ";
    }
    EXPECT_EQ(want, Dump("*4000S", bytes));
}
