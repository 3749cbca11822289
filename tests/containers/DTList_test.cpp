#include "containers/DTList.h"

#include <gtest/gtest.h>

#include "dttest.h"

namespace {

using Items = std::vector<uintptr_t>;
void *W(uintptr_t n) { return reinterpret_cast<void *>(n); }

Items g_freed;
void RecordFree(void *item) { g_freed.push_back(reinterpret_cast<uintptr_t>(item)); }
int Equal(void *item, void *key) { return item == key ? 0 : 1; }

std::vector<DTList *> g_made;  // released after each test, for the leak checker
class ListTest : public testing::Test {
    void TearDown() override {
        for (DTList *l : g_made) DTList_Release(l);
        g_made.clear();
        g_freed.clear();
    }
};

DTList *Make(Items items, int32_t limit = 0, DTListFreeFn fn = RecordFree) {
    DTList *l = DTList_New(limit, fn);
    g_made.push_back(l);
    for (uintptr_t n : items) EXPECT_EQ(1, DTList_Append(l, W(n)));
    return l;
}

Items Content(DTList *l) {
    Items out;
    for (int32_t i = 0; i < DTList_Length(l); ++i) out.push_back(reinterpret_cast<uintptr_t>(DTList_Get(l, i)));
    return out;
}

TEST_F(ListTest, PositionRules) {
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
}

TEST_F(ListTest, SetReplacesOrExtends) {
    DTList *l = Make({1, 2});
    EXPECT_EQ(W(1), DTList_Set(l, 0, W(6)));
    EXPECT_EQ(W(2), DTList_Set(l, 1, W(7)));
    EXPECT_EQ(nullptr, DTList_Set(l, -1, W(8)));
    EXPECT_EQ(nullptr, DTList_Set(l, 4, W(5)));
    EXPECT_EQ(nullptr, DTList_Set(nullptr, 0, W(1)));
    EXPECT_EQ((Items{6, 7, 0, 0, 5}), Content(l));
}

TEST_F(ListTest, BoundedPushDropsOldest) {
    DTList *l = Make({}, 3);
    for (uintptr_t n : {1, 2, 3, 4}) EXPECT_EQ(1, DTList_Push(l, W(n)));
    EXPECT_EQ((Items{4, 3, 2}), Content(l));
    EXPECT_EQ(Items{1}, g_freed);
    EXPECT_EQ(W(4), DTList_Popup(l));
    EXPECT_EQ(W(2), DTList_PopTail(l));
    EXPECT_EQ(Items{1}, g_freed);  // popped items go back unreleased
}

TEST_F(ListTest, StaticListNeverLosesItems) {
    static DTList *l;  // a static list lives for ever; this keeps it reachable
    l = Make({}, 2, nullptr);
    uint32_t calls = dttest::MallocCalls();
    for (uintptr_t n = 1; n <= 50; ++n) DTList_Push(l, W(n));
    EXPECT_LE(dttest::MallocCalls() - calls, 1u);  // nodes come from the pool, not one block each
    EXPECT_EQ(nullptr, DTList_Remove(l, 1));
    EXPECT_EQ(nullptr, DTList_PopTail(l));
    EXPECT_EQ(nullptr, DTList_Popup(l));
    DTList_RemoveAll(l);
    DTList_Release(l);
    EXPECT_EQ(50, DTList_Length(l));
    EXPECT_EQ(W(50), DTList_Get(l, 0));
}

TEST_F(ListTest, FindAndRelease) {
    DTList *l = Make({4, 0, 6, 6});
    EXPECT_EQ(2, DTList_FindPos(l, Equal, W(6)));
    EXPECT_EQ(W(6), DTList_Find(l, Equal, W(6)));
    EXPECT_EQ(-1, DTList_FindPos(l, Equal, W(5)));
    EXPECT_EQ(nullptr, DTList_Find(l, Equal, W(5)));
    EXPECT_EQ(nullptr, DTList_Find(l, nullptr, W(4)));
    EXPECT_EQ(-1, DTList_FindPos(l, nullptr, W(4)));
    DTList_RemoveAll(l);
    EXPECT_EQ(0, DTList_Length(l));
    EXPECT_EQ((Items{4, 6, 6}), g_freed);
    EXPECT_EQ(1, DTList_Append(l, W(8)));  // the handle outlives RemoveAll
    DTList_Release(l);
    g_made.clear();
    EXPECT_EQ((Items{4, 6, 6, 8}), g_freed);
    DTList_Release(nullptr);
    EXPECT_EQ(-1, DTList_FindPos(nullptr, Equal, W(4)));
    for (int32_t r : {DTList_Insert(nullptr, 0, W(1)), DTList_Push(nullptr, W(1)), DTList_Length(nullptr)})
        EXPECT_EQ(0, r);
}

}  // namespace
