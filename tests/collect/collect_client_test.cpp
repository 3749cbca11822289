#include "collect/collect_client.h"

#include <gtest/gtest.h>

#include <functional>

#include "collect/collect_getdata.h"
#include "test_collector.h"

namespace {

using ct::Bytes;

struct RequestCase {
    const char *what;
    Bytes datagram;
    int32_t result;  // -2: any negative
    uint32_t type;
    const char *printed;
    uint32_t port;
};

Bytes Cut(Bytes b, size_t n) {
    b.resize(n);
    return b;
}
Bytes Grow(Bytes b, size_t n) {
    b.resize(n, 0xEE);
    return b;
}

TEST(CollectClient, RequestsAreValidatedAndPrinted) {
    const RequestCase cases[] = {
        {"full request", ct::Request(16, 2, 5, 0x12342328), 5, 2, "size=16\n", 0x12342328},
        {"length one short", ct::Request(15, 2, 5, 9000), -1, 0, "size=16\n", 0},
        {"8-byte request", Cut(ct::Request(8, 1, 5, 9000), 8), 0, 1, "size=8\n", 0},
        {"20 bytes read as 16", Grow(ct::Request(16, 0, 7, 9000), 20), 7, 0, "size=16\n", 9000},
        {"self test", ct::Request(16, 3, 0, 9000), 0, 3, "size=16\n", 9000},
        {"type 4", ct::Request(16, 4, 5, 9000), -1, 0, "size=16\n", 0},
        {"top bit of sequence", ct::Request(16, 2, 0x80000000u, 9000), -2, 2, "size=16\n", 0},
    };
    int32_t sock = CollectClient_Init();
    ASSERT_GE(sock, 0);
    EXPECT_EQ(CollectClient_Init(), -1) << "port 9099 is taken";
    for (const auto &c : cases) {
        ct::SendDatagram(c.datagram);
        uint32_t type = 99;
        char requester[16] = {};
        uint8_t port4[4] = {};
        testing::internal::CaptureStdout();
        int32_t r = CollectClient_WaitFor(sock, 1, 2, &type, requester, port4);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed) << c.what;
        if (c.result == -2) {
            EXPECT_LT(r, 0) << c.what;
            continue;
        }
        EXPECT_EQ(r, c.result) << c.what;
        if (r < 0) continue;
        EXPECT_EQ(type, c.type) << c.what;
        EXPECT_STREQ(requester, "127.0.0.1") << c.what;
        EXPECT_EQ(ct::Be32(port4), c.port) << c.what;
    }
    uint32_t type = 0;
    char requester[16];
    uint8_t port4[4];
    EXPECT_EQ(CollectClient_WaitFor(-1, 0, 0, &type, requester, port4), -1);
    EXPECT_EQ(CollectClient_WaitFor(sock, 0, 0, nullptr, requester, port4), -1) << "no receive";
}

const uint32_t kFillSection = 0xEEEE;

// Prefill bytes that read as one buffer record of section kFillSection.
Bytes Fill(int n) {
    Bytes b = {0x84};
    ct::PutBe32(b, kFillSection);
    ct::PutBe32(b, 0);
    ct::PutBe32(b, 0);
    b.push_back(uint8_t((n - 15) >> 8));
    b.push_back(uint8_t(n - 15));
    b.resize(size_t(n), 0x55);
    return b;
}

std::vector<ct::Record> Written(const std::vector<ct::Msg> &msgs) {
    std::vector<ct::Record> out;
    for (const auto &r : ct::Records(msgs)) {
        if (r.section != kFillSection) out.push_back(r);
    }
    return out;
}

// Runs one collection against a collector: prefill raw bytes, then the writer.
std::vector<ct::Msg> Collect(int prefill, const std::function<void()> &write) {
    ct::Collector c;
    c.Serve();
    EXPECT_EQ(CollectClient_Start("127.0.0.1", 0xABCD0000u | c.Port()), 1);
    CollectClient_SetType(COLLECT_MSG_DATA);
    Bytes fill = prefill > 0 ? Fill(prefill) : Bytes();
    CollectClient_AppendBuffer(fill.data(), uint32_t(fill.size()));
    write();
    CollectClient_End();
    return c.Wait();
}

