#include "fault/DTFault.h"

#include <gtest/gtest.h>

#include "dttest.h"
#include "fcm_file.h"
#include "records/DTLogger_internal.h"

namespace {

using Bytes = std::vector<uint8_t>;

// One file record: its 16-bit length, then the text.
std::string Rec(const std::string &s) { return std::string{char(s.size() >> 8), char(s.size())} + s; }
// A value record: the name's length + 1 and the kind lead the name, then the payload: words
// big-endian, then bytes.
std::string Value(const std::string &name, char kind, std::initializer_list<uint32_t> words, std::string tail = "") {
    std::string out = std::string{char(name.size() + 1), kind} + name;
    for (uint32_t w : words) out += {char(w >> 24), char(w >> 16), char(w >> 8), char(w)};
    return Rec(out + tail);
}
Bytes File(const std::string &s) { return Bytes(s.begin(), s.end()); }

class DTFault : public FcmFileTest {};

TEST_F(DTFault, RegistrationIndexesNamesAndIgnore) {
    DTFaultRecord *a = DTFault_Regist("net", nullptr);
    EXPECT_EQ(DTFault_Regist("net", nullptr)->index, 1);
    EXPECT_EQ(DTFault_Regist("exactly-22-characters!", nullptr)->name, std::string("exactly-22-characters!"));
    EXPECT_EQ(DTFault_Regist("twenty-three-characters", nullptr)->name, std::string("twenty-three-character"));
    for (int i = 4; i < 256; ++i) DTFault_Regist("filler", nullptr);
    EXPECT_EQ(DTFault_Regist("wraps", nullptr)->index, 0);  // the 257th
    DTFault_Ignore(a, 1);
    DTFault_SetRunLog(a, 1, 0, "dropped");
    DTFault_SetInitLog(a, 1, 0, "dropped");
    // Records live in 4-byte-aligned memory: pointer fields are compared, never bound to a reference.
    EXPECT_TRUE(a->runLog->store == nullptr);
    EXPECT_TRUE(a->initLog->store == nullptr);
    DTFault_Ignore(a, 0);
    DTFault_SetInitLog(a, 1, 0, "init");
    DTFault_SetRunLog(a, 1, 0, "run");
    DTBuf *buf = DTBuf_New(1, 64, 0);
    DTFault_ShowInitLogToBuf(a, buf);
    DTFault_ShowRunLogToBuf(a, buf);
    char *text = nullptr;
    DTBuf_Get(buf, 0, (void **)&text);
    const std::string shown(text, DTBuf_Length(buf));
    EXPECT_EQ(shown.substr(15, 6), "\ninit\n");  // after the stamp
    EXPECT_EQ(shown.substr(36), "\nrun\n");
    DTBuf_Release(buf);
    // Null handles: nothing shown, nothing recorded; every operation answers 0, whatever it was given.
    const int32_t nulls[] = {DTFault_SetRunLog(nullptr, 0, 0, "x"), DTFault_SetInitLog(nullptr, 0, 0, "x"),
                             DTFault_ShowRunLog(nullptr),          DTFault_ShowInitLog(nullptr),
                             DTFault_SetInfo(nullptr, 5),          DTFault_SetCounter(nullptr, 1, 1),
                             DTFault_SetRegist64(nullptr, 1, 2),   DTFault_SetRegistEx(nullptr, 1, "ab", 2),
                             DTFault_SetValue(nullptr, 1, "ab", 2)};
    for (int32_t r : nulls) EXPECT_EQ(r, 0);
    EXPECT_TRUE(dttest::Console().empty());
    EXPECT_EQ(g_DTFault_Info, nullptr);
    const int32_t recorded[] = {DTFault_SetCounter(a, 1, 1), DTFault_SetRegist64(a, 1, 2),
                                DTFault_SetCounterEx(a, 1, "ab", 2), DTFault_SetCounterEx(a, 1, nullptr, 2),
                                DTFault_SetValue(a, 1, "ab", 2), DTFault_SetValue(a, 1, nullptr, 4)};
    for (int32_t r : recorded) EXPECT_EQ(r, 0);
}

DTFaultRecord *g_cb;
void RecordingCallback() {
    DTFault_Start();  // nested: returns at once
    DTFault_SetRegist(g_cb, 0x40, 0xDEADBEEF);
    DTInfo_Write(g_cb->runLog->store, "l", "by callback");
}

TEST_F(DTFault, FilesByteForByte) {
    DTFault_Start();  // nothing registered: not even a file
    EXPECT_TRUE(ReadFcm().empty());
    DTFaultRecord *net = DTFault_Regist("net", [] {});
    DTFault_Start();
    EXPECT_EQ(ReadFcm(), Bytes({0, 0}));

    g_cb = DTFault_Regist("disk", RecordingCallback);
    net->initLog->store = DTInfo_New(0);
    g_cb->runLog->store = DTInfo_New(0);
    DTInfo_Write(net->initLog->store, "l", "boot");
    const uint8_t block[] = {1, 0, 2, 0};
    DTFault_SetRegist(net, 1, 2);
    DTFault_SetRegist64(net, 1, 0x100000002ull);
    DTFault_SetRegistEx(net, 2, block, sizeof block);
    DTFault_SetCounter(net, 7, 1);
    DTFault_SetCounter64(net, 8, 0xFFFFFFFF00000001ull);
    DTFault_SetCounterEx(net, 9, block, 3);
    DTFault_SetValue(net, 9, nullptr, 0);
    DTFault_SetValue(g_cb, 10, block, 3);
    dttest::ClearConsole();
    DTFault_Start();
    EXPECT_EQ(dttest::ConsoleText(),
              "start callback [net]\nend callback [net]\nstart callback [disk]\nend callback [disk]\n");
    const std::string logs = Rec("log net boot") + Rec("run disk by callback") + std::string(2, 0);
    const std::string cb = Value("disk", 0, {0x40, 0xDEADBEEF});
    EXPECT_EQ(ReadFcm(), File(logs + Value("net", 0, {1, 2}) + Value("net", 1, {1, 1, 2}) +
                              Value("net", 2, {2, 4}, {1, 0, 2, 0}) + Value("net", 3, {7, 1}) +
                              Value("net", 4, {8, 0xFFFFFFFF, 1}) + Value("net", 5, {9, 3}, {1, 0, 2}) +
                              Value("net", 6, {9, 0}) + Value("disk", 6, {10, 3}, {1, 0, 2}) + cb));

    // The second save writes the logs again, and only the values recorded since: of the sizes
    // at the edges, the largest value is stored, but its file record would need 65535 + 2 + 3.
    DTInfo_Clear(g_cb->runLog->store);
    DTFault_SetCounter(net, 7, 2);
    std::vector<uint8_t> big(DTFAULT_VALUE_MAX + 1, 0xAB);
    DTFault_SetRegistEx(net, 1, big.data(), DTFAULT_BLOCK_MAX + 1);
    DTFault_SetCounterEx(net, 1, big.data(), DTFAULT_BLOCK_MAX + 1);
    DTFault_SetCounterEx(net, 1, nullptr, 1);
    DTFault_SetValue(net, 3, big.data(), big.size());
    DTFault_SetValue(net, 3, nullptr, 1);
    DTFault_SetCounterEx(net, 2, big.data(), DTFAULT_BLOCK_MAX);
    const uint32_t used = g_DTFault_Info->freeAddr;
    DTFault_SetValue(net, 4, big.data(), DTFAULT_VALUE_MAX);
    EXPECT_GT(g_DTFault_Info->freeAddr, used) << "the largest value is stored";
    DTFault_SetValue(net, 5, big.data(), 65535 - 5 - 8);  // a file record of length 65535 exactly
    DTFault_Start();
    EXPECT_EQ(ReadFcm(), File(logs + Value("net", 3, {7, 2}) +
                              Value("net", 5, {2, DTFAULT_BLOCK_MAX}, std::string(DTFAULT_BLOCK_MAX, '\xAB')) +
                              Value("net", 6, {5, 65535 - 13}, std::string(65535 - 13, '\xAB')) + cb));
}

}  // namespace
