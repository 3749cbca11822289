#include "containers/DTSet.h"

#include <gtest/gtest.h>

#include "containers/DTSet_internal.h"
#include "dttest.h"
#include "foundation/DTMem.h"

TEST(DTSet, Refusals) {
    EXPECT_EQ(DTSet_New(0), nullptr);
    EXPECT_EQ(DTSet_Get(nullptr, 0), 0);
    EXPECT_EQ(DTSet_Set(nullptr, 0, 1), 0);
    DTSet *s = DTSet_New(7);
    EXPECT_EQ(DTSet_Set(s, 6, 1), 1);
    EXPECT_EQ(DTSet_Set(s, 6, 1), 0);
    EXPECT_EQ(DTSet_Set(s, 7, 1), 0);
    s->bits[0] |= 0x80;  // the byte's spare bit: never a member
    EXPECT_EQ(DTSet_Get(s, 7), 0);
    EXPECT_EQ(DTSet_Set(s, 3, 0), 0);
    EXPECT_EQ(s->count, 1u);  // no-ops leave the count alone
    DTSet_Release(s);
    EXPECT_EQ(dttest::LiveBlocks(), 0);
}

TEST(DTSet, MembersAreIndependent) {
    for (uint32_t size : {1u, 7u, 9u, 64u}) {
        DTMemOwnerStats before{}, after{};
        DTMem_GetOwnerStats(0, &before);
        DTSet *s = DTSet_New(size);
        DTMem_GetOwnerStats(0, &after);
        EXPECT_EQ(after.bytes - before.bytes, 4 + sizeof(DTSet) + (size + 7) / 8) << "one bit a member, rounded up";
        for (uint32_t i = 0; i < size; ++i) {
            EXPECT_EQ(DTSet_Set(s, i, 2), 1);
            for (uint32_t j = 0; j < size; ++j) EXPECT_EQ(DTSet_Get(s, j), j <= i ? 1 : 0);
        }
        for (uint32_t i = 0; i < size; i += 2) EXPECT_EQ(DTSet_Set(s, i, 0), 1);
        for (uint32_t j = 0; j <= size; ++j) EXPECT_EQ(DTSet_Get(s, j), j < size ? int32_t(j % 2) : 0);
        EXPECT_EQ(s->count, size / 2);
        DTSet_Release(s);
    }
}
