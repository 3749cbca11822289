#include "fault/DTFuncLog.h"

#include <gtest/gtest.h>

#include "dttest.h"
#include "records/DTBuffer.h"

namespace {

// The last two are records the decoder cannot trust, shown in hex: a format longer than
// it takes, and one that describes more bytes than the record holds.
const std::string kLongFmt(98, 'b');
const DTFuncLogEntry kFuncs[] = {
    {"read", "II", 0, "(fd, n)"}, {"write", "I", 5, "(fd)"}, {"wide", kLongFmt.c_str(), 0, ""}, {"short", "IIII", 0, ""},
};

// Files one call record the way a host does: key = table position, data = T + values.
void File(DTFuncLog *log, uint8_t func, uint32_t a, uint32_t b) {
    uint8_t data[12];
    uint32_t n = func % 2 ? DTBuffer_Pack(data, "TI", 1000000000, a) : DTBuffer_Pack(data, "TII", 1000000000, a, b);
    DTInfo_Append(log->info, &func, 1, data, (uint16_t)n);
}

std::string Shown(DTFuncLog *log, const char *name, int32_t skip, int32_t count) {
    dttest::ClearConsole();
    DTFuncLog_Show(log, name, skip, count);
    std::string all = dttest::ConsoleText(), heads;
    for (size_t at = all.find("index="); at != std::string::npos; at = all.find("index=", at + 1))
        heads += all.substr(at, all.find('\n', at) - at) + ";";
    return heads;
}

TEST(DTFuncLog, ShowsTableAndRecordsWithSkipCountAndName) {
    int64_t before = dttest::LiveBlocks();
    DTFuncLog *log = DTFuncLog_New(kFuncs, 2, 4096);
    DTFuncLog_ShowFunc(log);
    EXPECT_EQ(dttest::ConsoleText(), "\nread(fd, n)\nid:0;cnt:0;fmt:II\nwrite(fd)\nid:1;cnt:5;fmt:I\n");

    for (uint8_t i = 0; i < 3; ++i) File(log, i % 2, 3 + i, 100 * i);  // read, write, read
    EXPECT_EQ(Shown(log, nullptr, 0, 10), "index=0,func:read (fd, n);index=1,func:write (fd);index=2,func:read (fd, n);");
    EXPECT_EQ(Shown(log, "", 1, 1), "index=1,func:write (fd);");
    EXPECT_EQ(Shown(log, "read", 0, 5), "index=0,func:read (fd, n);index=1,func:read (fd, n);");
    EXPECT_EQ(Shown(log, nullptr, 0, 0), "");
    EXPECT_EQ(Shown(log, "close", 0, 5), "");

    // The decoded record: the time first, then the values by the entry's format.
    Shown(log, "write", 0, 1);
    EXPECT_NE(dttest::ConsoleText().find("format:*TI\n0001[T]=>"), std::string::npos);
    EXPECT_NE(dttest::ConsoleText().find("0002[I]=>0x00000004<\n"), std::string::npos);

    DTInfo_Append(log->info, "\1\x09", 2, "x", 1);  // starts with function 1's key, but is not it
    uint32_t pos = DTINFO_START, func = 9, len = 0;
    void *data = nullptr;
    EXPECT_EQ(DTFuncLog_Get(log, 2, &pos, &func, &data, &len), 0);  // index == count
    EXPECT_EQ(DTFuncLog_Get(log, 1, &pos, &func, &data, &len), 1);
    EXPECT_EQ(func, 1u);
    EXPECT_EQ(len, 8u);
    EXPECT_EQ(DTFuncLog_Get(log, 1, &pos, &func, &data, &len), 0);
    DTFuncLog_Ignore(log, 1);
    EXPECT_EQ(log->ignore, 1u) << "kept for the writers";
    DTFuncLog_Ignore(nullptr, 1);
    DTFuncLog_Release(log);
    DTFuncLog_Release(nullptr);

    log = DTFuncLog_New(kFuncs, 4, 0);
    File(log, 2, 1, 2);  // 12 bytes under a 98-field format
    File(log, 3, 7, 0);  // 8 bytes where the format describes 20
    Shown(log, nullptr, 0, 5);
    EXPECT_EQ(dttest::ConsoleText().find("format:"), std::string::npos);
    EXPECT_NE(dttest::ConsoleText().find("3B 9A CA 00 00 00 00 01 00 00 00 02 \n"), std::string::npos);
    EXPECT_NE(dttest::ConsoleText().find("3B 9A CA 00 00 00 00 07 \n"), std::string::npos);
    DTFuncLog_Release(log);
    EXPECT_EQ(dttest::LiveBlocks(), before + 1);  // only the console's print object stays
}

}  // namespace
