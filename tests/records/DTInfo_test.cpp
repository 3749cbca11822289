#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dttest.h"
#include "records/DTInfo.h"

static std::string Area(DTInfo *info, uint32_t n) { return std::string((char *)info->memory->data, n); }

static std::string Hex(const void *p) {
    char b[16];
    snprintf(b, sizeof b, "0x%x", (unsigned)(uintptr_t)p);
    return b;
}

TEST(DTInfo, NewFramingFlagsAndIgnore) {
    DTInfo *info = DTInfo_New(0xFFFFFFFF);  // no multiple of 1024 above: the last one below
    EXPECT_EQ(0xFFFFFC00u, info->maxsize);
    DTInfo_Release(info);
    const int64_t live = dttest::LiveBlocks();
    for (uint32_t k = 1; k <= 2; ++k) {  // the handle, then its area
        dttest::FailMallocAt(k);
        EXPECT_EQ(nullptr, DTInfo_New(0));
        EXPECT_EQ(live, dttest::LiveBlocks());
    }
    info = DTInfo_New(0);
    EXPECT_EQ(9, DTInfo_Write(info, "w", "hello"));
    EXPECT_EQ(std::string("\x01w\x00\x05hello\xFF", 10), Area(info, 10));
    // id, action, then flag bytes 0 and 249; ids above 1999 are ignored whatever the action
    const uint32_t steps[][4] = {{5, 1, 0x20, 0}, {2000, 3, 0x20, 0}, {0, 2, 0xFF, 0xFF},
                                 {7, 9, 0x7F, 0xFF}, {0, 3, 0, 0}};
    for (auto &s : steps) {
        DTInfo_SetFlag(info, s[0], s[1]);
        EXPECT_EQ(s[2] | s[3] << 8, info->flags[0] | info->flags[249] << 8) << s[0] << " " << s[1];
    }
    EXPECT_EQ(0, DTInfo_GetFlag(info, 1999) + DTInfo_GetFlag(nullptr, 1));
    EXPECT_EQ(1, DTInfo_GetFlag(info, 2000));
    DTInfo_Ignore(info, 1);
    EXPECT_EQ(0, DTInfo_Write(info, "w", "two"));
    EXPECT_EQ(1, DTInfo_Append2Message(info, "w", 1, "x", 1, "y", 1));
    EXPECT_EQ(0, DTInfo_PackPre(info, "w", 1, 1));
    EXPECT_EQ(9u, info->freeAddr);
    DTInfo_Release(info);
}

TEST(DTInfo, GrowthRuleAndReport) {
    struct Case { uint32_t maxsize, data; std::vector<uint32_t> caps; } cases[] = {
        {8192, 1000, {2048, 4096, 8192}},
        {3072, 1000, {2048, 3072}},
        {0, 1000, {2048, 4096, 8192, 16384, 32768, 65536, 131072, 262144, 524288, 786432}},
        {0, 4996, {5120}},  // one record: its shortfall 3976 rounded up to 4096
    };
    testing::internal::CaptureStdout();
    for (auto &c : cases) {
        DTInfo *info = DTInfo_New(c.maxsize);
        std::string data(c.data, 'x');
        std::vector<uint32_t> caps;
        while (caps.size() < c.caps.size() && DTInfo_Append(info, "k", 1, data.data(), c.data) > 0)
            if (info->memory->size != (caps.empty() ? 1024 : caps.back())) caps.push_back(info->memory->size);
        EXPECT_EQ(c.caps, caps) << "maxsize " << c.maxsize;
        DTInfo_Release(info);
    }
    testing::internal::GetCapturedStdout();

    DTInfo *info = DTInfo_New(8192);
    std::string data(1000, 'x');
    DTInfo_Append(info, "k", 1, data.data(), 1000);
    std::string oldArea = Hex(info->memory);
    testing::internal::CaptureStdout();
    ASSERT_EQ(1004, DTInfo_Append(info, "k", 1, data.data(), 1000));
    std::string head = "logger info addr: " + Hex(info) + "\nmemory addr: ";
    EXPECT_EQ("size 1004" + head + oldArea + "\nmemory size: 1024\nfree addr:   1004\nuse  addr:   0\n"
              "maxsize: 8192\nfreesize: 20\nadd size 1024, new size 2048 freesize 1044\n" + head +
              Hex(info->memory) + "\nmemory size: 2048\nfree addr:   1004\nuse  addr:   0\n"
              "maxsize: 8192\nfreesize: 1044\n", testing::internal::GetCapturedStdout());
    DTInfo_Release(info);
}

TEST(DTInfo, RefusedWritesLeaveStoreUnchanged) {
    DTInfo *info = DTInfo_New(1024);
    DTInfo_Write(info, "w", "keep");
    const std::string before = Area(info, 1024), big(1100, 'b');
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, DTInfo_Write(info, "w", big.c_str()));  // larger than maxsize
    EXPECT_EQ(0, DTInfo_Append2Message(info, "w", 1, big.data(), 40000, big.data(), 30000));
    EXPECT_EQ(-1, DTInfo_Append(info, nullptr, 3, "x", 1));
    for (uint32_t *field : {&info->freesize, &info->freeAddr}) {  // damaged header
        uint32_t keep = *field;
        *field = 1025;
        EXPECT_EQ(-1, DTInfo_Write(info, "w", "x"));
        *field = keep;
    }
    DTLogger_Dump(nullptr);
    EXPECT_EQ("size 1104", testing::internal::GetCapturedStdout());
    EXPECT_EQ(before, Area(info, 1024));
    DTInfo_Release(info);
}
