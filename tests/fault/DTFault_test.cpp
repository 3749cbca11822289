#include "fault/DTFault.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "dttest.h"
#include "fcm_file.h"
#include "records/DTLogger_internal.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes Be16(uint32_t v) { return {uint8_t(v >> 8), uint8_t(v)}; }
Bytes Be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
Bytes Str(const std::string &s) { return Bytes(s.begin(), s.end()); }
// Records live in 4-byte-aligned memory: read pointer fields by value, never bind a reference.
template <class T>
T Val(T v) { return v; }

// What the save must write for one log: every record of the logger's store,
// read back through the store's own walk.
Bytes LogSection(DTFaultRecord *f, DTLogger *log, const char *marker) {
    Bytes out;
    if (!log || !log->store) return out;
    uint32_t cur = DTINFO_START;
    void *data;
    uint16_t len;
    while (DTInfo_Get(log->store, nullptr, 0, &cur, nullptr, nullptr, &data, &len)) {
        std::string name = f->name;
        out = Cat({out, Be16(len + 5 + name.size()), Str(marker), Str(" " + name + " "),
                   Bytes((uint8_t *)data, (uint8_t *)data + len)});
    }
    return out;
}

Bytes ValueRecord(const std::string &name, uint8_t kind, const Bytes &payload) {
    return Cat({Be16(payload.size() + 2 + name.size()), {uint8_t(name.size() + 1), kind}, Str(name), payload});
}

class DTFault : public FcmFileTest {};

TEST_F(DTFault, RegistrationIndexesNamesAndIgnore) {
    DTFaultRecord *a = DTFault_Regist("net", nullptr);
    DTFaultRecord *b = DTFault_Regist("net", nullptr);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->index, 0);
    EXPECT_EQ(b->index, 1);
    EXPECT_NE(a, b);
    EXPECT_EQ(DTFault_Regist("exactly-22-characters!", nullptr)->name, std::string("exactly-22-characters!"));
    EXPECT_EQ(DTFault_Regist("twenty-three-characters", nullptr)->name, std::string("twenty-three-character"));
    for (int i = 4; i < 256; ++i) DTFault_Regist("filler", nullptr);
    EXPECT_EQ(DTFault_Regist("wraps", nullptr)->index, 0);  // the 257th
    EXPECT_EQ(DTList_Length(g_DTFault_List), 257);

    DTFault_Ignore(a, 1);
    EXPECT_EQ(DTFault_SetRunLog(a, 1, 0, "dropped"), 0);
    EXPECT_EQ(DTFault_SetInitLog(a, 1, 0, "dropped"), 0);
    EXPECT_EQ(Val(a->runLog->store), nullptr);
    EXPECT_EQ(Val(a->initLog->store), nullptr);
    DTFault_Ignore(a, 0);
    DTFault_SetRunLog(a, 1, 0, "kept");
    ASSERT_NE(Val(a->runLog->store), nullptr);
    DTBuf *buf = DTBuf_New(1, 64, 0);
    DTFault_ShowRunLogToBuf(a, buf);
    char *text = nullptr;
    DTBuf_Get(buf, 0, (void **)&text);
    EXPECT_EQ(std::string(text, DTBuf_Length(buf)).substr(15), "\nkept\n");  // after the stamp
    DTBuf_Release(buf);

    dttest::ClearConsole();
    EXPECT_EQ(DTFault_SetRunLog(nullptr, 0, 0, "x"), 0);
    EXPECT_EQ(DTFault_ShowRunLog(nullptr), 0);
    EXPECT_EQ(DTFault_ShowInitLog(nullptr), 0);
    EXPECT_EQ(DTFault_SetInfo(nullptr, 5), 0);
    EXPECT_EQ(DTFault_SetCounter(nullptr, 1, 1), 0);
    EXPECT_TRUE(dttest::Console().empty());
    EXPECT_EQ(g_DTFault_Info, nullptr);
    EXPECT_EQ(g_fcm_logger, nullptr);
}

TEST_F(DTFault, ExampleFilesByteForByte) {
    DTFault_Start();  // nothing registered: not even a file
    EXPECT_TRUE(ReadFcm().empty());

    DTFaultRecord *net = DTFault_Regist("net", nullptr);
    DTFault_Start();
    EXPECT_EQ(ReadFcm(), Bytes({0, 0}));

    net->initLog->store = DTInfo_New(0);
    DTInfo_Write(net->initLog->store, "l", "boot");
    DTFault_Start();
    EXPECT_EQ(ReadFcm(), Cat({{0, 0x0C}, Str("log net boot"), {0, 0}}));

    DTInfo_Clear(net->initLog->store);
    DTFault_SetCounter(net, 7, 1);
    DTFault_Start();
    EXPECT_EQ(ReadFcm(), Cat({{0, 0, 0, 0x0D, 4, 3}, Str("net"), {0, 0, 0, 7, 0, 0, 0, 1}}));
    EXPECT_EQ(g_DTFault_Info, nullptr);
}

DTFaultRecord *g_cb;
int g_calls;
void RecordingCallback() {
    ++g_calls;
    DTFault_Start();  // nested: returns at once
    DTFault_SetRegist(g_cb, 0x40, 0xDEADBEEF);
    DTFault_SetRunLog(g_cb, 2, 0, "saved by callback");
}

