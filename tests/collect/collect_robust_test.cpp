// Collectors that misbehave, and the two protections: after each, the agent
// serves the next request completely and owner 100 holds only its sections.
#include "collect/collect_api.h"

#include <gtest/gtest.h>

#include "collect/collect_getdata.h"
#include "test_collector.h"

namespace {

using ct::Bytes;
const size_t npos = std::string::npos;
const uint32_t kSections = 2 * ct::kSectionBytes;

CollectSection *g_big;
CollectSection *g_small;
void PutBig(uint32_t) {
    const Bytes data(1500, 0x3C);
    Collect_PutStruct(g_big, 1, data.data(), uint32_t(data.size()));
    Collect_PutInt(g_big, 2, 0xC0FFEE);
}
void PutSmall(uint32_t) { Collect_PutString(g_small, 3, "x", 0); }

// Registers both sections, starts the agent and returns one complete collection.
std::vector<ct::Msg> Reference() {
    g_big = Collect_New("big", PutBig, nullptr);
    g_small = Collect_New("small", PutSmall, nullptr);
    EXPECT_TRUE(ct::StartAgent(0)) << "port 9099 is taken";
    return ct::Collect(0);
}

// Types and payloads: what must match between two complete collections.
std::vector<std::pair<uint32_t, Bytes>> Shape(const std::vector<ct::Msg> &msgs) {
    std::vector<std::pair<uint32_t, Bytes>> out;
    for (const auto &m : msgs) out.emplace_back(m.type, m.payload);
    return out;
}

TEST(CollectRobust, MisbehavingCollectorsAndBadDatagrams) {
    const auto reference = Reference();
    ASSERT_EQ(reference.size(), 6u) << "identity, list, 2 for big, 1 for small, closing";
    testing::internal::CaptureStdout();
    for (size_t k = 1; k <= reference.size(); k++) {
        SCOPED_TRACE("closing after message " + std::to_string(k));
        EXPECT_EQ(ct::Collect(0, 0, int(k)).size(), k);
        EXPECT_EQ(Shape(ct::Collect(0)), Shape(reference));
        EXPECT_EQ(ct::Owner100(kSections), kSections);
    }
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("send error.\n"), npos) << out;
    EXPECT_NE(ct::AgentLog().find("flush to server fail."), npos);
    EXPECT_EQ(Shape(ct::Collect(0, 0, 0, ct::Ack::Empty)), Shape(reference));
    EXPECT_EQ(ct::Owner100(kSections), kSections) << "after empty acknowledgements";
    const Bytes burst[] = {
        {}, {0xFF}, ct::Request(15, 2, 0, 1), ct::Request(16, 4, 0, 1),
        ct::Request(16, 2, 0xFFFFFFFFu, 1), Bytes(16, 0xFF), Bytes(1400, 0x00),
    };
    testing::internal::CaptureStdout();
    for (int round = 0; round < 20; round++) {
        for (const auto &d : burst) ct::SendDatagram(d);
    }
    ct::SendDatagram(ct::Request(16, 2, 0, 1));  // valid, but nobody listens on port 1
    EXPECT_EQ(Shape(ct::Collect(0)), Shape(reference)) << "after the burst";
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("connect error.\n"), npos) << printed;
    EXPECT_EQ(ct::Owner100(kSections), kSections) << "after the burst";
    EXPECT_NE(ct::AgentLog().find("connect to server fail."), npos);
}

// Also: a source inside the allow list is served.
TEST(CollectRobust, AckTimeOutAbandonsASilentCollector) {
    ASSERT_EQ(Collect_AllowPrefix("10.0.0.0", 8), 0);
    ASSERT_EQ(Collect_AllowPrefix("127.0.0.0", 8), 0);
    Collect_SetAckTimeout(200);
    const auto reference = Reference();
    EXPECT_EQ(reference.size(), 6u);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ct::Collect(0, 0, 0, ct::Ack::Never).size(), 3u) << "identity, list, the last flush";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "size=16\nrecv error.\nrecv error.\nrecv error.\n");
    EXPECT_EQ(Shape(ct::Collect(1)), Shape(reference));
    EXPECT_EQ(ct::Owner100(kSections), kSections);
    EXPECT_NE(ct::AgentLog().find("flush to server fail."), npos);
    EXPECT_EQ(ct::AgentLog().find("dropped"), npos);
}

TEST(CollectRobust, AllowListServesOnlyItsPrefixes) {
    EXPECT_EQ(Collect_AllowPrefix("10.0.0.0", 33), -1);
    EXPECT_EQ(Collect_AllowPrefix("ten", 8), -1);
    EXPECT_EQ(Collect_AllowPrefix(nullptr, 8), -1);
    for (int i = 0; i < COLLECT_ALLOW_MAX; i++) ASSERT_EQ(Collect_AllowPrefix("10.1.2.3", 8), 0);
    EXPECT_EQ(Collect_AllowPrefix("127.0.0.1", 32), -1) << "the list is full";
    Collect_ClearAllow();
    ASSERT_EQ(Collect_AllowPrefix("10.0.0.0", 8), 0);
    ASSERT_EQ(Collect_AllowPrefix("127.0.0.2", 31), 0);  // 127.0.0.2-3 only
    ASSERT_TRUE(ct::StartAgent(0)) << "port 9099 is taken";
    EXPECT_TRUE(ct::Collect(2, 0, 0, ct::Ack::Normal, 500).empty()) << "never connected";
    EXPECT_NE(ct::AgentLog().find("request from 127.0.0.1 dropped."), npos);
}

}  // namespace
