#include "collect/collect_client.h"

#include <gtest/gtest.h>

#include "collect/collect_client_internal.h"
#include "collect/collect_getdata.h"
#include "test_collector.h"

namespace {

using ct::Bytes;

// Equal on this system, so not cases: the receive's flags as MSG_OOB (datagram
// sockets ignore it); a connect address with non-zero padding (ignored too); a
// send loop that stops with one byte left (a blocking send on this stream
// returns short only on a signal, never seen here) or that goes on after a
// send of 0 bytes (never returned for a non-empty buffer).
// Every receive is printed with its size, a request cut at 16 bytes.
TEST(CollectClient, RequestsAndRefusals) {
    const struct { const char *what; Bytes datagram; int32_t result; uint32_t type, port; } cases[] = {
        {"full request", ct::Request(16, 2, 5, 0x12342328), 5, 2, 0x12342328},
        {"length one short", ct::Request(15, 2, 5, 9000), -1, 0, 0},
        {"8-byte request", {0, 0, 0, 8, 0, 0, 0, 1}, 0, 1, 0},
        {"20 bytes read as 16",
         {0, 0, 0, 16, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0x23, 0x28, 0xEE, 0xEE, 0xEE, 0xEE}, 7, 0, 9000},
        {"self test", ct::Request(16, 3, 0, 9000), 0, 3, 9000},
        {"type 4", ct::Request(16, 4, 5, 9000), -1, 0, 0},
        {"top bit of sequence", ct::Request(16, 2, 0x80000000u, 9000), INT32_MIN, 2, 9000},
        {"empty: as cleared, length 0", {}, 0, 0, 0},
    };
    int32_t sock = CollectClient_Init();
    ASSERT_GE(sock, 0);
    EXPECT_EQ(CollectClient_Start(nullptr, 1), 0);
    ct::Collector collector;
    dttest::FailMallocAt(1);
    EXPECT_EQ(CollectClient_Start("127.0.0.1", collector.port), 0) << "connected, but no send buffer";
    EXPECT_TRUE(collector.msgs.get().empty()) << "and closed at once";
    // A host without standard input: each refused socket below is descriptor 0 (the
    // capture holds a descriptor of its own from the start, so it takes another).
    testing::internal::CaptureStdout();
    close(0);
    EXPECT_EQ(CollectClient_Init(), -1) << "port 9099 is taken";
    EXPECT_EQ(CollectClient_Start("127.0.0.1", collector.port), 0) << "nobody listens any more";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "connect error.\n");
    EXPECT_EQ(dup(sock), 0) << "both refused sockets are closed";
    uint32_t type = 0;
    char requester[16];
    uint8_t port4[4];
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ct::SendDatagram(c.datagram);
        testing::internal::CaptureStdout();
        int32_t r = CollectClient_WaitFor(sock, 1, 2, &type, requester, port4);
        const size_t size = c.datagram.size() > 16 ? 16 : c.datagram.size();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "size=" + std::to_string(size) + "\n");
        EXPECT_EQ(r, c.result);
        if (r == -1) continue;
        EXPECT_EQ(type, c.type);
        EXPECT_STREQ(requester, "127.0.0.1");
        EXPECT_EQ(ct::Be32(port4), c.port);
    }
    EXPECT_EQ(CollectClient_WaitFor(-1, 0, 0, &type, requester, port4), -1);
    EXPECT_EQ(CollectClient_ParseRequest_(nullptr, 16, &type, port4), -1);
    EXPECT_EQ(CollectClient_ParseRequest_(cases[0].datagram.data(), 16, nullptr, port4), -1);
    EXPECT_EQ(CollectClient_ParseRequest_(cases[0].datagram.data(), 16, &type, nullptr), -1);
    // Nothing is queued: a receive here would block for good.
    EXPECT_EQ(CollectClient_WaitFor(sock, 0, 0, nullptr, requester, port4), -1);
    // Outside a collection nothing is written.
    EXPECT_EQ(CollectClient_Flush(0), 0);
    EXPECT_EQ(CollectClient_CollectString(1, 2, 3, "abc", 0), 0);
    EXPECT_EQ(CollectClient_CollectBuffer(1, 2, 3, "abc", 3), 0);
    CollectClient_SetType(1);
    CollectClient_CollectInt(1, 0, 3, 4);
    CollectClient_CollectLong(1, 0, 3, 4);
    CollectClient_AppendInt(5);
    CollectClient_End();
}

// The payload bytes held before a writer runs are one buffer record of this section.
const uint32_t kFill = 0xEEEE;
const char k50[] = "ssssssssssssssssssssssssssssssssssssssssssssssssss";
CollectSection *Fresh() { return Collect_New("s", nullptr, nullptr); }
const Bytes kData(2000, 0x77);

