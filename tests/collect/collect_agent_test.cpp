#include "collect/collect_api.h"

#include <gtest/gtest.h>

#include "collect/collect_getdata.h"
#include "collect/collect_selftest.h"
#include "fault/DTFault.h"
#include "test_collector.h"

namespace {

using ct::Bytes;

Bytes B(std::initializer_list<uint8_t> b) { return Bytes(b); }
size_t Count(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) n++;
    return n;
}

CollectSection *g_cpu;
void CpuCollect(uint32_t) {
    Collect_BeginSection(g_cpu, 7);
    Collect_PutInt(g_cpu, 1, 42);
    Collect_EndSection(g_cpu);
}

TEST(CollectAgent, OneRequestByteForByte) {
    g_cpu = Collect_New("cpu", CpuCollect, nullptr);
    Collect_New("mem", nullptr, nullptr);
    ct::StartAgent(0x0102ABCD);
    ct::Collector c;
    c.Request(2, 5);
    const auto &m = c.Wait();
    ASSERT_EQ(m.size(), 4u);
    const uint32_t heads[4][3] = {{16, 0, 5}, {30, 1, 1}, {29, 2, 2}, {12, 2, 3}};
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(m[i].length, heads[i][0]) << "message " << i;
        EXPECT_EQ(m[i].type, heads[i][1]) << "message " << i;
        EXPECT_EQ(m[i].sequence, heads[i][2]) << "message " << i;
    }
    EXPECT_EQ(m[0].payload, B({1, 2, 0, 0}));
    EXPECT_EQ(m[1].payload, B({0, 0, 0, 0, 0, 3, 'c', 'p', 'u', 0, 0, 0, 1, 0, 3, 'm', 'e', 'm'}));
    EXPECT_EQ(m[2].payload, B({0x81, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 0x2A}));
    std::string log = ct::AgentLog();
    EXPECT_EQ(Count(log, " [cpu] begin...\n"), 1u) << log;
    EXPECT_EQ(Count(log, " [cpu] end\n"), 1u) << log;
    EXPECT_EQ(Count(log, "[mem]"), 0u) << log;
    EXPECT_EQ(ct::SettledOwner100(2 * (sizeof(CollectSection) + 4)), 2 * (sizeof(CollectSection) + 4));
}

TEST(CollectAgent, RegistryLimitsAndNames) {
    EXPECT_EQ(Collect_New(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(Collect_New("", nullptr, nullptr), nullptr);
    CollectSection *first = Collect_New("abcdefghijklmnopqrstuvwxy", nullptr, nullptr);
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first->name, "abcdefghijklmnopqrs");
    for (int i = 1; i < 19; i++) ASSERT_NE(Collect_New("s", nullptr, nullptr), nullptr) << i;
    EXPECT_EQ(Collect_New("twentieth", nullptr, nullptr), nullptr);
    EXPECT_EQ(g_collect_param.count, 19);
    CollectSection *last = g_collect_param.sections[18];
    Collect_Release(last);
    EXPECT_EQ(g_collect_param.count, 18);
    EXPECT_EQ(g_collect_param.sections[17]->index, 17);
    CollectSection stranger = *first;  // claims slot 0, which holds another section
    Collect_Release(&stranger);
    EXPECT_EQ(g_collect_param.count, 18);
    EXPECT_EQ(ct::Owner100Bytes(), 18 * (sizeof(CollectSection) + 4));
    EXPECT_EQ(Collect_Start(nullptr, 1, 0, 0, 0, 0), 0);
    EXPECT_EQ(Collect_SelfTest(nullptr, 1, 0, 0, 0), 0);
}

std::vector<uint32_t> g_types;
CollectSection *g_b;
CollectSection *g_c;
void PutB(uint32_t type) {
    g_types.push_back(type);
    Collect_PutInt(g_b, 2, type);
}
void PutC(uint32_t) { Collect_PutInt(g_c, 3, 0); }

TEST(CollectAgent, ReleaseRenumbersAndTypesOnlyReachTheCallback) {
    CollectSection *a = Collect_New("a", PutB, nullptr);
    g_b = Collect_New("b", PutB, nullptr);
    g_c = Collect_New("c", PutC, nullptr);
    Collect_Release(a);
    EXPECT_EQ(g_b->index, 0);
    EXPECT_EQ(g_c->index, 1);
    ct::StartAgent(0);
    std::vector<std::vector<ct::Msg>> runs;
    for (uint32_t type = 0; type < 3; type++) {
        ct::Collector c;
        c.Request(type, 0);
        runs.push_back(c.Wait());
    }
    ASSERT_EQ(runs[0].size(), 5u);
    EXPECT_EQ(runs[0][1].payload, B({0, 0, 0, 0, 0, 1, 'b', 0, 0, 0, 1, 0, 1, 'c'}));
    auto recs = ct::Records(runs[0]);
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].section, 0u);
    EXPECT_EQ(recs[1].section, 1u);
    EXPECT_EQ(g_types, (std::vector<uint32_t>{0, 1, 2}));
    for (int t = 1; t < 3; t++) {
        ASSERT_EQ(runs[t].size(), runs[0].size()) << "type " << t;
        EXPECT_EQ(runs[t][1].payload, runs[0][1].payload) << "type " << t;
        EXPECT_EQ(ct::Records(runs[t])[1].data, recs[1].data) << "type " << t;
    }
}

