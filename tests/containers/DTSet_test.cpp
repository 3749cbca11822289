#include "containers/DTSet.h"

#include <gtest/gtest.h>

#include "containers/DTSet_internal.h"
#include "dttest.h"
#include "foundation/DTMem.h"

TEST(DTSet, MembersAreIndependentAndBounded) {
    EXPECT_EQ(DTSet_New(0), nullptr);
    EXPECT_EQ(DTSet_Get(nullptr, 0), 0);
    EXPECT_EQ(DTSet_Set(nullptr, 0, 1), 0);
    for (uint32_t size : {1u, 7u, 9u, 64u}) {
        SCOPED_TRACE("size " + std::to_string(size));
        DTMemOwnerStats before{}, after{};
        DTMem_GetOwnerStats(0, &before);
        DTSet *s = DTSet_New(size);
        DTMem_GetOwnerStats(0, &after);
        EXPECT_EQ(after.bytes - before.bytes, 4 + sizeof(DTSet) + (size + 7) / 8) << "one bit a member, rounded up";
        EXPECT_EQ(DTSet_Set(s, size, 1), 0);
        for (uint32_t i = 0; i < size; ++i) {
            EXPECT_EQ(DTSet_Set(s, i, 2), 1);
            for (uint32_t j = 0; j < size; ++j) EXPECT_EQ(DTSet_Get(s, j), j <= i ? 1 : 0);
        }
        EXPECT_EQ(DTSet_Set(s, 0, 1), 0);
        for (uint32_t i = 0; i < size; i += 2) EXPECT_EQ(DTSet_Set(s, i, 0), 1);
        EXPECT_EQ(DTSet_Set(s, 0, 0), 0);
        if (size % 8) s->bits[size / 8] |= uint8_t(1u << (size % 8));  // the spare bit: never a member
        for (uint32_t j = 0; j <= size; ++j) EXPECT_EQ(DTSet_Get(s, j), j < size ? int32_t(j % 2) : 0);
        EXPECT_EQ(s->count, size / 2);  // no-ops leave the count alone
        DTSet_Release(s);
    }
    EXPECT_EQ(dttest::LiveBlocks(), 0);
}
