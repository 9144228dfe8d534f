// The timer thread: its tick accounting, starting, hooks and stopping.
#include <gtest/gtest.h>

#include <pthread.h>

#include <chrono>
#include <thread>
#include <vector>

#include "internal/timer_service.h"
#include "qosa_timer.h"
#include "sanitizers.h"

namespace {

using qosa::timer::cycle_ticks;
using qosa::timer::CycleTicks;

void stop_service(pthread_t tid) {
    petimer_setQuitingFlag(1, 1);
    EXPECT_EQ(petimer_stop(tid), 0);
    petimer_setQuitingFlag(0, 0);
}

} // namespace

TEST(TickAccounting, SleepsToTheNextBoundaryAndSettlesTheCarry) {
    using qosa::timer::sleep_us;
    EXPECT_EQ(sleep_us(0), 10000u);
    EXPECT_EQ(sleep_us(3), 7000u);
    EXPECT_EQ(sleep_us(25), 5000u);
    EXPECT_EQ(sleep_us(0xFFFFFFF0u), 10000u); // the clock stepped back

    EXPECT_EQ(cycle_ticks(0, 10000, 10, 0), (CycleTicks{1, 0}));   // on time
    EXPECT_EQ(cycle_ticks(0, 10000, 35, 0), (CycleTicks{3, -5}));  // overslept by 25 ms
    EXPECT_EQ(cycle_ticks(0, 10000, 10, -5), (CycleTicks{1, -5})); // the rest waits
    EXPECT_EQ(cycle_ticks(0, 10000, 5, 0), (CycleTicks{1, 5}));    // woke early
    EXPECT_EQ(cycle_ticks(0, 10000, 5, 5), (CycleTicks{0, 0}));    // early twice: one tick withheld
    EXPECT_EQ(cycle_ticks(25, 5000, 5, 0), (CycleTicks{3, 0}));    // the passes took 25 ms
    // A clock that stepped back or stood still: the sleep's one tick, carry untouched.
    EXPECT_EQ(cycle_ticks(0xFFFFFF00u, 10000, 10, 0), (CycleTicks{1, 0}));
    EXPECT_EQ(cycle_ticks(0, 10000, 0xFFFFFFF0u, 7), (CycleTicks{1, 7}));
    EXPECT_EQ(cycle_ticks(0, 10000, 0, 7), (CycleTicks{1, 7}));
    // A forward jump during the passes is sliced like one during the sleep.
    EXPECT_EQ(cycle_ticks(100000, 10000, 10, 0), (CycleTicks{1024, -(10000 - 1023) * 10}));
}

TEST(TickAccounting, ABurstIsHandedOverInSlicesUntilCaughtUp) {
    constexpr u32 kHourMs = 3600000;
    CycleTicks c = cycle_ticks(0, 10000, kHourMs, 0);
    s64 handed = c.ticks, cycles = 1;
    while (c.ticks > 1) {
        c = cycle_ticks(0, 10000, 10, c.carry);
        ASSERT_LE(c.ticks, qosa::timer::kMaxTicksPerCycle);
        handed += c.ticks;
        ++cycles;
    }
    EXPECT_EQ(c.carry, 0);
    EXPECT_EQ(handed, kHourMs / 10 + (cycles - 1)); // every 10 ms of the clock, once
    EXPECT_LT(cycles, 400);
}

// Starting twice, a hook of period 3, and a stop that still runs every
// queued request and frees every timer.
TEST(TimerThread, StartHooksAndStop) {
    static std::vector<s64> seen; // written by the timer thread, read after the join
    static int done = 0;
    const int hooksBefore = qosa::timer::tickhook_count();
    auto hook = +[](s64 n) { seen.push_back(n); };
    ASSERT_EQ(petimer_register_tickhook(hook, 3), 0u);
    pthread_t tid{}, untouched = static_cast<pthread_t>(12345);
    ASSERT_EQ(petimer_start(&tid, nullptr), 0u);
    EXPECT_TRUE(tid != pthread_t{} && petimer_getTreadId() == tid && qosa::timer::service_set_up() == 1);
    EXPECT_EQ(petimer_start(&untouched, nullptr), 0u);
    EXPECT_EQ(untouched, static_cast<pthread_t>(12345));
    EXPECT_EQ(qosa::timer::tickhook_count(), hooksBefore + 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));

    auto never = +[](void*) { ADD_FAILURE() << "fired"; };
    void* running = petimer_create_reltimer(never, QOSA_TIMER_LOOP);
    void* idle = petimer_create_reltimer(never, QOSA_TIMER_ONCE);
    ASSERT_TRUE(running != nullptr && idle != nullptr);
    __atomic_fetch_add(&g_reltmNum, 2, __ATOMIC_ACQ_REL);
    ASSERT_EQ(petimer_start_reltimer(running, 60000, nullptr), 0u);
    ASSERT_EQ(petimer_stop_reltimer_safe(
                  idle, +[](void*) { ++done; }, nullptr),
              0u);
    ASSERT_EQ(petimer_start_reltimer_simple(60000, never, nullptr), 0u);
    stop_service(tid);
    EXPECT_EQ(done, 1);
    EXPECT_EQ(__atomic_load_n(&g_reltmNum, __ATOMIC_ACQUIRE), 0);
    EXPECT_EQ(petimer_start_reltimer(running, 10, nullptr), 22u);
    EXPECT_TRUE(petimer_getTreadId() == pthread_t{} && qosa::timer::service_set_up() == 0);
    EXPECT_EQ(qosa::timer::tickhook_count(), hooksBefore + 1); // the thread took its own hooks off
    EXPECT_EQ(petimer_deregister_tickhook(hook), 0u);

    // About 20 calls of 3 ticks; a late cycle may hand over a little more.
    EXPECT_GE(seen.size(), qosa_test::kUnderTsan ? 5u : 10u);
    EXPECT_LE(seen.size(), 25u);
    std::size_t threes = 0;
    for (s64 n : seen) {
        EXPECT_GE(n, 3);
        threes += n == 3;
    }
    EXPECT_GE(threes * (qosa_test::kUnderTsan ? 4 : 2), seen.size()); // TSan makes late cycles common
}

TEST(TimerThread, FailedStartLeavesNothingBehind) {
    const int hooksBefore = qosa::timer::tickhook_count();
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, std::size_t{1} << 45), 0); // no room for such a stack
    pthread_t tid = static_cast<pthread_t>(12345);
    u32 ret = petimer_start(&tid, &attr);
    pthread_attr_destroy(&attr);
    if (ret == 0) {
        stop_service(tid);
        GTEST_SKIP() << "this system grants a 32-TiB stack";
    }
    EXPECT_TRUE(tid == pthread_t{} && petimer_getTreadId() == pthread_t{} && qosa::timer::service_set_up() == 0);
    EXPECT_EQ(qosa::timer::tickhook_count(), hooksBefore);
    ASSERT_EQ(petimer_start(&tid, nullptr), 0u); // the retry registers each hook once
    EXPECT_EQ(qosa::timer::tickhook_count(), hooksBefore + 2);
    stop_service(tid);
}
