#include <fcntl.h>
#include <gtest/gtest.h>

#include "dttest.h"
#include "foundation/DTPrint.h"
#include "records/DTLogger.h"
#include "records/DTLogger_internal.h"

// key:data of every stored record, oldest first.
static std::vector<std::string> Records(DTLogger *logger) {
    std::vector<std::string> out;
    uint32_t cursor = DTINFO_START;
    void *key, *data; uint8_t kl; uint16_t dl;
    while (DTInfo_Get(logger->store, nullptr, 0, &cursor, &key, &kl, &data, &dl))
        out.push_back(std::string((char *)key, kl) + ":" + std::string((char *)data, dl));
    return out;
}

static std::string Flushed() {
    DTPrint_ShowEx("", 0);
    std::string text = dttest::ConsoleText();
    dttest::ClearConsole();
    return text;
}

TEST(DTLogger, WriteObeysFlagWord) {
    struct { uint32_t flags; int32_t level; const char *text, *echo; int32_t result; const char *key; } const
        cases[] = {
        {255, 1, "hello", "", 32, "l"}, {255, 3, "boom", "boom\n", 31, "e"}, {255, 0, "zero", "zero", 31, "l"},
        {255, 2, "warn", "", 31, "w"}, {0xC2, 1, "hi", "hi\n", 29, "l"}, {0xC2, 2, "x", "", -1, nullptr},
        {0x82, 1, "x", "x\n", -1, nullptr}, {0xC1, 0, "z", "z", 28, "l"}, {0xC0, 7, "any", "any\n", 30, "l"},
        {0xD0, 3, "", "", -1, nullptr}, {0xC2, 0, "z", "", -1, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.flags) + " level " + std::to_string(c.level));
        DTLogger *logger = DTLogger_New(c.flags);
        EXPECT_EQ(c.result, DTLogger_Write(logger, c.level, c.text));
        EXPECT_EQ(c.echo, Flushed());
        const std::vector<std::string> recs = Records(logger);
        ASSERT_EQ(c.key ? 2u : 0u, recs.size());
        if (c.key) {
            EXPECT_EQ(std::string("l:YYYY/MM/DD HH:MI:SS").size(), recs[0].size());
            EXPECT_EQ(std::string(c.key) + ":" + c.text, recs[1]);
        }
        DTLogger_Release(logger);
    }
    EXPECT_EQ(-1, DTLogger_Write(nullptr, 1, "x"));
}

TEST(DTLogger, BoundedFieldsThenAppendShowAndIgnore) {
    // Bounded header stack and fields. The release that closes a host's file comes first: one before it
    // that wrongly closed descriptor 0 would let the file reuse 0 and be closed all the same.
    DTLogger *logger = DTLogger_New(255);
    DTLogger_Header(logger, "a");
    DTLogger_Tail(logger);
    DTLogger_Tail(logger);  // an empty stack stays empty
    EXPECT_EQ(-1, logger->headerTop);
    DTLogger_ShowToBuf(logger, nullptr);  // no store yet
    DTLogger_ShowToBuf(nullptr, nullptr);
    DTLogger_Append(nullptr, 0, 0, "x");
    DTLogger_SetInfoSize(nullptr, 1);
    EXPECT_TRUE(dttest::Console().empty());
    for (int i = 0; i <= 100; ++i) DTLogger_Header(logger, std::to_string(i).c_str());
    DTLogger_Header(logger, nullptr);
    EXPECT_EQ(99, logger->headerTop);
    EXPECT_STREQ("100", logger->headers[99]);
    const std::string longText(600, 'n');
    DTLogger_Header(logger, longText.c_str());
    DTLogger_SetFileName(logger, longText.c_str());
    DTLogger_SetUDP(logger, longText.c_str(), 514);
    EXPECT_EQ(longText.substr(0, 49), logger->headers[99]);
    EXPECT_EQ(longText.substr(0, 499), logger->fileName);
    EXPECT_EQ(longText.substr(0, 19), logger->udpAddr);
    EXPECT_EQ(514, logger->udpPort);
    const int fd = open("/dev/null", O_RDONLY);  // a host's file: the release closes it
    logger->fd = fd;
    DTLogger_Release(logger);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    DTLogger_Release(nullptr);

    logger = DTLogger_New(0);
    DTLogger_SetInfoSize(logger, 30000);
    DTLogger_Append(logger, 0, 99, "boot");
    DTLogger_Append(logger, 3, 0, "err");
    EXPECT_EQ("boot\n", Flushed());  // whatever the flag word, only level 0 echoes
    DTLogger_SetInfoSize(logger, 8192);  // too late: the store exists
    EXPECT_EQ(30720u, logger->store->maxsize);
    std::vector<std::string> recs = Records(logger);
    ASSERT_EQ(4u, recs.size());
    EXPECT_EQ(2 + 15u, recs[0].size());
    EXPECT_EQ(' ', recs[0].back());
    EXPECT_EQ("l:boot", recs[1]);
    EXPECT_EQ("e:err", recs[3]);
    DTLogger_Ignore(logger, 1);
    EXPECT_EQ(0, DTLogger_Write(logger, 1, "x"));
    DTLogger_Append(logger, 0, 0, "x");
    EXPECT_EQ(4u, Records(logger).size());
    EXPECT_EQ("", Flushed());
    DTLogger_Ignore(logger, 0);
    DTLogger_ClearInfo(logger);
    EXPECT_EQ(0u, Records(logger).size());

    DTLogger_SetFlag(logger, 255);
    DTLogger_Write(logger, 1, "hello");
    DTInfo_Write(logger->store, "l", "");  // an empty line shows as a bare line break
    const std::string shown = Records(logger)[0].substr(2) + "\nhello\n\n";
    dttest::ClearDelays();
    DTLogger_ShowInfo(logger, 1);
    EXPECT_EQ(shown, dttest::ConsoleText());
    DTBuf *buf = DTBuf_New(1, 16, 0);
    DTLogger_ShowToBuf(logger, buf);
    void *text;
    ASSERT_EQ((int32_t)shown.size() + 1, DTBuf_Get(buf, 0, &text));
    EXPECT_EQ(shown, std::string((char *)text, shown.size()));
    EXPECT_EQ(std::vector<uint32_t>({1000, 1000}), dttest::Delays());
    // 401 records: the last one, index 400, is the fifth to pause before it.
    for (int i = 0; i < 199; ++i) DTLogger_Append(logger, 1, 0, "x");
    dttest::ClearDelays();
    DTLogger_ShowToBuf(logger, buf);
    EXPECT_EQ(std::vector<uint32_t>(5, 1000), dttest::Delays());
    DTBuf_Release(buf);
    DTLogger_Release(logger);
}
