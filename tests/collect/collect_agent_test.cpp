// The agent end to end against a collector on 127.0.0.1: what it sends, and
// collectors that misbehave. After each misbehaving one the agent serves the
// next request completely and owner 100 holds only its sections.
#include "collect/collect_api.h"

#include <gtest/gtest.h>

#include "collect/collect_getdata.h"
#include "collect/collect_selftest.h"
#include "fault/DTFault.h"
#include "test_collector.h"

namespace {

using ct::Bytes;

CollectSection *g_cpu;
uint32_t g_type = 99;
void CpuCollect(uint32_t type) {
    g_type = type;
    Collect_BeginSection(g_cpu, 7);
    Collect_PutInt(g_cpu, 1, 42);
    Collect_EndSection(g_cpu);
}

// The section released first makes cpu and mem slots 0 and 1, as in a fresh registry.
// The request socket gets descriptor 0 (a host that closed its standard input), and
// the requester matches the allow list's second slot. After each misbehaving
// collector the next one is served whole and owner 100 holds only the sections.
// Not a case: the identity message's type set to 0 again, as a new send buffer holds
// it already; only a host's own client session left open could hold another.
TEST(CollectAgent, OneRequestByteForByteThenMisbehavingCollectors) {
    CollectSection *gone = Collect_New("gone", nullptr, nullptr);
    g_cpu = Collect_New("cpu", CpuCollect, nullptr);
    Collect_New("mem", nullptr, nullptr);
    Collect_Release(gone);
    close(0);
    ASSERT_EQ(Collect_AllowPrefix("10.0.0.0", 8), 0);
    ASSERT_EQ(Collect_AllowPrefix("127.0.0.0", 8), 0);
    Collect_SetAckTimeout(200);
    ASSERT_TRUE(ct::StartAgent(0x0102ABCD)) << "port 9099 is taken";
    const auto m = ct::Collect(2, 5);
    std::vector<std::vector<uint32_t>> heads;  // length, type, sequence of each message
    for (const auto &x : m) heads.push_back({x.length, x.type, x.sequence});
    ASSERT_EQ(heads, (std::vector<std::vector<uint32_t>>{{16, 0, 5}, {30, 1, 1}, {29, 2, 2}, {12, 2, 3}}));
    EXPECT_EQ(m[0].payload, Bytes({1, 2, 0, 0}));
    EXPECT_EQ(m[1].payload, Bytes({0, 0, 0, 0, 0, 3, 'c', 'p', 'u', 0, 0, 0, 1, 0, 3, 'm', 'e', 'm'}));
    EXPECT_EQ(m[2].payload, Bytes({0x81, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 0x2A}));
    EXPECT_EQ(g_type, 2u) << "the callback gets the request's type";
    testing::internal::CaptureStdout();
    EXPECT_EQ(ct::Collect(2, 0, 0, ct::Ack::Never).size(), 3u) << "identity, list, the last flush";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "size=16\nrecv error.\nrecv error.\nrecv error.\n");
    for (size_t k = 1; k <= m.size(); k++) EXPECT_EQ(ct::Collect(2, 0, int(k)).size(), k);
    EXPECT_EQ(ct::Collect(2, 0, 0, ct::Ack::Empty).size(), m.size()) << "after closed collectors";
    ct::SendDatagram(ct::Request(16, 2, 0, 1));  // valid, but nobody listens on port 1
    EXPECT_EQ(ct::Collect(2).size(), m.size()) << "after a failed connection";
    EXPECT_TRUE(ct::Logged(" [cpu] begin...\n"));
    EXPECT_TRUE(ct::Logged(" [cpu] end\n"));
    EXPECT_TRUE(ct::Logged("flush to server fail."));
    EXPECT_TRUE(ct::Logged("connect to server fail."));
    EXPECT_EQ(ct::Owner100(2 * ct::kSectionBytes), 2 * ct::kSectionBytes);
}

