#include "containers/DTList.h"

#include <gtest/gtest.h>

#include "dttest.h"

namespace {

using Items = std::vector<uintptr_t>;
void *W(uintptr_t n) { return reinterpret_cast<void *>(n); }

Items g_freed;
void RecordFree(void *item) { g_freed.push_back(reinterpret_cast<uintptr_t>(item)); }
int Equal(void *item, void *key) { return item == key ? 0 : 1; }

// Each test runs in a process of its own: its lists are kept reachable for the leak
// checker (a plain array has no destructor to run before the check), not released.
DTList *g_made[8];
uint32_t g_madeCount;

DTList *Make(Items items, int32_t limit = 0, DTListFreeFn fn = RecordFree) {
    DTList *l = DTList_New(limit, fn);
    g_made[g_madeCount++ % 8] = l;
    for (uintptr_t n : items) EXPECT_EQ(1, DTList_Append(l, W(n)));
    return l;
}

Items Content(DTList *l) {
    Items out;
    for (int32_t i = 0; i < DTList_Length(l); ++i) out.push_back(reinterpret_cast<uintptr_t>(DTList_Get(l, i)));
    return out;
}

TEST(ListTest, PositionRulesForGetRemoveInsertSet) {
    DTList *l = Make({1, 2, 3});
    struct { int32_t pos; uintptr_t get, removed; Items left; } cases[] = {
        {3, 0, 0, {1, 2, 3}}, {-1, 1, 0, {1, 2, 3}}, {1, 2, 2, {1, 3}}, {1, 3, 3, {1}}, {0, 1, 1, {}}, {0, 0, 0, {}}};
    for (auto &c : cases) {
        EXPECT_EQ(W(c.get), DTList_Get(l, c.pos)) << c.pos;
        EXPECT_EQ(W(c.removed), DTList_Remove(l, c.pos)) << c.pos;
        EXPECT_EQ(c.left, Content(l)) << c.pos;
    }
    struct { int32_t pos; Items want; } inserts[] = {{0, {1, 9, 2}}, {-7, {9, 1, 2}}, {1, {1, 2, 9}}, {5, {1, 2, 9}}};
    for (auto &c : inserts) {
        DTList *m = Make({1, 2});
        EXPECT_EQ(1, DTList_Insert(m, c.pos, W(9)));
        EXPECT_EQ(c.want, Content(m)) << c.pos;
    }
    l = Make({1, 2});  // Set replaces or extends
    EXPECT_EQ(W(1), DTList_Set(l, 0, W(6)));
    EXPECT_EQ(W(2), DTList_Set(l, 1, W(7)));
    EXPECT_EQ(nullptr, DTList_Set(l, -1, W(8)));
    EXPECT_EQ(nullptr, DTList_Set(l, 4, W(5)));
    EXPECT_EQ(nullptr, DTList_Set(nullptr, 0, W(1)));
    EXPECT_EQ((Items{6, 7, 0, 0, 5}), Content(l));
}

TEST(ListTest, BoundedPushDropsOldestStaticListsKeepAllFindAndRelease) {
    DTList *l = Make({}, 3);
    for (uintptr_t n : {1, 2, 3, 4}) EXPECT_EQ(1, DTList_Push(l, W(n)));
    EXPECT_EQ((Items{4, 3, 2}), Content(l));
    EXPECT_EQ(Items{1}, g_freed);
    EXPECT_EQ(W(4), DTList_Popup(l));
    EXPECT_EQ(W(2), DTList_PopTail(l));
    EXPECT_EQ(Items{1}, g_freed);  // popped items go back unreleased
    l = Make({}, 2, nullptr);  // a static list: it never lets an item go
    uint32_t calls = dttest::MallocCalls();
    for (uintptr_t n = 1; n <= 50; ++n) DTList_Push(l, W(n));
    EXPECT_LE(dttest::MallocCalls() - calls, 1u);  // nodes come from the pool, not one block each
    for (void *taken : {DTList_Remove(l, 1), DTList_PopTail(l), DTList_Popup(l)}) EXPECT_EQ(nullptr, taken);
    DTList_RemoveAll(l);
    DTList_Release(l);
    EXPECT_EQ(50, DTList_Length(l));
    EXPECT_EQ(W(50), DTList_Get(l, 0));

    l = Make({4, 0, 6, 6});
    const struct { DTListCmpFn cmp; uintptr_t key; int32_t pos; } finds[] = {
        {Equal, 6, 2}, {Equal, 5, -1}, {nullptr, 4, -1}};
    for (const auto &f : finds) {
        EXPECT_EQ(f.pos, DTList_FindPos(l, f.cmp, W(f.key))) << f.key;
        EXPECT_EQ(W(f.pos < 0 ? 0 : f.key), DTList_Find(l, f.cmp, W(f.key))) << f.key;
    }
    DTList_RemoveAll(l);
    EXPECT_EQ(0, DTList_Length(l));
    EXPECT_EQ((Items{1, 4, 6, 6}), g_freed);
    EXPECT_EQ(1, DTList_Append(l, W(8)));  // the handle outlives RemoveAll
    DTList_Release(l);
    EXPECT_EQ((Items{1, 4, 6, 6, 8}), g_freed);
    DTList_Release(nullptr);
    EXPECT_EQ(-1, DTList_FindPos(nullptr, Equal, W(4)));
    for (int32_t r : {DTList_Insert(nullptr, 0, W(1)), DTList_Push(nullptr, W(1)), DTList_Length(nullptr)})
        EXPECT_EQ(0, r);
}

}  // namespace