int32_t Str(int32_t len) { return CollectClient_CollectString(1, 0, 3, k50, len); }

// Equal by design, so not cases: a piece takes at least 10 bytes unless fewer are
// left, so a put that stops after a 1-byte piece had finished anyway; a struct of
// 2^31 bytes or more that got past the put's check is refused by the piece's signed
// length; a string's length reaches 2^31 only through strlen of a 2 GiB text; a piece
// whose value exactly fills the room takes the same bytes whether "fits" is len <= room or
// len < room; End clearing the fill count again after its closing flush already did.
TEST(CollectClient, WritersFlushAndSplitAtTheBufferEnd) {
    // sizes: payload sizes, the last what the closing flush took; kinds: of the records
    // the writer made, all in block 0.
    const struct { const char *what; int prefill; void (*write)(); std::vector<size_t> sizes; Bytes kinds; }
    cases[] = {
        {"int, 16 free", 1008, [] { CollectClient_CollectInt(1, 0, 3, 4); }, {1008, 17}, {0x81}},
        {"int, 17 free", 1007, [] { CollectClient_CollectInt(1, 0, 3, 4); }, {1024}, {0x81}},
        {"long, 20 free", 1004, [] { CollectClient_CollectLong(1, 0, 3, 4); }, {1004, 21}, {0x82}},
        {"long, 21 free", 1003, [] { CollectClient_CollectLong(1, 0, 3, 4); }, {1024}, {0x82}},
        {"string, 24 free", 1000, [] { EXPECT_EQ(Str(0), 50); }, {1000, 65}, {0x83}},
        {"string, 25 free", 999, [] { EXPECT_EQ(Str(0), 10); }, {1024}, {0x03}},
        {"string, 34 free, whole", 990, [] { Collect_PutString(Fresh(), 3, k50, 0); }, {1024, 46}, {3, 0x83}},
        {"buffer, 24 free", 1000, [] { EXPECT_EQ(CollectClient_CollectBuffer(1, 0, 3, kData.data(), 9), 9); },
         {1000, 24}, {0x84}},
        {"2000-byte buffer, empty", 0, [] { Collect_PutStruct(Fresh(), 9, kData.data(), 2000); },
         {1024, 1006}, {0x04, 0x84}},
        {"empty string, 1-byte buffer; refused values", 0, [] {
             EXPECT_EQ(Str(-1), 0);
             EXPECT_EQ(CollectClient_CollectString(1, 0, 2, "", 0), 0);
             EXPECT_EQ(CollectClient_CollectBuffer(1, 0, 2, "x", 0), 0);
             EXPECT_EQ(CollectClient_CollectBuffer(1, 0, 2, nullptr, 5), 0);
             EXPECT_EQ(CollectClient_CollectBuffer(1, 0, 2, "x", 1), 1);
             CollectSection *s = Collect_New("refused", nullptr, nullptr);
             Collect_PutStruct(s, 1, nullptr, 5);
             Collect_PutStruct(s, 1, "x", 0);
             Collect_PutStruct(s, 1, "x", 0x80000000u);
             Collect_PutString(s, 1, "x", -1);
             Collect_PutString(s, 1, nullptr, 0);
         }, {31}, {0x83, 0x84}},
        {"appends stop at the payload's end", 1000, [] {
             CollectClient_AppendString(nullptr);
             CollectClient_AppendBuffer(nullptr, 4);
             CollectClient_AppendString(k50);       // 52 bytes: refused
             CollectClient_AppendInt(0xA1A2A3A4);           // fits
             CollectClient_AppendBuffer(kData.data(), 21);  // one too many: refused
             CollectClient_AppendBuffer(kData.data(), 20);  // exactly fills
         }, {1024}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        // The appends write as an identity message would, the type never set.
        const uint32_t type = c.kinds.empty() ? 0 : COLLECT_MSG_DATA;
        ct::Collector collector;  // one collection: `prefill` payload bytes, then `write`
        EXPECT_EQ(CollectClient_Start("127.0.0.1", 0xABCD0000u | collector.port), 1);
        if (type != 0) CollectClient_SetType(type);
        if (c.prefill > 0) CollectClient_CollectBuffer(kFill, 0, 0, kData.data(), c.prefill - 15);
        c.write();
        CollectClient_End();
        const auto msgs = collector.msgs.get();
        EXPECT_EQ(msgs[0].type, type);
        std::vector<size_t> sizes;
        for (const auto &m : msgs) sizes.push_back(m.payload.size());
        EXPECT_EQ(sizes, c.sizes);
        Bytes kinds;
        for (const auto &r : ct::Records(msgs)) {
            EXPECT_EQ(r.block, 0u);
            if (r.section != kFill) kinds.push_back(r.kind);
        }
        EXPECT_EQ(kinds, c.kinds);
    }
}

}  // namespace