// Equal by design: a new section's block set to 0 again after the whole struct
// was cleared; Collect_ShowLog's second argument to the logger is unused there;
// a release that also looked at the slot just past the count finds it empty, always
// (20 slots for at most 19 sections, cleared on release).
TEST(CollectAgent, RegistryLimitsAndNames) {
    EXPECT_EQ(Collect_New(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(Collect_New("", nullptr, nullptr), nullptr);
    CollectSection *first = Collect_New("abcdefghijklmnopqrstuvwxy", nullptr, nullptr);
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first->name, "abcdefghijklmnopqrs");
    for (int i = 1; i < 19; i++) ASSERT_NE(Collect_New("s", nullptr, nullptr), nullptr) << i;
    EXPECT_EQ(Collect_New("twentieth", nullptr, nullptr), nullptr);
    Collect_Release(g_collect_param.sections[18]);
    EXPECT_EQ(g_collect_param.count, 18);
    EXPECT_EQ(g_collect_param.sections[18], nullptr) << "no stale pointer past the count";
    CollectSection stranger = *first;  // claims slot 0, which holds another section
    Collect_Release(&stranger);
    EXPECT_EQ(g_collect_param.sections[0], first);
    EXPECT_EQ(Collect_Start(nullptr, 1, 0, 0, 0, 0), 0);
    EXPECT_EQ(Collect_SelfTest(nullptr, 1, 0, 0, 0), 0);
    ct::Collector collector, selfTestCollector;
    EXPECT_EQ(Collect_Start("127.0.0.1", collector.port, 0, 0, 1, 2), 1) << "served whole";
    EXPECT_EQ(Collect_SelfTest("127.0.0.1", selfTestCollector.port, 0, 1, 2), 1) << "served whole";
}

CollectSection *g_alpha;
DTFaultRecord *g_fault;
DTFaultRecord g_bare;  // never registered: no logs at all
void AlphaTest(uint32_t arg) {
    Collect_BeginSection(g_alpha, 5);
    Collect_EndSection(g_alpha);
    Collect_PutInt(g_alpha, 4, arg + 9);
    Collect_PutRunLog(g_alpha, 9, &g_bare);
    Collect_PutRunLog(g_alpha, 5, g_fault);
    Collect_PutInitLog(g_alpha, 6, g_fault);
    Collect_PutRunLog(g_alpha, 7, nullptr);
    Collect_PutLong(g_alpha, 8, 0x0102030405060708u);
}
void Nothing(uint32_t) {}

// Alpha's self test also puts a fault's logs: a stamp and a text record per line.
// First the allow list: the slots past its last prefix are never-used zeros, which
// would match any source. An empty log line is an empty text record.
TEST(CollectAgent, AllowListThenSelfTestLeadsEachSectionWithItsName) {
    g_fault = DTFault_Regist("disk", nullptr);
    DTFault_SetRunLog(g_fault, 1, 0, "first");
    DTFault_SetRunLog(g_fault, 1, 0, "");
    DTFault_SetInitLog(g_fault, 1, 0, "booted");
    g_alpha = Collect_New("alpha", Nothing, AlphaTest);
    Collect_New("beta", nullptr, Nothing);
    Collect_New("gamma", Nothing, nullptr);
    EXPECT_EQ(Collect_AllowPrefix("10.0.0.0", 33), -1);
    EXPECT_EQ(Collect_AllowPrefix("ten", 8), -1);
    EXPECT_EQ(Collect_AllowPrefix(nullptr, 8), -1);
    ASSERT_EQ(Collect_AllowPrefix("10.0.0.0", 8), 0);
    ASSERT_EQ(Collect_AllowPrefix("127.0.0.2", 31), 0);  // 127.0.0.2-3 only
    ASSERT_TRUE(ct::StartAgent(0x0A0B0000)) << "port 9099 is taken";
    EXPECT_TRUE(ct::Collect(2, 0, 0, ct::Ack::Normal, 500).empty()) << "never connected";
    EXPECT_TRUE(ct::Logged("request from 127.0.0.1 dropped."));
    for (int i = 2; i < COLLECT_ALLOW_MAX; i++) ASSERT_EQ(Collect_AllowPrefix("10.1.2.3", 8), 0);
    EXPECT_EQ(Collect_AllowPrefix("127.0.0.1", 32), -1) << "the list is full";
    Collect_ClearAllow();
    EXPECT_EQ(Collect_AllowPrefix("127.0.0.1", 32), 0);
    const auto m = ct::Collect(3);
    ASSERT_EQ(m.size(), 4u) << "identity, alpha, beta, closing";
    EXPECT_EQ(m[0].sequence, 1u) << "sequence 0 takes the counter";
    const auto v = ct::Records(m);
    ASSERT_EQ(v.size(), 10u) << "name, int, 3 log lines as stamp and text, long, name";
    using Head = std::vector<uint32_t>;  // kind, section, block, code
    auto head = [&v](size_t i) { return Head{v[i].kind, v[i].section, v[i].block, v[i].code}; };
    EXPECT_EQ(head(0), (Head{0x83, 65535, 0, 0}));
    EXPECT_EQ(ct::Text(v[0].data), "alpha");
    EXPECT_EQ(head(1), (Head{0x81, 0, 0, 4})) << "an ended section puts block 0";
    EXPECT_EQ(ct::Be32(v[1].data.data()), 9u) << "the self-test callback gets 0";
    EXPECT_EQ(ct::Text(v[3].data), "first");
    EXPECT_EQ(ct::Text(v[7].data), "booted");
    EXPECT_EQ(head(7), (Head{0x83, 0, 0, 6}));
    EXPECT_EQ(v[8].data, Bytes({1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(ct::Text(v[9].data), "beta");
    EXPECT_TRUE(ct::Logged(" [alpha] selftest begin...\n"));
    EXPECT_TRUE(ct::Logged(" [beta] selftest end\n"));
}

}  // namespace
