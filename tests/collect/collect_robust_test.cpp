// Collectors that misbehave, and the two protections: after each, the agent
// serves the next request completely and owner 100 holds only its sections.
#include "collect/collect_api.h"

#include <gtest/gtest.h>

#include "collect/collect_getdata.h"
#include "test_collector.h"

namespace {

using ct::Bytes;

CollectSection *g_big;
CollectSection *g_small;
void PutBig(uint32_t) {
    Bytes data(1500, 0x3C);
    Collect_PutStruct(g_big, 1, data.data(), uint32_t(data.size()));
    Collect_PutInt(g_big, 2, 0xC0FFEE);
}
void PutSmall(uint32_t) { Collect_PutString(g_small, 3, "x", 0); }

const uint32_t kSections = 2 * (sizeof(CollectSection) + 4);

void Register() {
    g_big = Collect_New("big", PutBig, nullptr);
    g_small = Collect_New("small", PutSmall, nullptr);
}

// Types and payloads: what must match between two complete collections.
std::vector<std::pair<uint32_t, Bytes>> Shape(const std::vector<ct::Msg> &msgs) {
    std::vector<std::pair<uint32_t, Bytes>> out;
    for (const auto &m : msgs) out.emplace_back(m.type, m.payload);
    return out;
}

std::vector<ct::Msg> Good() {
    ct::Collector c;
    c.Request(2, 0);
    return c.Wait();
}

TEST(CollectRobust, CollectorClosingAfterAnyMessage) {
    Register();
    ct::StartAgent(0);
    const auto reference = Good();
    ASSERT_EQ(reference.size(), 6u) << "identity, list, 2 for big, 1 for small, closing";
    for (size_t k = 1; k <= reference.size(); k++) {
        {
            ct::Collector rude;
            rude.Request(2, 0, int(k));
            EXPECT_EQ(rude.Wait().size(), k);
        }
        EXPECT_EQ(Shape(Good()), Shape(reference)) << "after closing at message " << k;
        EXPECT_EQ(ct::SettledOwner100(kSections), kSections) << "after closing at message " << k;
    }
    std::string log = ct::AgentLog();
    EXPECT_NE(log.find("flush to server fail."), std::string::npos) << log;
}

TEST(CollectRobust, EmptyAcknowledgementsStillDeliverEverything) {
    Register();
    ct::StartAgent(0);
    const auto reference = Good();
    ct::Collector quiet;
    quiet.Request(2, 0, 0, ct::Ack::Empty);
    EXPECT_EQ(Shape(quiet.Wait()), Shape(reference));
    EXPECT_EQ(Shape(Good()), Shape(reference));
    EXPECT_EQ(ct::SettledOwner100(kSections), kSections);
}

TEST(CollectRobust, InvalidDatagramsAndDeadCollectorsAreSkipped) {
    Register();
    ct::StartAgent(0);
    const auto reference = Good();
    const Bytes burst[] = {
        {},
        {0xFF},
        ct::Request(15, 2, 0, 1),
        ct::Request(16, 4, 0, 1),
        ct::Request(16, 2, 0xFFFFFFFFu, 1),
        Bytes(16, 0xFF),
        Bytes(1400, 0x00),
    };
    for (int round = 0; round < 20; round++) {
        for (const auto &d : burst) ct::SendDatagram(d);
    }
    ct::SendDatagram(ct::Request(16, 2, 0, 1));  // valid, but nobody listens on port 1
    EXPECT_EQ(Shape(Good()), Shape(reference));
    EXPECT_EQ(ct::SettledOwner100(kSections), kSections);
    EXPECT_NE(ct::AgentLog().find("connect to server fail."), std::string::npos);
}

TEST(CollectRobust, AckTimeOutAbandonsASilentCollector) {
    Register();
    Collect_SetAckTimeout(200);
    ct::StartAgent(0);
    ct::Collector silent;
    testing::internal::CaptureStdout();
    silent.Request(2, 0, 0, ct::Ack::Never);
    EXPECT_EQ(silent.Wait().size(), 3u) << "identity, list, then the abandoning flush";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "size=16\nrecv error.\nrecv error.\nrecv error.\n");
    EXPECT_EQ(Good().size(), 6u);
    EXPECT_EQ(ct::SettledOwner100(kSections), kSections);
    EXPECT_NE(ct::AgentLog().find("flush to server fail."), std::string::npos);
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
    ct::StartAgent(0);
    {
        ct::Collector refused;
        refused.Serve(0, ct::Ack::Normal, 500);
        ct::SendDatagram(ct::Request(16, 2, 0, refused.Port()));
        refused.Wait();
        EXPECT_FALSE(refused.Connected());
    }
    EXPECT_NE(ct::AgentLog().find("request from 127.0.0.1 dropped."), std::string::npos);
}

TEST(CollectRobust, AllowListServesAMatchingSource) {
    ASSERT_EQ(Collect_AllowPrefix("10.0.0.0", 8), 0);
    ASSERT_EQ(Collect_AllowPrefix("127.0.0.0", 8), 0);
    ct::StartAgent(0);
    EXPECT_EQ(Good().size(), 3u);
    EXPECT_EQ(ct::AgentLog().find("dropped"), std::string::npos);
}

}  // namespace