std::vector<size_t> PayloadSizes(const std::vector<ct::Msg> &msgs) {
    std::vector<size_t> out;
    for (const auto &m : msgs) out.push_back(m.payload.size());
    return out;
}

struct SplitCase {
    const char *what;
    int prefill;
    std::function<void()> write;
    std::vector<size_t> sizes;  // payload sizes; the last is what the closing flush took
    std::vector<uint8_t> kinds; // of the records written after the prefill
};

const std::string k50(50, 's');
const Bytes k2000(2000, 0x77);

TEST(CollectClient, WritersFlushAndSplitAtTheBufferEnd) {
    const SplitCase cases[] = {
        {"int, 16 free", 1008, [] { CollectClient_CollectInt(1, 2, 3, 4); }, {1008, 17}, {0x81}},
        {"int, 17 free", 1007, [] { CollectClient_CollectInt(1, 2, 3, 4); }, {1024}, {0x81}},
        {"long, 20 free", 1004, [] { CollectClient_CollectLong(1, 2, 3, 4); }, {1004, 21}, {0x82}},
        {"long, 21 free", 1003, [] { CollectClient_CollectLong(1, 2, 3, 4); }, {1024}, {0x82}},
        {"string, 24 free", 1000,
         [] { EXPECT_EQ(CollectClient_CollectString(1, 2, 3, k50.c_str(), 0), 50); },
         {1000, 65}, {0x83}},
        {"string, 25 free", 999,
         [] { EXPECT_EQ(CollectClient_CollectString(1, 2, 3, k50.c_str(), 0), 10); },
         {1024}, {0x03}},
        {"string, 34 free, whole", 990,
         [] {
             EXPECT_EQ(CollectClient_CollectString(1, 2, 3, k50.c_str(), 50), 19);
             EXPECT_EQ(CollectClient_CollectString(1, 2, 3, k50.c_str() + 19, 31), 31);
         },
         {1024, 46}, {0x03, 0x83}},
        {"buffer, 24 free", 1000,
         [] { EXPECT_EQ(CollectClient_CollectBuffer(1, 2, 3, k50.data(), 9), 9); },
         {1000, 24}, {0x84}},
        {"2000-byte buffer, empty", 0,
         [] { Collect_PutStruct(Collect_New("b", nullptr, nullptr), 9, k2000.data(), 2000); },
         {1024, 1006}, {0x04, 0x84}},
    };
    for (const auto &c : cases) {
        auto msgs = Collect(c.prefill, c.write);
        EXPECT_EQ(PayloadSizes(msgs), c.sizes) << c.what;
        std::vector<uint8_t> kinds;
        for (const auto &r : Written(msgs)) kinds.push_back(r.kind);
        EXPECT_EQ(kinds, c.kinds) << c.what;
    }
}