TEST_F(DTFault, MixedSaveTwiceInARow) {
    DTFaultRecord *net = DTFault_Regist("net", nullptr);
    g_cb = DTFault_Regist("disk", RecordingCallback);
    DTFault_SetInitLog(net, 1, 0, "link up");
    DTFault_SetRunLog(net, 3, 0, "crc error");
    DTFault_SetInitLog(g_cb, 1, 0, "mounted");
    const uint8_t block[] = {1, 0, 2, 0};
    const uint8_t zeros[] = {0, 0, 0};
    DTFault_SetRegist(net, 1, 2);
    DTFault_SetRegist64(net, 1, 0x100000002ull);
    DTFault_SetRegistEx(net, 2, block, sizeof block);
    DTFault_SetCounter(net, 7, 1);
    DTFault_SetCounter64(net, 8, 0xFFFFFFFF00000001ull);
    DTFault_SetCounterEx(net, 9, zeros, sizeof zeros);
    DTFault_SetValue(net, 9, nullptr, 0);
    DTFault_SetValue(g_cb, 10, zeros, sizeof zeros);

    dttest::ClearConsole();
    DTFault_Start();
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(dttest::ConsoleText(), "start callback [disk]\nend callback [disk]\n");
    Bytes logs = Cat({LogSection(net, net->initLog, "log"), LogSection(net, net->runLog, "run"),
                      LogSection(g_cb, g_cb->initLog, "log"), LogSection(g_cb, g_cb->runLog, "run")});
    std::string logText(logs.begin(), logs.end());
    for (const char *line : {"log net link up", "run net crc error", "log disk mounted", "run disk saved by callback"})
        EXPECT_NE(logText.find(line), std::string::npos) << line;
    Bytes values = Cat({ValueRecord("net", 0, Cat({Be32(1), Be32(2)})),
                        ValueRecord("net", 1, Cat({Be32(1), Be32(1), Be32(2)})),
                        ValueRecord("net", 2, Cat({Be32(2), Be32(4), {1, 0, 2, 0}})),
                        ValueRecord("net", 3, Cat({Be32(7), Be32(1)})),
                        ValueRecord("net", 4, Cat({Be32(8), Be32(0xFFFFFFFF), Be32(1)})),
                        ValueRecord("net", 5, Cat({Be32(9), Be32(3), {0, 0, 0}})),
                        ValueRecord("net", 6, Cat({Be32(9), Be32(0)})),
                        ValueRecord("disk", 6, Cat({Be32(10), Be32(3), {0, 0, 0}})),
                        ValueRecord("disk", 0, Cat({Be32(0x40), Be32(0xDEADBEEF)}))});
    EXPECT_EQ(ReadFcm(), Cat({logs, {0, 0}, values}));
    EXPECT_EQ(g_DTFault_Info, nullptr);

    // The second save writes the logs again, and only the values recorded since.
    DTFault_SetCounter(net, 7, 2);
    DTFault_Start();
    EXPECT_EQ(g_calls, 2);
    logs = Cat({LogSection(net, net->initLog, "log"), LogSection(net, net->runLog, "run"),
                LogSection(g_cb, g_cb->initLog, "log"), LogSection(g_cb, g_cb->runLog, "run")});
    EXPECT_EQ(ReadFcm(), Cat({logs, {0, 0}, ValueRecord("net", 3, Cat({Be32(7), Be32(2)})),
                              ValueRecord("disk", 0, Cat({Be32(0x40), Be32(0xDEADBEEF)}))}));
}

TEST_F(DTFault, RefusedSizes) {
    DTFaultRecord *f = DTFault_Regist("half", nullptr);
    DTFault_SetInitLog(f, 1, 0, "x");
    std::vector<uint8_t> big(DTFAULT_BLOCK_MAX + 1, 0xAB);
    DTFault_SetRegistEx(f, 1, big.data(), DTFAULT_BLOCK_MAX + 1);
    DTFault_SetCounterEx(f, 1, big.data(), DTFAULT_BLOCK_MAX + 1);
    DTFault_SetCounterEx(f, 2, big.data(), DTFAULT_BLOCK_MAX);
    std::vector<uint8_t> huge(DTFAULT_VALUE_MAX + 1, 1);
    DTFault_SetValue(f, 3, huge.data(), huge.size());
    DTFault_SetValue(f, 4, huge.data(), DTFAULT_VALUE_MAX);
    uint32_t cur = DTINFO_START;
    int stored = 0;
    while (DTInfo_Get(g_DTFault_Info, nullptr, 0, &cur, nullptr, nullptr, nullptr, nullptr)) ++stored;
    EXPECT_EQ(stored, 2);
    DTFault_Start();
    Bytes file = ReadFcm();
    Bytes logs = LogSection(f, f->initLog, "log");
    Bytes blockMax = Cat({Be32(2), Be32(DTFAULT_BLOCK_MAX), Bytes(DTFAULT_BLOCK_MAX, 0xAB)});
    // The largest value is stored, but its file record would need a length of 65535 + 2 + 4.
    EXPECT_EQ(file, Cat({logs, {0, 0}, ValueRecord("half", 5, blockMax)}));
}

int g_unopenable_calls;
void CountingCallback() { ++g_unopenable_calls; }

TEST_F(DTFault, UnopenableFileStopsSavingForGood) {
    DTFaultRecord *f = DTFault_Regist("net", CountingCallback);
    ASSERT_EQ(mkdir(DTFAULT_FILE, 0700), 0);
    DTFault_SetCounter(f, 1, 1);
    DTFault_Start();
    EXPECT_EQ(g_unopenable_calls, 1);
    ASSERT_NE(g_DTFault_Info, nullptr);  // the values stay
    rmdir(DTFAULT_FILE);
    DTFault_SetCounter(f, 1, 2);
    DTFault_Start();
    EXPECT_EQ(g_unopenable_calls, 1);
    EXPECT_TRUE(ReadFcm().empty());
    uint32_t cur = DTINFO_START;
    int records = 0;
    while (DTInfo_Get(g_DTFault_Info, nullptr, 0, &cur, nullptr, nullptr, nullptr, nullptr)) ++records;
    EXPECT_EQ(records, 2);
}

}  // namespace