TEST(CollectAgent, NoSectionsStillFramesTheCollection) {
    ct::StartAgent(0);
    ct::Collector c;
    c.Request(0, 0);
    const auto &m = c.Wait();
    ASSERT_EQ(m.size(), 3u);
    EXPECT_EQ(m[0].sequence, 1u) << "sequence 0 takes the counter";
    EXPECT_EQ(m[1].length, 12u);
    EXPECT_EQ(m[1].type, 1u);
    EXPECT_EQ(m[2].length, 12u);
    EXPECT_EQ(m[2].type, 2u);
}

CollectSection *g_alpha;
void AlphaTest(uint32_t arg) { Collect_PutInt(g_alpha, 4, arg + 9); }
void Nothing(uint32_t) {}

TEST(CollectAgent, SelfTestLeadsEachSectionWithItsName) {
    g_alpha = Collect_New("alpha", Nothing, AlphaTest);
    Collect_New("beta", nullptr, Nothing);
    Collect_New("gamma", Nothing, nullptr);
    ct::StartAgent(0x0A0B0000);
    ct::Collector c;
    c.Request(3, 0);
    const auto &m = c.Wait();
    ASSERT_EQ(m.size(), 4u);
    EXPECT_EQ(m[0].sequence, 1u);
    EXPECT_EQ(m[0].payload, B({0x0A, 0x0B, 0, 0}));
    EXPECT_EQ(m[1].type, 2u) << "no section list";
    EXPECT_EQ(m[2].length, 12u + 15 + 4) << "beta: its name record alone";
    EXPECT_EQ(m[3].length, 12u);
    auto recs = ct::Records(m);
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[0].section, 65535u);
    EXPECT_EQ(recs[0].kind, 0x83);
    EXPECT_EQ(ct::Text(recs[0].data), "alpha");
    EXPECT_EQ(recs[1].section, 0u);
    EXPECT_EQ(recs[1].number, 9u) << "the self-test callback receives 0";
    EXPECT_EQ(ct::Text(recs[2].data), "beta");
    std::string log = ct::AgentLog();
    EXPECT_EQ(Count(log, " [alpha] selftest begin...\n"), 1u) << log;
    EXPECT_EQ(Count(log, " [beta] selftest end\n"), 1u) << log;
    EXPECT_EQ(Count(log, "gamma"), 0u) << log;
}

DTFaultRecord *g_fault;
CollectSection *g_logs;
void PutLogs(uint32_t) {
    Collect_PutRunLog(g_logs, 5, g_fault);
    Collect_PutInitLog(g_logs, 6, g_fault);
    Collect_PutRunLog(g_logs, 7, nullptr);
}

// Joins pieces into values: (code, text) in stream order.
std::vector<std::pair<uint32_t, std::string>> Values(const std::vector<ct::Record> &recs) {
    std::vector<std::pair<uint32_t, std::string>> out;
    std::string acc;
    for (const auto &r : recs) {
        acc += ct::Text(r.data);
        if (r.kind & 0x80) {
            out.emplace_back(r.code, acc);
            acc.clear();
        }
    }
    return out;
}

TEST(CollectAgent, FaultLogsGoOutRecordByRecord) {
    g_fault = DTFault_Regist("disk", nullptr);
    const std::string longLine(1500, 'L');
    DTFault_SetRunLog(g_fault, 1, 0, "first");
    DTFault_SetRunLog(g_fault, 1, 0, longLine.c_str());
    DTFault_SetRunLog(g_fault, 1, 0, "");
    DTFault_SetInitLog(g_fault, 1, 0, "booted");
    g_logs = Collect_New("logs", PutLogs, nullptr);
    ct::StartAgent(0);
    ct::Collector c;
    c.Request(1, 0);
    auto v = Values(ct::Records(c.Wait()));
    ASSERT_EQ(v.size(), 8u) << "a stamp and a text record per line";
    EXPECT_EQ(v[1], std::make_pair(5u, std::string("first")));
    EXPECT_EQ(v[3], std::make_pair(5u, longLine));
    EXPECT_EQ(v[5], std::make_pair(5u, std::string()));
    EXPECT_EQ(v[4].second.size(), 15u) << "run log stamps read MM/DD HH:MI:SS and a blank";
    EXPECT_EQ(v[7], std::make_pair(6u, std::string("booted")));
}

}  // namespace
