// The relative timers' wheel driven by hand: no timer thread runs; each
// reltm_trigger call is one pass (drain the requests, then process ticks).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "internal/timer_service.h"
#include "qosa_time.h"
#include "qosa_timer.h"

namespace {

std::string g_log;    // "<timer><tick> " per firing
std::vector<void*> h; // handles of the timers a, b, c, ... of a test
char kNames[] = "abcdefghij";

void on_fire(void* name) { g_log += *static_cast<char*>(name) + std::to_string(qosa::timer::reltm_tick_last()) + ' '; }

void passes(int n, s64 ticksEach = 1) {
    for (int i = 0; i < n; ++i)
        qosa::timer::reltm_trigger(ticksEach);
}

s32 live_count() { return __atomic_load_n(&g_reltmNum, __ATOMIC_ACQUIRE); }

// Creates (counted like the public create counts) and starts the next timers.
void start(u32 mode, std::initializer_list<u32> ms, QOSA_TimerProc proc = on_fire) {
    for (u32 interval : ms) {
        void* t = petimer_create_reltimer(proc, mode);
        ASSERT_NE(t, nullptr);
        __atomic_fetch_add(&g_reltmNum, 1, __ATOMIC_ACQ_REL);
        ASSERT_EQ(petimer_start_reltimer(t, interval, &kNames[h.size()]), 0u);
        h.push_back(t);
    }
}

class Wheel : public ::testing::Test {
  protected:
    void SetUp() override {
        g_log.clear();
        h.clear();
        ASSERT_EQ(init_reltm(), 0u);
    }
    void TearDown() override {
        passes(1);                      // carry out what is still queued
        EXPECT_EQ(delinit_reltm(), 0u); // frees the timers every test leaves behind
        EXPECT_EQ(live_count(), 0);
        EXPECT_EQ(petimer_free_reltimerarg_safe(nullptr), 22u);
        EXPECT_EQ(petimer_start_reltimer_simple(10, on_fire, nullptr), 12u);
    }
};

} // namespace

TEST_F(Wheel, IntervalsRoundToTicksAndFarTimersKeepTheirOrder) {
    start(QOSA_TIMER_ONCE, {0, 14, 15, 10235, 10240, 10245, 30720, 20480, 20480});
    passes(1, 3100); // all placed at tick 0
    EXPECT_EQ(g_log, "a1 b1 c2 d1024 e1024 f1025 h2048 i2048 g3072 ");
}

// Stopping a far timer hands its revolutions to its successor, also after
// revolutions were taken off the first record.
TEST_F(Wheel, StoppingAFarTimerKeepsItsSuccessorOnTime) {
    start(QOSA_TIMER_ONCE, {20480, 30720, 40960});
    passes(1, 1500);
    ASSERT_EQ(petimer_stop_reltimer_safe(h[1], nullptr, nullptr), 0u);
    start(QOSA_TIMER_ONCE, {20480, 30720}); // d leaves as a first record
    ASSERT_EQ(petimer_stop_reltimer_safe(h[3], nullptr, nullptr), 0u);
    passes(1, 3100);
    EXPECT_EQ(g_log, "a2048 c4096 e4572 ");
}

// Periodic timers fire T + 1 ticks apart at one tick per pass. A callback
// stopping its own timer: the re-arm runs first, then the stop, whose done
// callback may use the interface.
TEST_F(Wheel, PeriodicTimersAndTheirOwnStop) {
    static u32 freedFromDone = 99;
    auto stop_self = +[](void* name) {
        on_fire(name);
        auto done = +[](void*) { freedFromDone = petimer_free_reltimer(h[1]); };
        EXPECT_EQ(petimer_stop_reltimer_safe(h[1], done, nullptr), 0u);
    };
    start(QOSA_TIMER_LOOP, {50});
    start(QOSA_TIMER_LOOP, {20}, stop_self);
    passes(3);
    EXPECT_EQ(freedFromDone, 99u); // the stop runs in the next pass
    passes(17);
    EXPECT_EQ(freedFromDone, 0u);
    EXPECT_EQ(g_log, "b2 a5 a11 a17 ");
    void* arg = nullptr;
    EXPECT_EQ(petimer_stop_reltimer_safeEx(h[0], nullptr, nullptr, &arg), 0u);
    EXPECT_EQ(arg, &kNames[0]);
    EXPECT_EQ(petimer_stop_reltimer_safeEx(h[0], nullptr, nullptr, nullptr), 22u);
}

// Requests queued after a pass drained, before a periodic timer fires in it:
// a freed timer's callback is not called; a stopped one is re-armed first
// (at the front) and then taken off.
TEST_F(Wheel, RequestsQueuedJustBeforeAFiringWin) {
    start(QOSA_TIMER_ONCE, {10}, [](void*) {
        EXPECT_EQ(petimer_free_reltimer(h[1]), 0u);
        EXPECT_EQ(petimer_stop_reltimer_safe(h[2], nullptr, nullptr), 0u);
    });
    start(QOSA_TIMER_LOOP, {10, 10}); // same tick, after the first
    passes(6);
    EXPECT_EQ(g_log, "c1 ");
}

TEST_F(Wheel, OnceKeepsTheTimerOnceFreeReleasesItStaleHandlesAreRefused) {
    start(QOSA_TIMER_ONCE, {10});
    start(QOSA_TIMER_ONCE_FREE, {10});
    ASSERT_EQ(petimer_start_reltimer_simple(30, on_fire, &kNames[2]), 0u);
    EXPECT_EQ(live_count(), 3);
    passes(5);
    EXPECT_EQ(live_count(), 1);
    ASSERT_EQ(petimer_start_reltimer(h[0], 10, &kNames[0]), 0u); // stopped, not gone
    passes(3);
    EXPECT_EQ(g_log, "a1 b1 c3 a6 ");
    EXPECT_EQ(petimer_start_reltimer_simple(30, nullptr, nullptr), 12u);

    void* misaligned = static_cast<char*>(h[0]) + 1;
    for (void* bad :
         {static_cast<void*>(nullptr), misaligned, static_cast<void*>(g_szRelTimer + ulMaxReltmNum), h[1]}) {
        EXPECT_EQ(petimer_start_reltimer(bad, 10, nullptr), 22u);
        EXPECT_EQ(petimer_stop_reltimer_safe(bad, nullptr, nullptr), 22u);
        EXPECT_EQ(petimer_free_reltimer(bad), 22u);
    }
    EXPECT_EQ(petimer_free_reltimer(h[0]), 0u);
    EXPECT_EQ(petimer_free_reltimer(h[0]), 22u);
}

TEST_F(Wheel, LongCallbackWarningNamesTimersWithoutPosition) {
    static std::string trace;
    QOSA_TimerRegDebugTrace([](const char* text) { trace += text; });
    start(QOSA_TIMER_ONCE, {10}, [](void*) {
        for (u32 until = QOSA_GetSysRunTime() + 110; static_cast<s32>(QOSA_GetSysRunTime() - until) < 0;) {
        }
    });
    passes(2);
    QOSA_TimerRegDebugTrace(nullptr);
    EXPECT_EQ(trace.rfind("warning: timer_timeout_proc execution time is too long! timer[unknown:0] takes time 1", 0),
              0u)
        << trace;
}