TEST(CollectClient, EmptyValuesAndLongByteOrder) {
    int32_t emptyString = -1;
    int32_t emptyBuffer = -1;
    auto msgs = Collect(0, [&] {
        emptyString = CollectClient_CollectString(1, 0, 2, "", 0);
        emptyBuffer = CollectClient_CollectBuffer(1, 0, 2, "x", 0);
        CollectSection *s = Collect_New("refused", nullptr, nullptr);
        Collect_PutStruct(s, 1, nullptr, 5);
        Collect_PutStruct(s, 1, "x", 0x80000000u);
        Collect_PutString(s, 1, "x", -1);
        Collect_PutString(s, 1, nullptr, 0);
        CollectClient_CollectLong(1, 0, 3, 1);
    });
    EXPECT_EQ(emptyString, 0);
    EXPECT_EQ(emptyBuffer, 0);
    ASSERT_EQ(msgs.size(), 1u);
    const Bytes want = {0x83, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0,
                        0x82, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(msgs[0].payload, want);
}

TEST(CollectClient, FlushCountsSequencesAndSendsBareHeaders) {
    ct::Collector c;
    c.Serve();
    ASSERT_EQ(CollectClient_Start("127.0.0.1", c.Port()), 1);
    CollectClient_SetType(1);
    EXPECT_EQ(CollectClient_Flush(77), 1);
    EXPECT_EQ(CollectClient_Flush(0), 1);
    CollectClient_End();
    auto &msgs = c.Wait();
    ASSERT_EQ(msgs.size(), 3u);
    EXPECT_EQ(msgs[0].length, 12u);
    EXPECT_EQ(msgs[0].type, 1u);
    EXPECT_EQ(msgs[0].sequence, 77u);
    EXPECT_EQ(msgs[1].sequence, 1u);
    EXPECT_EQ(msgs[2].sequence, 2u);
    EXPECT_EQ(ct::Owner100Bytes(), 0u);
}

TEST(CollectClient, NothingIsWrittenOutsideACollection) {
    EXPECT_EQ(CollectClient_Flush(0), 0);
    EXPECT_EQ(CollectClient_CollectString(1, 2, 3, "abc", 0), 0);
    EXPECT_EQ(CollectClient_CollectBuffer(1, 2, 3, "abc", 3), 0);
    CollectClient_CollectInt(1, 2, 3, 4);
    CollectClient_AppendInt(5);
    CollectClient_End();
    CollectSection *s = Collect_New("idle", nullptr, nullptr);
    Collect_PutStruct(s, 1, "abc", 3);  // must return, not spin
    Collect_PutString(s, 1, "abc", 0);
    EXPECT_EQ(ct::Owner100Bytes(), sizeof(CollectSection) + 4);
}

TEST(CollectClient, AppendsNeverRunPastThePayload) {
    Bytes big(1030, 0x11);
    auto msgs = Collect(1000, [&] {
        CollectClient_AppendString(std::string(30, 'n').c_str());  // 32 bytes: refused
        CollectClient_AppendInt(0xA1A2A3A4);                       // fits
        CollectClient_AppendBuffer(big.data(), 21);                // one too many: refused
        CollectClient_AppendBuffer(big.data(), 20);                // exactly fills
    });
    ASSERT_EQ(msgs.size(), 1u);
    EXPECT_EQ(msgs[0].payload.size(), 1024u);
    EXPECT_EQ(ct::Be32(&msgs[0].payload[1000]), 0xA1A2A3A4u);
}

uint16_t RefusedPort() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr *>(&a), &len);
    close(s);  // bound once, never listening: a connect there is refused
    return ntohs(a.sin_port);
}

TEST(CollectClient, RefusedConnectPrintsAndKeepsNothing) {
    testing::internal::CaptureStdout();
    int32_t r = CollectClient_Start("127.0.0.1", RefusedPort());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "connect error.\n");
    EXPECT_EQ(r, 0);
    EXPECT_EQ(CollectClient_Start(nullptr, 1), 0);
    EXPECT_EQ(ct::Owner100Bytes(), 0u);
}

TEST(CollectClient, VanishedCollectorGivesSendError) {
    ct::Collector c;
    c.Serve(1);
    ASSERT_EQ(CollectClient_Start("127.0.0.1", c.Port()), 1);
    EXPECT_EQ(CollectClient_Flush(0), 1) << "a closed connection counts as acknowledged";
    c.Wait();
    testing::internal::CaptureStdout();
    int32_t r = 1;
    for (int i = 0; i < 10 && r == 1; i++) {
        r = CollectClient_Flush(0);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(r, 0);
    EXPECT_NE(out.find("send error.\n"), std::string::npos) << out;
    CollectClient_End();
    EXPECT_EQ(ct::Owner100Bytes(), 0u);
}

}  // namespace
