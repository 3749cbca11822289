#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "fault/DTFault.h"
#include "fcm_decode.h"
#include "fcm_file.h"

namespace {

class Dtfcm : public FcmFileTest {
protected:
    // A small file written by the library itself: names with and without a
    // space-free prefix in common, a log line, and one value of each family.
    std::vector<uint8_t> WriteSample() {
        DTFaultRecord *net = DTFault_Regist("net", nullptr);
        DTFaultRecord *net2 = DTFault_Regist("net 2", nullptr);
        DTFault_SetRunLog(net2, 3, 0, "eth1 down");
        DTFault_SetCounter(net, 7, 1);
        DTFault_SetRegist64(net2, 0x10, 0x0102030405060708ull);
        const uint8_t raw[] = {0xDE, 0xAD, 0x00, 0xEF};
        DTFault_SetValue(net2, 9, raw, sizeof raw);
        DTFault_Start();
        return ReadFcm();
    }
    static std::string Run(const std::vector<std::string> &args, int expect, std::string *err = nullptr) {
        std::ostringstream out, e;
        EXPECT_EQ(dtfcm::Main(args, out, e), expect);
        if (err) *err = e.str();
        return out.str();
    }
};

TEST_F(Dtfcm, RoundTripPrintsWhatTheHostRecorded) {
    std::vector<uint8_t> file = WriteSample();
    ASSERT_FALSE(file.empty()) << "the library wrote no " DTFAULT_FILE;
    dtfcm::Result res = dtfcm::Decode(file);
    EXPECT_EQ(res.error, "");
    ASSERT_EQ(res.records.size(), 5u);
    EXPECT_EQ(res.records[0].name, "net 2");  // the value records' names resolve the space
    EXPECT_EQ(res.records[0].marker, "run");
    EXPECT_EQ(res.records[0].text.size(), 15u);  // the time stamp record
    EXPECT_EQ(res.records[1].text, "eth1 down");

    std::string text = Run({DTFAULT_FILE}, 0);
    EXPECT_NE(text.find("1 run net 2: eth1 down\n"), std::string::npos);
    EXPECT_NE(text.find("3 net counter id=0x00000007 value=0x00000001\n"), std::string::npos);
    EXPECT_NE(text.find("3 net 2 register64 id=0x00000010 value=0x0102030405060708\n"), std::string::npos);
    EXPECT_NE(text.find("3 net 2 value id=0x00000009 len=4 bytes=DE AD 00 EF\n"), std::string::npos);
    EXPECT_EQ(Run({}, 0), text);  // the library's own path is the default

    std::string json = Run({"--json"}, 0);
    EXPECT_NE(json.find("{\"section\":1,\"offset\":" + std::to_string(res.records[1].offset) +
                        ",\"marker\":\"run\",\"name\":\"net 2\",\"text\":\"eth1 down\"}\n"),
              std::string::npos);
    EXPECT_NE(json.find("\"kind\":\"value\",\"code\":6,\"name\":\"net 2\",\"id\":9,\"bytes\":\"DEAD00EF\"}"),
              std::string::npos);
}

TEST_F(Dtfcm, EveryTruncationIsReportedWithItsOffsetAndKeepsWhatCameBefore) {
    std::vector<uint8_t> file = WriteSample();
    ASSERT_FALSE(file.empty()) << "the library wrote no " DTFAULT_FILE;
    size_t full = dtfcm::Decode(file).records.size();
    for (size_t cut = 0; cut < file.size(); ++cut) {
        std::vector<uint8_t> part(file.begin(), file.begin() + cut);
        dtfcm::Result res = dtfcm::Decode(part);
        SCOPED_TRACE(cut);
        bool atRecordEdge = cut > 0 && !res.records.empty() && res.error.empty();
        if (atRecordEdge) {
            // Cutting exactly between two value records leaves a shorter, valid file.
            EXPECT_LT(res.records.size(), full);
            continue;
        }
        EXPECT_NE(res.error.find("offset"), std::string::npos) << res.error;
        EXPECT_LE(res.records.size(), full);
    }
    std::vector<uint8_t> longer = file;
    longer[0] = 0xFF;  // first length now runs past the end
    EXPECT_NE(dtfcm::Decode(longer).error.find("runs past the end"), std::string::npos);
}

TEST_F(Dtfcm, CorruptedBytesNeverCrashAndAlwaysNameAnOffset) {
    std::vector<uint8_t> file = WriteSample();
    ASSERT_FALSE(file.empty()) << "the library wrote no " DTFAULT_FILE;
    uint32_t seed = 12345;
    for (int round = 0; round < 3000; ++round) {
        std::vector<uint8_t> bad = file;
        for (int flips = 1 + round % 4; flips > 0; --flips) {
            seed = seed * 1103515245u + 12345u;
            bad[(seed >> 8) % bad.size()] = uint8_t(seed >> 20);
        }
        dtfcm::Result res = dtfcm::Decode(bad);
        if (!res.error.empty()) {
            EXPECT_NE(res.error.find("offset"), std::string::npos) << res.error;
        }
        for (const auto &r : res.records) EXPECT_LT(r.offset, bad.size());
    }
}

TEST_F(Dtfcm, BadInputGivesAMessageAndANonZeroExit) {
    std::string err;
    Run({"/nonexistent/fcm.log"}, 2, &err);
    EXPECT_NE(err.find("cannot read /nonexistent/fcm.log"), std::string::npos);
    Run({"/tmp"}, 2, &err);
    EXPECT_NE(err.find("cannot read /tmp: not a regular file"), std::string::npos);
    Run({"--bogus"}, 2, &err);
    EXPECT_NE(err.find("unknown option --bogus"), std::string::npos);
    EXPECT_NE(Run({"--help"}, 0).find("longest name"), std::string::npos);

    WriteSample();
    std::vector<uint8_t> file = ReadFcm();
    ASSERT_FALSE(file.empty()) << "the library wrote no " DTFAULT_FILE;
    file.resize(file.size() - 1);
    FILE *f = fopen(DTFAULT_FILE, "wb");
    ASSERT_NE(f, nullptr) << "cannot rewrite " DTFAULT_FILE;
    fwrite(file.data(), 1, file.size(), f);
    fclose(f);
    std::string out = Run({}, 1, &err);
    EXPECT_NE(out.find("1 run net 2: eth1 down"), std::string::npos);  // decoded part still printed
    EXPECT_NE(err.find("byte offset"), std::string::npos);
}

}  // namespace
