#include "collect/collect_api.h"

#include <gtest/gtest.h>

#include "collect/collect_getdata.h"
#include "collect/collect_selftest.h"
#include "fault/DTFault.h"
#include "test_collector.h"

namespace {

using ct::Bytes;
const size_t npos = std::string::npos;

CollectSection *g_cpu;
uint32_t g_type = 99;
void CpuCollect(uint32_t type) {
    g_type = type;
    Collect_BeginSection(g_cpu, 7);
    Collect_PutInt(g_cpu, 1, 42);
    Collect_EndSection(g_cpu);
}

// The section released first makes cpu and mem slots 0 and 1, as in a fresh registry.
TEST(CollectAgent, OneRequestByteForByte) {
    CollectSection *gone = Collect_New("gone", nullptr, nullptr);
    g_cpu = Collect_New("cpu", CpuCollect, nullptr);
    CollectSection *mem = Collect_New("mem", nullptr, nullptr);
    Collect_Release(gone);
    EXPECT_EQ(g_cpu->index, 0);
    EXPECT_EQ(mem->index, 1);
    ASSERT_TRUE(ct::StartAgent(0x0102ABCD)) << "port 9099 is taken";
    const auto m = ct::Collect(2, 5);
    ASSERT_EQ(m.size(), 4u);
    std::vector<std::vector<uint32_t>> heads;  // length, type, sequence of each message
    for (const auto &x : m) heads.push_back({x.length, x.type, x.sequence});
    EXPECT_EQ(heads, (std::vector<std::vector<uint32_t>>{{16, 0, 5}, {30, 1, 1}, {29, 2, 2}, {12, 2, 3}}));
    EXPECT_EQ(m[0].payload, Bytes({1, 2, 0, 0}));
    EXPECT_EQ(m[1].payload, Bytes({0, 0, 0, 0, 0, 3, 'c', 'p', 'u', 0, 0, 0, 1, 0, 3, 'm', 'e', 'm'}));
    EXPECT_EQ(m[2].payload, Bytes({0x81, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 0x2A}));
    EXPECT_EQ(g_type, 2u) << "the callback gets the request's type";
    const std::string log = ct::AgentLog();
    EXPECT_NE(log.find(" [cpu] begin...\n"), npos) << log;
    EXPECT_NE(log.find(" [cpu] end\n"), npos) << log;
    EXPECT_EQ(log.find("[mem]"), npos) << log;
    EXPECT_EQ(ct::Owner100(2 * ct::kSectionBytes), 2 * ct::kSectionBytes);
}

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
    CollectSection stranger = *first;  // claims slot 0, which holds another section
    Collect_Release(&stranger);
    EXPECT_EQ(g_collect_param.count, 18);
    EXPECT_EQ(g_collect_param.sections[0], first);
    EXPECT_EQ(Collect_Start(nullptr, 1, 0, 0, 0, 0), 0);
    EXPECT_EQ(Collect_SelfTest(nullptr, 1, 0, 0, 0), 0);
}

CollectSection *g_alpha;
DTFaultRecord *g_fault;
void AlphaTest(uint32_t arg) {
    Collect_PutInt(g_alpha, 4, arg + 9);
    Collect_PutRunLog(g_alpha, 5, g_fault);
    Collect_PutInitLog(g_alpha, 6, g_fault);
    Collect_PutRunLog(g_alpha, 7, nullptr);
    Collect_PutLong(g_alpha, 8, 0x0102030405060708u);
}
void Nothing(uint32_t) {}

// Alpha's self test also puts a fault's logs: a stamp and a text record per line,
// the long line split across messages.
TEST(CollectAgent, SelfTestLeadsEachSectionWithItsName) {
    g_fault = DTFault_Regist("disk", nullptr);
    const std::string longLine(1500, 'L');
    DTFault_SetRunLog(g_fault, 1, 0, "first");
    DTFault_SetRunLog(g_fault, 1, 0, longLine.c_str());
    DTFault_SetRunLog(g_fault, 1, 0, "");
    DTFault_SetInitLog(g_fault, 1, 0, "booted");
    g_alpha = Collect_New("alpha", Nothing, AlphaTest);
    Collect_New("beta", nullptr, Nothing);
    Collect_New("gamma", Nothing, nullptr);
    ASSERT_TRUE(ct::StartAgent(0x0A0B0000)) << "port 9099 is taken";
    const auto m = ct::Collect(3);
    ASSERT_EQ(m.size(), 5u) << "identity, two for alpha, beta, closing";
    EXPECT_EQ(m[0].sequence, 1u) << "sequence 0 takes the counter";
    EXPECT_EQ(m[0].payload, Bytes({0x0A, 0x0B, 0, 0}));
    EXPECT_EQ(m[3].length, 12u + 15 + 4) << "beta: its name record alone";
    // Pieces joined into values, in stream order.
    std::vector<ct::Record> v;
    for (auto r : ct::Records(m)) {
        if (!v.empty() && (v.back().kind & 0x80) == 0) {
            r.data.insert(r.data.begin(), v.back().data.begin(), v.back().data.end());
            v.pop_back();
        }
        v.push_back(r);
    }
    ASSERT_EQ(v.size(), 12u) << "name, int, 4 log lines as stamp and text, long, name";
    EXPECT_EQ(v[0].section, 65535u);
    EXPECT_EQ(v[0].kind, 0x83);
    EXPECT_EQ(ct::Text(v[0].data), "alpha");
    EXPECT_EQ(v[1].section, 0u);
    EXPECT_EQ(ct::Be32(v[1].data.data()), 9u) << "the self-test callback gets 0";
    EXPECT_EQ(ct::Text(v[3].data), "first");
    EXPECT_EQ(ct::Text(v[5].data), longLine);
    EXPECT_EQ(ct::Text(v[7].data), "");
    EXPECT_EQ(v[7].code, 5u);
    EXPECT_EQ(ct::Text(v[9].data), "booted");
    EXPECT_EQ(v[9].code, 6u);
    EXPECT_EQ(v[10].data, Bytes({1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(ct::Text(v[11].data), "beta");
    const std::string log = ct::AgentLog();
    EXPECT_NE(log.find(" [alpha] selftest begin...\n"), npos) << log;
    EXPECT_NE(log.find(" [beta] selftest end\n"), npos) << log;
    EXPECT_EQ(log.find("gamma"), npos) << log;
}

}  // namespace
