#include "timer/DTTimer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "dttest.h"
#include "timer/DTTimer_internal.h"

namespace {

uint32_t g_now;  // the controlled clock of the current pass
std::vector<uint32_t> g_runs;

int32_t Record(DTTimer *) {
    g_runs.push_back(g_now);
    return 1;
}

int32_t StopAtThird(DTTimer *t) { return Record(t) && t->times < 2; }

// Registration sets every field of the entry, so clearing it first as well changes nothing.
// Show lists each timer with a callback: a null one is kept, never run, never shown.
TEST(DTTimer, FiringRuleOnAControlledClock) {
    const uint32_t wrap = 4294967;  // the last reading before the clock starts again at 0
    const struct { DTTimerFn fn; uint32_t interval, start; std::vector<uint32_t> passes, runs; } cases[] = {
        {Record, 1000, 0, {100, 900, 999, 1000, 1100, 1999, 2000, 2100}, {1000, 2000}},
        {Record, 250, 0, {100, 200, 300, 400, 500, 600, 700}, {300, 600}},  // every third pass
        {Record, 0, 50, {50, 50, 60}, {50, 50, 60}},                       // once in every pass
        {Record, 1000, 0, {900, 2700, 3000, 3699, 3700}, {2700, 3700}},    // lateness not made up
        {Record, 1000, wrap - 100, {wrap - 50, wrap, 0, 100, 999, 1000}, {0, 1000}},
        {nullptr, 100, 0, {100, 200}, {}},
        {StopAtThird, 100, 0, {100, 200, 300, 400, 500, 600}, {100, 200, 300}},
    };
    for (int32_t pos = 0; pos < int32_t(std::size(cases)); ++pos) {
        SCOPED_TRACE("case " + std::to_string(pos));
        const auto &c = cases[pos];
        ASSERT_EQ(DTTimer_RegistAt_(c.fn, c.interval, c.start), 1);
        g_runs.clear();
        for (uint32_t now : c.passes) DTTimer_PassAt_(g_now = now);
        EXPECT_EQ(g_runs, c.runs);  // which implies each entry's times, last and status
        // Out of the way of the next case.
        if (c.fn == Record) static_cast<DTTimer *>(DTList_Get(g_DTTimer_List, pos))->status = 0;
    }
    DTTimer_Show();  // the first console output of this process
    ASSERT_EQ(dttest::Console().size(), 7u);
    EXPECT_EQ(dttest::Console()[0].rfind("current tm=", 0), 0u);
    EXPECT_EQ(dttest::Console()[6], "last=300,interval=100,status=0,times=3\n");
}

std::atomic<int> g_stamps[2];  // no destructor: the loop thread outlives the test

int32_t Stamp(DTTimer *t) { return ++g_stamps[t->interval == 0] > 0; }

// Equal for any test: a pass of 101 ms in place of 100; a pass that also looks one
// entry past the list's end, where it finds none.
TEST(DTTimer, LoopRunsTimersInRealTime) {
    ASSERT_EQ(DTTimer_Regist(Stamp, 300), 1);
    ASSERT_EQ(DTTimer_Regist(Stamp, 0), 1);  // once a pass
    std::thread(DTTimer_Loop).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    EXPECT_GE(g_stamps[0], 3);  // every 300 to 400 ms; a slow machine may lose a few
    EXPECT_LE(g_stamps[0], 7);  // never more often than the interval
    EXPECT_LE(g_stamps[1], 21) << "a pass every 100 ms";
}

}  // namespace
