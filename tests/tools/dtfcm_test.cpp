#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "fault/DTFault.h"
#include "fcm_decode.h"
#include "fcm_file.h"

namespace {

const size_t npos = std::string::npos;

using Dtfcm = FcmFileTest;
std::string err_;  // the last run's error output

// The program's output.
std::string Program(const std::vector<std::string> &args, int expect) {
    std::ostringstream out, e;
    EXPECT_EQ(dtfcm::Main(args, out, e), expect);
    err_ = e.str();
    return out.str();
}

// A small file written by the library itself: names with and without a
// space-free prefix in common, a log line, and one value of each family.
TEST_F(Dtfcm, RoundTripPrintsWhatTheHostRecorded) {
    DTFaultRecord *net = DTFault_Regist("net", nullptr), *net2 = DTFault_Regist("net 2", nullptr);
    DTFault_SetRunLog(net2, 3, 0, "eth1 down");
    DTFault_SetCounter(net, 7, 1);
    DTFault_SetRegist64(net2, 0x10, 0x0102030405060708ull);
    const uint8_t raw[] = {0xDE, 0xAD, 0x00, 0xEF};
    DTFault_SetValue(net2, 9, raw, sizeof raw);
    DTFault_SetCounterEx(net, 2, raw, 2);
    DTFault_Start();
    const std::vector<uint8_t> file = ReadFcm();
    // A decoding error on the whole file is caught by the program's exit status below.
    const std::vector<dtfcm::Record> good = dtfcm::Decode(file).records;
    ASSERT_EQ(good.size(), 6u);
    EXPECT_EQ(good[0].text.size(), 15u) << "the time stamp record";
    const std::string text = Program({DTFAULT_FILE}, 0), json = Program({"--json"}, 0);
    EXPECT_NE(text.find("1 run net 2: eth1 down\n"), npos) << text;
    EXPECT_NE(text.find("3 net counter id=0x00000007 value=0x00000001\n"), npos) << text;
    EXPECT_NE(text.find("3 net 2 register64 id=0x00000010 value=0x0102030405060708\n"), npos) << text;
    EXPECT_NE(text.find("3 net 2 value id=0x00000009 len=4 bytes=DE AD 00 EF\n"), npos) << text;
    EXPECT_NE(text.find("3 net counter block id=0x00000002 len=2 bytes=DE AD\n"), npos) << text;
    EXPECT_EQ(Program({}, 0), text) << "the library's own path is the default";
    const std::string run = "{\"section\":1,\"offset\":" + std::to_string(good[1].offset);
    EXPECT_NE(json.find(run + ",\"marker\":\"run\",\"name\":\"net 2\",\"text\":\"eth1 down\"}\n"), npos) << json;
    EXPECT_NE(json.find("\"kind\":\"value\",\"code\":6,\"name\":\"net 2\",\"id\":9,\"bytes\":\"DEAD00EF\"}"), npos);
    // Every cut names an offset, except one exactly between two value records.
    for (size_t cut = 0; cut < file.size(); ++cut) {
        const dtfcm::Result res = dtfcm::Decode(std::vector<uint8_t>(file.begin(), file.begin() + cut));
        EXPECT_LT(res.records.size(), 6u) << cut;
        if (cut == 0 || !res.error.empty() || res.records.empty()) {
            EXPECT_NE(res.error.find("offset"), npos) << cut << ": " << res.error;
        }
    }
    // Cut just past a length field: the length is read, the record is what runs short.
    const std::vector<uint8_t> head(file.begin(), file.begin() + good[1].offset + 2);
    EXPECT_EQ(dtfcm::Decode(head).error.find("record length "), 0u) << dtfcm::Decode(head).error;
    // One damaged byte: of a record's kind or name length, or a log record's marker.
    const std::tuple<size_t, size_t, uint8_t, const char *> damage[] = {  // record, at, byte, error
        {0, 0, 0xFF, "record length 65" },
        {0, 2, 'x', "log record at byte offset 0 does not start with \"log \" or \"run \""},
        {2, 1, 1, " has a name length that does not fit its 1 bytes"},
        {2, 2, 0, " has a name length that does not fit its "},
        {2, 2, 0xFF, " has a name length that does not fit its "},
        {2, 3, 9, " has the unknown kind 9"},
        {2, 3, 1, ": a payload of 8 bytes does not fit kind register64"},
        {2, 3, 2, ": a payload of 8 bytes does not fit kind register block"},
        {2, 3, 4, ": a payload of 8 bytes does not fit kind counter64"},
        {2, 3, 5, ": a payload of 8 bytes does not fit kind counter block"},
        {3, 3, 0, ": a payload of 12 bytes does not fit kind register"},
        {5, 2, 7, ": a payload of 7 bytes does not fit kind counter block"},
    };
    for (const auto &[record, at, byte, error] : damage) {
        std::vector<uint8_t> bad = file;
        bad[good[record].offset + at] = byte;
        EXPECT_NE(dtfcm::Decode(bad).error.find(error), npos) << dtfcm::Decode(bad).error;
    }
    std::ofstream(DTFAULT_FILE, std::ios::binary).write(reinterpret_cast<const char *>(file.data()), file.size() - 1);
    EXPECT_NE(Program({}, 1).find("1 run net 2: eth1 down"), npos) << "the decoded part is still printed";
    EXPECT_NE(err_.find("byte offset"), npos) << err_;
}

// Usage and bad arguments give their exit status; only a run log holds a crash
// record, and only in its exact shape.
TEST_F(Dtfcm, UsageAndCrashRecords) {
    // args, status, and a part of the output and of the error output
    const std::tuple<std::vector<std::string>, int, const char *, const char *> cases[] = {
        {{"/nonexistent/fcm.log"}, 2, "", "dtfcm: cannot read /nonexistent/fcm.log"},
        {{"/tmp"}, 2, "", "cannot read /tmp: not a regular file"},
        {{"--bogus"}, 2, "", "unknown option --bogus"},
        {{"--help"}, 0, "longest name", ""},
        {{"--version"}, 0, "dtfcm (dtkit) ", ""},
    };
    for (const auto &[args, status, out, err] : cases) {
        EXPECT_NE(Program(args, status).find(out), npos) << args[0];
        EXPECT_NE(err_.find(err), npos) << args[0] << ": " << err_;
    }
    // What --json adds after the text, for a crash record.
    const std::tuple<const char *, const char *, bool, const char *> crashes[] = {  // marker, text, crash, json
        {"run", "crash: SIGSEGV signal 11 addr 0x00000010 pc 0x1000abcd", true,
         ",\"crash\":{\"signal\":\"SIGSEGV\",\"number\":11,\"addr\":\"0x00000010\",\"pc\":\"0x1000abcd\"}}"},
        {"run", "crash: SIGABRT signal 6 addr 0x0", true,
         ",\"crash\":{\"signal\":\"SIGABRT\",\"number\":6,\"addr\":\"0x0\"}}"},
        {"log", "crash: SIGABRT signal 6 addr 0x0", true, "}"},
        {"run", "crash: SIGFOO signal 6 addr 0x0", false, "}"},
        {"run", "crash: SIGBUS signal 1234 addr 0x0", false, "}"},
        {"run", "crash: SIGILL signal 4 addr 0xZZ", false, "}"},
        {"run", "crash: SIGILL signal 4 addr 0x1 pc 0x2 more", false, "}"},
        {"run", "crash: SIGILL signal 4 addr 0x1 sp 0x2", false, "}"},
        {"run", "the crash: SIGSEGV signal 11 addr 0x0", false, "}"},
    };
    for (const auto &[marker, text, isCrash, added] : crashes) {
        dtfcm::Crash crash;
        EXPECT_EQ(dtfcm::ParseCrash(text, crash), isCrash) << text;
        const std::string json = dtfcm::FormatJson(dtfcm::Record{1, 0, marker, "", text, -1, 0, 0, {}});
        EXPECT_EQ(json.substr(json.find(text) + strlen(text) + 1), added) << text;
    }
}

}  // namespace
