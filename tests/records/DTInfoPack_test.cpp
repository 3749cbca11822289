#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "dttest.h"
#include "foundation/DTPrint.h"
#include "records/DTInfo.h"

TEST(DTInfoPack, AddInfoLayoutFollowsFlag) {
    struct Case { uint32_t id; bool flagOn; const char *format; uint32_t dataLen; } cases[] = {
        {12, false, "*TBhI4S2S0S", 17}, {12, true, "*TBhI4S2S6S", 23},
        {2500, false, "*TBhI4S2S6S", 23}};
    for (const Case &c : cases) {
        DTInfo *info = DTInfo_New(0);
        DTInfo_SetFlag(info, c.id, c.flagOn ? 1 : 0);
        DTInfo_AddInfo(info, 0x101, c.id, "ABCD", 4, "xy", 2, "detail", 6, 5);
        EXPECT_EQ(3 + strlen(c.format) - 1 + c.dataLen, info->freeAddr);
        uint32_t cursor = DTINFO_START;
        char format[300];
        void *data = nullptr;
        ASSERT_EQ(1, DTInfo_GetPack(info, &cursor, format, &data));
        EXPECT_STREQ(c.format, format);
        std::string tail = std::string("\x01") + char(c.id >> 8) + char(c.id & 0xFF) +
                           std::string("\0\0\0\x05", 4) + "ABCDxy" + (c.dataLen == 23 ? "detail" : "");
        EXPECT_EQ(tail, std::string((char *)data + 4, c.dataLen - 4));  // after the time
        EXPECT_EQ(0, DTInfo_GetPack(info, &cursor, format, &data));
        DTInfo_Release(info);
    }
}

TEST(DTInfoPack, ShowInfoFiltersSkipsAndLimits) {
    DTInfo *info = DTInfo_New(0);
    DTInfo_AddInfo(info, 1, 12, "AB", 2, "xy", 2, "", 0, 5);
    DTInfo_AddInfo(info, 2, 13, "BC", 2, "xz", 2, "", 0, 0);
    DTInfo_Write(info, "l", "text record");
    DTInfo_PackPre(info, "TBhI1S1S1S", 0, 3);  // shape says 14 data bytes: passed over
    memset(info->memory->data + info->freeAddr, 0, 3);
    info->freeAddr += 3, info->freesize -= 3;
    DTInfo_AddInfo(info, 1, 12, "AC", 2, "yy", 2, "", 0, 7);
    const std::string wide(1000, '4');  // 200 bytes as a string, 500 as a filter
    DTInfo_AddInfo(info, 1, 12, wide.data(), 200, "", 0, "", 0, 7);  // too wide to show: passed over
    struct Case {
        int32_t id; const char *f1, *f2; uint32_t value, type, skip, limit; const char *shown; int total;
    } cases[] = {
        {-1, "", "", 0, 0, 0, 0, "123", 3},      {12, "", "", 0, 0, 0, 0, "12", 2},
        {-1, "41", "", 0, 0, 0, 0, "12", 2},     {-1, "4", "", 0, 0, 0, 0, "123", 3},
        {-1, "4143", "", 0, 0, 0, 0, "1", 1},    {-1, "", "78", 0, 0, 0, 0, "12", 2},
        {-1, "", "", 0xFFFFFFFF, 0, 0, 0, "12", 2}, {-1, "", "", 7, 0, 0, 0, "1", 1},
        {-1, "", "", 0, 2, 0, 0, "1", 1},        {-1, "", "", 0, 257, 0, 0, "", 0},
        {-1, "", "", 0, 0, 1, 2, "2", 3},        {-1, "", "", 0, 0, 2, 3, "3", 3},
        {-1, wide.c_str(), "", 0, 0, 0, 0, "", 0},
    };
    for (const Case &c : cases) {
        dttest::ClearConsole();
        DTInfo_ShowInfo(info, c.id, c.f1, c.f2, c.value, c.type, c.skip, c.limit);
        DTPrint_ShowEx("", 0);
        std::string text = dttest::ConsoleText(), shown;
        for (size_t at = text.find("index="); at != std::string::npos; at = text.find("index=", at + 1))
            shown += text[at + 6];
        EXPECT_EQ(c.shown, shown) << c.id << " " << c.f1 << " " << c.f2 << " " << c.type;
        std::string total = "Total count " + std::to_string(c.total);
        EXPECT_EQ(total, text.substr(text.size() - std::min(text.size(), total.size())));
    }
    dttest::ClearConsole();
    DTInfo_ShowInfo(info, 13, "", "", 0, 0, 0, 0);
    EXPECT_EQ(0u, dttest::ConsoleText().find("index=1,format:*TBhI2S2S0S\n"));
    DTInfo_Release(info);
}
