// Every public operation that allocates, under the allocation-failure sweep: a row runs its
// operation again and again with the k-th platform allocation failing, k = 1, 2, ... until a run
// makes no k-th allocation. After each run: the documented failure value (or a documented
// degradation), a follow-up on the same structures with memory to spare, and the memory books
// as they were. Each row runs in a process of its own, named after the function under test.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../collect/test_collector.h"
#include "dtkit.h"
#include "dttest.h"
#include "records/DTLogger_internal.h"

namespace {

int64_t Ptr(const void *p) { return p != nullptr; }
void *W(uintptr_t n) { return reinterpret_cast<void *>(n); }
void KeepItem(void *) {}
int64_t Lines() { return int64_t(dttest::Console().size()); }
int64_t Records(DTInfo *info) {
    uint32_t cursor = DTINFO_START;
    int64_t n = 0;
    while (info && DTInfo_Get(info, nullptr, 0, &cursor, nullptr, nullptr, nullptr, nullptr)) ++n;
    return n;
}
// A record holds its node in the list and two loggers, each logger its store (header, area).
int64_t LogBlocks(DTLogger *log) { return log ? 1 + (log->store ? 2 : 0) : 0; }
bool Listed(DTFaultRecord *f) { return f && DTList_Get(g_DTFault_List, f->index) == f; }
int64_t FaultBlocks(DTFaultRecord *f) {
    return f ? 1 + Listed(f) + LogBlocks(f->initLog) + LogBlocks(f->runLog) : 0;
}
bool InFaultFile(const std::string &text) {
    std::ifstream in(DTFAULT_FILE, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {}).find(text) != std::string::npos;
}
bool Holds(DTTable *t) {
    const int32_t v = 1;
    DTTable_SetTitle(t, 0, "v", DTTABLE_KIND_INT32, "%d", 'R');
    DTTable_Set(t, 0, 0, &v);
    return DTTable_Get(t, 0, 0) != nullptr;
}

// What the rows work on.
DTBuf *b;
DTList *l;
DTHash *h;
DTMemBlock *m;
DTInfo *info;
DTTable *t;
DTFaultRecord *f, *g;
CollectSection *cs;
int64_t got, n, runs;
bool had;
DTMemPoolStats pool;
std::string faultName, seen, whole;  // seen: what a rendering or collection gave
const std::string kBig(2000, 'd');  // more than a first 1024-byte area holds

void MakeAbc() { DTBuf_Append(b = DTBuf_New(1, 4, 0), "abc", 0); }
bool AbcStays() {
    void *text = nullptr;
    EXPECT_TRUE(got || DTBuf_Length(b) == 3) << "a failed write leaves the length";
    EXPECT_GE(DTBuf_Get(b, 0, &text), 4);
    EXPECT_EQ(memcmp(text, "abc", 3), 0) << "the written text stays";
    return DTBuf_Append(b, "h", 0) == 1;
}
void MakeList() { DTList_Append(l = DTList_New(0, KeepItem), W(1)); }
bool ListAsBefore() {
    EXPECT_EQ(DTList_Length(l), 1 + got) << "a failed add changes nothing";
    return DTList_Append(l, W(4)) == 1;
}
int64_t Grow() {
    DTMemBlock *grown = DTMem_realloc(m, 64);
    m = grown ? grown : m;
    return got = Ptr(grown);
}
bool WxyzStays() {
    EXPECT_EQ(m->size, got ? 64u : 4u) << "the size follows a resize that worked";
    EXPECT_EQ(DTMem_memcmp(m, 0, "wxyz", 4), 0) << "the old object stays whole";
    m = DTMem_realloc(m, 2);  // a shrink keeps what fits
    EXPECT_EQ(m->size, 2u);
    return DTMem_memcmp(m, 0, "wx", 2) == 0;
}
bool StaticAgain() {  // the next call tries the chunk again
    EXPECT_NE(DTMem_Malloc_Static(0, 8), nullptr);
    DTMem_GetPoolStats(&pool);
    return pool.chunks == 1;
}
bool OrdinaryBlock() {
    DTMemPoolStats now{};
    DTMem_GetPoolStats(&now);
    return had = now.mallocs == pool.mallocs;
}
void MakeHello() { DTInfo_Write(info = DTInfo_New(0), "w", "hello"); }
bool HelloStays() {
    EXPECT_GE(Records(info), 1) << "the old record stays";
    return DTInfo_Write(info, "w", "again") == 9;
}
void NextFault() {
    had = g_DTFault_List != nullptr;
    faultName = "half" + std::to_string(++runs);
}
DTFaultRecord *held[16];  // records are never released: each stays the caller's, unlisted or not
int64_t Regist() { return Ptr(held[runs % 16] = f = DTFault_Regist(faultName.c_str(), nullptr)); }
bool Unlisted() { return f && (!f->initLog || !f->runLog || !Listed(f)); }
int64_t FaultKept() { return !had + FaultBlocks(f) + FaultBlocks(g); }
bool FaultFollow() {  // a logger that could not be made is passed over, in the save too
    EXPECT_EQ(DTFault_SetInitLog(f, 1, 0, "init"), 0);
    EXPECT_EQ(DTFault_SetRunLog(f, 1, 0, "run"), 0);
    DTFault_Start();
    EXPECT_EQ(InFaultFile("log " + faultName + " init"), Listed(f) && f->initLog);
    g = DTFault_Regist("whole", nullptr);
    return Listed(g) && g->initLog && g->runLog;
}
int64_t SetFar() {
    DTList_Set(l, 6, W(6));
    return Ptr(DTList_Get(l, 6));
}
int64_t ShowLost() {
    DTPrint_Show("lost\n", 0);
    return Lines() - n;
}
bool PutsKept() {
    DTPrint_Puts("kept", 0);
    return dttest::Console().back() == "kept\n";
}
bool NewTableHolds() {
    DTTable *u = DTTable_New();
    const bool works = Holds(u);
    DTTable_Release(u);
    return works;
}
int64_t SetCell() {  // set whole or absent
    const int32_t v = 4;
    DTTable_Set(t, 2, 0, &v);
    const int32_t *cell = static_cast<int32_t *>(DTTable_Get(t, 2, 0));
    return cell && *cell == 4;
}
// Every rendering at once: console lines (also through a buffer address of 1), the
// caller's buffer, a DTBuf. A piece that cannot be had is missing from it.
int64_t Render() {
    static char buf[4096];
    DTBuf *out = DTBuf_New(1, 16, 16);
    const int64_t before = Lines();
    DTTable_Show(t);
    DTTable_ShowToBuf(t, reinterpret_cast<DTBuf *>(1));
    DTTable_ShowToBuf(t, out);
    seen = std::to_string(Lines() - before) + "/" + std::to_string(DTBuf_Length(out));
    seen += "/" + std::to_string(DTTable_ShowToBuffer(t, buf, sizeof buf));
    DTBuf_Release(out);
    return seen == whole;
}
int32_t Tick(DTTimer *) { return 1; }
void TimerBefore() {
    had = g_DTTimer_List != nullptr;
    n = DTList_Length(g_DTTimer_List);
}
int64_t Timer() { return got = DTTimer_Regist(Tick, 10); }
bool TimerUnlisted() { return got == 1 && DTList_Length(g_DTTimer_List) == n; }
int64_t TimerKept() { return !had + 2 * (DTList_Length(g_DTTimer_List) - n); }
bool TimerAgain() {
    EXPECT_TRUE(got == 1 || DTList_Length(g_DTTimer_List) == n) << "nothing registered";
    return DTTimer_Regist(Tick, 10) == 1;
}
const std::string kLong(1500, 's');  // two pieces at least
void PutAll(uint32_t) {
    Collect_BeginSection(cs, 3);
    Collect_PutInt(cs, 1, 42);
    Collect_PutLong(cs, 2, 0x0102030405060708u);
    Collect_PutString(cs, 3, kLong.c_str(), 0);
    Collect_PutStruct(cs, 4, kLong.data(), 1500);
    Collect_EndSection(cs);
}
// One collection served to a collector on 127.0.0.1, seen: the kinds of the records it
// got; 1 when it completed with every record.
int64_t CollectOnce() {
    ct::Collector collector;
    const int32_t r = Collect_Start("127.0.0.1", collector.port, 2, 1, 1, 2);
    seen.clear();
    for (const ct::Record &rec : ct::Records(collector.msgs.get())) seen += char(rec.kind);
    return r == 1 && seen == whole;
}
void PrepareCollect() {
    cs = Collect_New("all", PutAll, nullptr);
    Collect_New("quiet", nullptr, nullptr);
    CollectOnce();
    whole = seen;
    EXPECT_EQ(whole, "\x81\x82\x03\x83\x04\x04\x84") << "every record kind, the long ones in pieces";
}

struct Row {
    const char *name;
    void (*setup)();   // before each run; its allocations never fail and the clean-up gives them back
    int64_t (*op)();   // the operation under the failing allocation; returns its result
    int64_t failed;    // the result it documents for a failed allocation (0, null as 0, -1...)
    bool (*follow)();  // with memory to spare, on the same structures; none: the operation again
    void (*cleanup)() = nullptr;
    bool (*degraded)() = nullptr;  // a documented degradation (a part passed over), never when nothing failed
    int64_t (*kept)() = nullptr;   // platform blocks knowingly left (process-wide registrations)
    void (*prepare)() = nullptr;   // once, before the sweep: what stays for the whole process
};
void PrintTo(const Row &r, std::ostream *os) { *os << r.name; }  // a stable test name


const Row kRows[] = {
    {"DTBuf_Append", MakeAbc, [] { return got = DTBuf_Append(b, "defg", 0); }, 0, AbcStays, [] { DTBuf_Release(b); }},
    // Append is an insert at the end: one row covers both.
    {"DTList_Push", MakeList, [] { return got = DTList_Push(l, W(3)); }, 0, ListAsBefore, [] { DTList_Release(l); }},
    // The nodes made before the failing one stay, holding 0.
    {"DTList_Set", MakeList, SetFar, 0, nullptr, [] { DTList_Release(l); }},
    // A bucket list made in a failed attempt stays.
    {"DTHash_Set", [] { h = DTHash_New(4, 4, 1, nullptr); }, [] { return got = DTHash_Set(h, "keyA", "valA"); }, 0,
     [] {
         EXPECT_EQ(DTHash_Get(h, "keyA", nullptr), got) << "stored only when set";
         return DTHash_Set(h, "keyB", "valB") == 1 && DTHash_Get(h, "keyB", nullptr) == 1;
     },
     [] { DTHash_Release(h); }},
    {"DTMem_realloc", [] { DTMem_memcpy(m = DTMem_New(4, 0), 0, "wxyz", 4); }, Grow, 0, WxyzStays,
     [] { DTMem_Release(m); }},
    // No chunk: an ordinary block in its place, never given back.
    {"DTMem_Malloc_Static", [] { DTMem_GetPoolStats(&pool); }, [] { return Ptr(DTMem_Malloc_Static(0, 8)); }, 0,
     StaticAgain, nullptr, OrdinaryBlock, [] { return int64_t(had); }},
    // No print object: silence. The one that is made stays for good.
    {"DTPrint_Show", [] { n = Lines(); }, ShowLost, 0, PutsKept, nullptr, nullptr, [] { return int64_t(runs++ == 0); }},
    {"DTInfo_Append", MakeHello, [] { return int64_t(DTInfo_Append(info, "k", 1, kBig.data(), 2000)); }, -1,
     HelloStays, [] { DTInfo_Release(info); }},
    // The store is left without area; a later resize gives it one.
    {"DTInfo_ReSize", [] { DTInfo_Append(info = DTInfo_New(0), "k", 1, kBig.data(), 2000); },
     [] { return int64_t(DTInfo_ReSize(info, 1024)); }, 0, nullptr, [] { DTInfo_Release(info); }},
    // A record that cannot be listed comes back unlisted; a logger that cannot be made stays null.
    // The list is made by the first registration, the first allocation of the first run.
    {"DTFault_Regist_first", NextFault, Regist, 0, FaultFollow, nullptr, Unlisted, FaultKept},
    // A list that cannot be made stays null, and that table holds nothing.
    {"DTTable_New", nullptr, [] { return Ptr(t = DTTable_New()); }, 0, NewTableHolds, [] { DTTable_Release(t); },
     [] { return t && !Holds(t); }},
    // A row list made for the cell stays.
    {"DTTable_Set", [] { Holds(t = DTTable_New()); }, SetCell, 0, nullptr, [] { DTTable_Release(t); }},
    {"DTTable_output", nullptr, Render, 0, nullptr, nullptr, nullptr, nullptr, [] {
         Holds(t = DTTable_New());
         DTTable_SetCaption(t, "sweep");
         Render();
         whole = seen;
     }},
    // The list is made by the first run. An entry that cannot be listed is given back; the answer is still 1.
    {"DTTimer_Regist_first", TimerBefore, Timer, 0, TimerAgain, nullptr, TimerUnlisted, TimerKept},
    // No send buffer: the collection fails. Log lines the agent cannot store are lost, and it goes
    // on: whole, it logs a begin and an end line (two records each) for the one section with data.
    {"Collect_Start", [] { g_collect_param.logger = DTLogger_New(255); }, CollectOnce, 0, nullptr,
     [] {
         DTLogger_Release(g_collect_param.logger);
         g_collect_param.logger = nullptr;
     },
     [] { return Records(g_collect_param.logger->store) < 4; }, nullptr, PrepareCollect},
};

// The memory books as the platform and the library keep them: platform blocks, blocks counted
// against owners (all slots together), static pool chunks (never given back by design), and
// the bytes held by each owner slot.
struct Books {
    int64_t live, counted, chunks;
    std::vector<uint32_t> bytes;
};
Books Take() {
    DTMemPoolStats p{};
    DTMem_GetPoolStats(&p);
    Books books{dttest::LiveBlocks(), 0, p.chunks, {}};
    for (uint32_t slot = 0; slot < 256; ++slot) {
        DTMemOwnerStats s{};
        DTMem_GetOwnerStats(slot, &s);
        books.bytes.push_back(s.bytes);
        books.counted += int64_t(s.mallocs) - int64_t(s.frees);
    }
    return books;
}

class Sweep : public testing::TestWithParam<Row> {};
TEST_P(Sweep, Runs) {
    const Row &s = GetParam();
    if (s.prepare) s.prepare();
    bool completed = false;
    for (uint32_t k = 1; !completed && k < 100000; ++k) {  // far beyond any row; ends a runaway sweep
        SCOPED_TRACE("allocation " + std::to_string(k) + " failing");
        const Books before = Take();
        if (s.setup) s.setup();
        const uint32_t calls = dttest::MallocCalls();
        dttest::FailMallocAt(k);
        const int64_t r = s.op();
        dttest::FailMallocAt(0);
        completed = dttest::MallocCalls() - calls < k;
        const bool degraded = s.degraded && s.degraded();
        if (completed) {
            EXPECT_NE(r, s.failed) << "failed with no allocation failing";
            EXPECT_FALSE(degraded) << "degraded with no allocation failing";
        } else {
            EXPECT_TRUE(r == s.failed || degraded) << "returned " << r << " and passed nothing over";
        }
        EXPECT_TRUE(s.follow ? s.follow() : s.op() != s.failed) << "the follow-up failed";
        if (s.cleanup) s.cleanup();
        const Books after = Take();
        const int64_t kept = (s.kept ? s.kept() : 0) + after.chunks - before.chunks;
        EXPECT_EQ(after.live - before.live, kept) << "platform blocks left behind";
        EXPECT_EQ(after.counted - before.counted, kept) << "blocks left counted against owners";
        EXPECT_TRUE(kept != 0 || after.bytes == before.bytes) << "owner slots hold other bytes";
    }
    EXPECT_TRUE(completed) << "never ran without a failing allocation";
}
INSTANTIATE_TEST_SUITE_P(Alloc, Sweep, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<Row> &i) { return std::string(i.param.name); });

}  // namespace
