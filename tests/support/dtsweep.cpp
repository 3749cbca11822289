#include "dtsweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

#include "dttest.h"
#include "foundation/DTMem.h"

namespace dttest {
namespace {

// The memory books as the platform and the library keep them.
struct Books {
    int64_t live;                     // platform blocks
    int64_t counted;                  // blocks counted against owners, all slots together
    int64_t chunks;                   // static pool chunks, never given back by design
    std::array<uint32_t, 256> bytes;  // bytes held by each owner slot
};

Books Take() {
    Books b{LiveBlocks(), 0, 0, {}};
    for (uint32_t slot = 0; slot < 256; ++slot) {
        DTMemOwnerStats s{};
        DTMem_GetOwnerStats(slot, &s);
        b.bytes[slot] = s.bytes;
        b.counted += int64_t(s.mallocs) - int64_t(s.frees);
    }
    DTMemPoolStats p{};
    DTMem_GetPoolStats(&p);
    b.chunks = p.chunks;
    return b;
}

}  // namespace

void RunSweep(const Sweep &s) {
    uint32_t runs = 0;
    bool completed = false;
    while (!completed && runs < 100000) {  // far beyond any scenario; ends a runaway sweep
        const uint32_t k = ++runs;
        SCOPED_TRACE(std::string(s.name) + ": allocation " + std::to_string(k) + " failing");
        const Books before = Take();
        if (s.setup) s.setup();
        const uint32_t calls = MallocCalls();
        FailMallocAt(k);
        const int64_t got = s.op();
        FailMallocAt(0);
        completed = MallocCalls() - calls < k;
        const bool degraded = s.degraded && s.degraded();
        if (completed) {
            EXPECT_NE(got, s.failed) << "failed with no allocation failing";
            EXPECT_FALSE(degraded) << "degraded with no allocation failing";
        } else {
            EXPECT_TRUE(got == s.failed || degraded)
                << "returned " << got << ", not " << s.failed << ", and passed nothing over";
        }
        const bool followed = s.follow ? s.follow() : s.op() != s.failed;
        EXPECT_TRUE(followed) << "the follow-up failed";
        if (s.cleanup) s.cleanup();
        const Books after = Take();
        const int64_t kept = (s.kept ? s.kept() : 0) + after.chunks - before.chunks;
        EXPECT_EQ(after.live - before.live, kept) << "platform blocks left behind";
        EXPECT_EQ(after.counted - before.counted, kept) << "blocks left counted against owners";
        const auto moved = std::mismatch(before.bytes.begin(), before.bytes.end(), after.bytes.begin());
        EXPECT_TRUE(kept != 0 || moved.first == before.bytes.end())
            << "owner slot " << (moved.first - before.bytes.begin()) << " holds other bytes";
    }
    EXPECT_TRUE(completed) << s.name << " never ran without a failing allocation";
    std::printf("sweep %s: %u runs, %u injected failures\n", s.name, runs, runs - completed);
    std::fflush(stdout);
}

}  // namespace dttest
