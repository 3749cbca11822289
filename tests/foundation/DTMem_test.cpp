#include <gtest/gtest.h>

#include <cstdio>

#include "dttest.h"
#include "foundation/DTMem.h"
#include "foundation/DTPrint_internal.h"

namespace {

// Static blocks are never released; a host keeps them, and so must the leak checker see them kept.
void *g_kept[16];
unsigned g_keptCount;
uint8_t *Static(uint32_t owner, uint32_t size) {
    return static_cast<uint8_t *>(g_kept[g_keptCount++ % 16] = DTMem_Malloc_Static(owner, size));
}

std::string Fmt(const char *fmt, unsigned v) {
    char buf[64];
    return std::string(buf, size_t(snprintf(buf, sizeof buf, fmt, v)));
}

// The first show makes the self print object, counted in slot 0 with its header.
std::string Slot0(unsigned extra, unsigned calls, unsigned frees = 0) {
    return Fmt("    0  0x%08x", unsigned(sizeof(DTPrint)) + 4 + extra) + Fmt("      %4d", calls) + Fmt("    %4d\n", frees);
}

std::vector<std::string> Show() {
    dttest::ClearConsole();
    DTMem_Show();
    return dttest::Console();
}

std::vector<std::string> Expected(std::vector<std::string> slots, unsigned left, unsigned times, unsigned carved) {
    slots.insert(slots.begin(), {"   id        size    malloc    free\n", std::string(37, '-') + "\n"});
    slots.insert(slots.end(), {"\n", Fmt("static memory : left         = 0x%08x\n", left),
                               Fmt("static memory : times        = %d\n", times),
                               Fmt("static memory : malloc times = %d\n", carved)});
    return slots;
}

// Equal for any test, so not cases: a pool check that also reads the chunk slot just
// past the last finds it null, and no block lies within 1 MiB of address 0; a static
// size of 0xFFFFFFFB refused before rounding or, rounded, by the wrap check is the same.
TEST(DTMem, StaticPoolCarvesChunksAndBypassesLargeRequests) {
    EXPECT_EQ(DTMem_Malloc_Static(0, 0), nullptr);
    // Mapped blocks on both sides of the first chunk: the one above it is no pool block either.
    void *before = DTMem_Malloc(263, 0x200000);
    uint8_t *a = Static(0, 5), *b = Static(0, 5);
    DTMem_Free(7, DTMem_Malloc(263, 0x200000));  // owners fold to their low byte
    DTMem_Free(7, before);
    EXPECT_EQ(b - a, 8);
    DTMem_Free(0, b);  // pool blocks have no header: ignored, not handed to the platform
    EXPECT_EQ(Show(), Expected({Slot0(0x100004, 2)}, 0x100000 - 16, 1, 2));
    Static(5, 0x80001);  // an ordinary block of 0x80004
    uint8_t *half = Static(0, 0x80000);
    EXPECT_EQ(half, b + 8);
    EXPECT_EQ(Show(), Expected({Slot0(0x100004, 2), "    5  0x00080008         1       0\n"}, 0x7fff0, 1, 3));
    // 16 bytes short: a fresh chunk, and the old tail is never used again.
    uint8_t *next = Static(0, 0x80000), *after = Static(0, 4);
    EXPECT_NE(next, half + 0x80000);
    EXPECT_EQ(after, next + 0x80000);
    EXPECT_EQ(Static(0, 0x7fffc), after + 4);  // an exact fit still comes from the chunk
    EXPECT_EQ(Show(), Expected({Slot0(0x200008, 3), "    5  0x00080008         1       0\n"}, 0, 2, 6));
    DTMemPoolStats pool{};
    ASSERT_EQ(DTMem_GetPoolStats(&pool), 0);  // as shown
    EXPECT_EQ(pool.left, 0u);
    EXPECT_EQ(pool.chunks, 2u);
    EXPECT_EQ(pool.mallocs, 6u);
    EXPECT_EQ(DTMem_GetPoolStats(nullptr), -1);
    EXPECT_EQ(DTMem_GetOwnerStats(0, nullptr), -1);
}

// What a resize keeps, growing and shrinking, is checked by the allocation sweep's
// realloc row in the run where nothing fails.
TEST(DTMem, WrappingSizesAndOffsetsStopAtTheEnd) {
    // Sizes that would wrap with their header or rounding never reach the platform.
    EXPECT_EQ(DTMem_Malloc(4, 0xFFFFFFFD), nullptr);
    EXPECT_EQ(DTMem_New(0xFFFFFFF9, 0), nullptr);
    EXPECT_EQ(DTMem_Malloc_Static(4, 0xFFFFFFFE), nullptr);
    EXPECT_EQ(dttest::MallocCalls(), 0u);
    DTMemBlock *m = DTMem_New(10, 0);
    uint8_t dst[8];
    struct { uint32_t off, len, want; } cases[] = {
        {0, 10, 10}, {9, 1, 1}, {8, 5, 2}, {10, 1, 0}, {0xFFFFFFFF, 2, 0}, {3, 0, 0}};
    for (const auto &c : cases) {
        EXPECT_EQ(DTMem_memcpy(m, c.off, "ABCDEFGHIJ", c.len), c.want) << c.off;
        EXPECT_EQ(DTMem_memget(m, c.off, dst, c.len > 8 ? 8 : c.len), c.want > 8 ? 8 : c.want) << c.off;
    }
    EXPECT_EQ(DTMem_memcmp(m, 0, "ABCDEFGHAB", 10), 0);
    DTMem_memset(m, 8, 0x17A, 5);
    EXPECT_EQ(DTMem_memcmp(m, 6, "GHzz", 4), 0);
    ASSERT_EQ(DTMem_memget(m, 6, dst, 4), 4u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(dst), 4), "GHzz");
    EXPECT_LT(DTMem_memcmp(m, 0, "ABD", 3), 0);
    EXPECT_EQ(DTMem_Get(m, 9), m->data + 9);
    EXPECT_EQ(DTMem_Get(m, 10), nullptr);
    EXPECT_EQ(DTMem_realloc(nullptr, 4), nullptr);
    // A compare that would read past the end is refused like a bad offset.
    for (int32_t r : {DTMem_memcmp(m, 8, "zz\0", 3), DTMem_memcmp(m, 10, "", 0), DTMem_memcmp(nullptr, 0, "", 0)})
        EXPECT_EQ(r, -1);
    for (uint32_t n : {DTMem_memget(m, 0, nullptr, 1), DTMem_memcpy(m, 0, nullptr, 1), DTMem_memget(nullptr, 0, dst, 1)})
        EXPECT_EQ(n, 0u);
    DTMem_memset(nullptr, 0, 0, 1);
    DTMem_Free(3, nullptr);
    DTMem_Release(nullptr);
    DTMem_Release(m);
    EXPECT_EQ(dttest::LiveBlocks(), 0);
}

// Past 64 chunks their starts are no longer kept; one slot more would overwrite whatever
// lies beyond the table (the sanitizer names it), so the pool here grows to 65 chunks.
TEST(DTMem, StaticObjectsStayPut) {
    DTMemBlock *m = DTMem_New(16, 7);  // the first chunk's start: kept by the pool's table
    EXPECT_EQ(m->isStatic, 7);
    DTMem_Release(m);
    DTMem_LocalFree(m);
    EXPECT_EQ(DTMem_realloc(m, 64), m);
    EXPECT_EQ(DTMem_memcpy(m, 0, "0123456789abcdefgh", 18), 16u);  // still 16 bytes, still ours
    for (int i = 0; i < 128; ++i) Static(0, 0x80000);
    EXPECT_EQ(Show(), Expected({Slot0(65 * 0x100004, 66)}, 0x80000, 65, 129));
}

}  // namespace
