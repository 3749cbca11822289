// Allocation-failure sweep: runs one scenario again and again with the k-th
// platform allocation of its operation failing, k = 1, 2, ... until a run
// makes no k-th allocation, and after each run checks the result, the memory
// accounting and that the structures still work.
#pragma once

#include <cstdint>
#include <functional>

namespace dttest {

struct Sweep {
    const char *name;
    // Before each run; its allocations never fail and the clean-up gives them back.
    std::function<void()> setup;
    // The operation under the failing allocation; returns its result.
    std::function<int64_t()> op;
    // The result the operation documents for a failed allocation (0, null as 0, -1...).
    int64_t failed;
    // A follow-up on the same structures with memory to spare; true when it works.
    // None: the operation again, which must not fail.
    std::function<bool()> follow = nullptr;
    std::function<void()> cleanup = nullptr;
    // True when the run shows a documented degradation (a part passed over) in place
    // of the failure value. Must be false for a run in which nothing failed.
    std::function<bool()> degraded = nullptr;
    // Platform blocks the run knowingly leaves behind (process-wide registrations);
    // pool chunks taken during the run are added by the sweep itself.
    std::function<int64_t()> kept = nullptr;
};

inline int64_t Ptr(const void *p) { return p != nullptr ? 1 : 0; }

// Runs the sweep and prints "sweep <name>: <runs> runs, <n> injected failures".
void RunSweep(const Sweep &s);

}  // namespace dttest
