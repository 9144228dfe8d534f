// The timer service under churn, memory tracking on: no callback after its
// timer's free completed, and no block left after the stop.
#include <gtest/gtest.h>

#include <new>
#include <random>
#include <vector>

#include "timer_helpers.h"

namespace {

using namespace qosa_test;

const char kFile[] = "test_timer_stress.cpp";

struct TrackingOn : ::testing::Environment {
    void SetUp() override { QOSA_MemInitMemMange(); }
};
[[maybe_unused]] auto* s_env = ::testing::AddGlobalTestEnvironment(new TrackingOn);

// A timer's argument: a tracked block, released with QOSA_FreeRelTimerArg_safe.
struct Ctx {
    std::atomic<int> dead{0};
};
Ctx* make_ctx() { return new (QOSA_MemTypeMallocD(sizeof(Ctx), QOSA_MEM_DYN, __LINE__, kFile)) Ctx; }

std::atomic<long> s_fired{0}, s_late{0};
std::atomic<int> s_liveAtDone{0};

void on_fire(void* arg) {
    if (static_cast<Ctx*>(arg)->dead.load() != 0) s_late++;
    s_fired++;
}
void mark_dead(void* arg) { static_cast<Ctx*>(arg)->dead = 1; }
void note_live(void* arg) { s_liveAtDone = sysMemCheckUserAddr(arg) != nullptr ? 1 : -1; }

// Live tracked blocks made by the timer units or by this file.
u32 blocks_left() { return blocks("tmr_", "timer_stress"); }

// About once a millisecond, makes, restarts or frees one of a pool of 16 timers.
void churn(unsigned seed, Clock::time_point end) {
    std::mt19937 rng(seed);
    auto pick = [&](u32 lo, u32 hi) { return lo + rng() % (hi - lo + 1); };
    // Never started: its stop queued after a free completes after that free.
    void* marker = QOSA_CreateRelTimerM(on_fire, QOSA_TIMER_LOOP, __LINE__, kFile);
    ASSERT_NE(marker, nullptr);
    struct Live {
        void* h = nullptr;
        Ctx* c = nullptr;
    } pool[16];
    auto release = [&](Live& t) {
        if (pick(0, 1) == 0) { // its own stop before the free, or the marker's after it
            ASSERT_EQ(QOSA_StopRelTimer_Safe(t.h, mark_dead, t.c), 0u);
            ASSERT_EQ(QOSA_FreeRelTimer(t.h), 0u);
        } else {
            ASSERT_EQ(QOSA_FreeRelTimer(t.h), 0u);
            ASSERT_EQ(QOSA_StopRelTimer_Safe(marker, mark_dead, t.c), 0u);
        }
        ASSERT_EQ(QOSA_FreeRelTimerArg_safe(t.c), 0u);
        t = Live{};
    };
    while (Clock::now() < end) {
        Live& t = pool[pick(0, 15)];
        u32 action = pick(0, 9);
        if (t.h == nullptr) {
            t.c = make_ctx();
            t.h = QOSA_CreateRelTimerM(on_fire, pick(0, 1), __LINE__, kFile);
            ASSERT_NE(t.h, nullptr);
            ASSERT_EQ(QOSA_StartRelTimer(t.h, pick(10, 200), t.c), 0u);
        } else if (action == 0) {
            release(t);
        } else if (action == 1) { // restarted, perhaps while it fires
            ASSERT_EQ(QOSA_StartRelTimer(t.h, pick(10, 200), t.c), 0u);
        }
        std::this_thread::sleep_for(1ms);
    }
    for (Live& t : pool)
        if (t.h != nullptr) release(t);
    ASSERT_EQ(QOSA_FreeRelTimer(marker), 0u);
}

} // namespace

TEST(TimerStress, FreeRelTimerArgSafeRunsAfterEveryEarlierRequest) {
    Ctx* c = make_ctx();
    void* h = QOSA_CreateRelTimerM(on_fire, QOSA_TIMER_LOOP, __LINE__, kFile);
    ASSERT_EQ(QOSA_StartRelTimer(h, 10, c), 0u);
    ASSERT_EQ(QOSA_StopRelTimer_Safe(h, note_live, c), 0u);
    ASSERT_EQ(QOSA_FreeRelTimer(h), 0u);
    ASSERT_EQ(QOSA_FreeRelTimerArg_safe(c), 0u);
    ASSERT_EQ(QOSA_StopTimerTask(), 0u);
    EXPECT_EQ(s_liveAtDone, 1) << "the block was still there when the earlier stop completed";
    EXPECT_EQ(blocks_left(), 0u);
}

TEST(TimerStress, FourThreadsChurnRelativeTimers) {
    auto span = kSlack > 1 ? 2s : 5s;
    auto end = Clock::now() + span;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i)
        threads.emplace_back(churn, 1234 + i, end);
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(live(g_reltmNum), 0);
    EXPECT_EQ(QOSA_StopTimerTask(), 0u);
    EXPECT_GT(s_fired, 0);
    EXPECT_EQ(s_late, 0) << "a callback ran after its timer's free completed";
    EXPECT_EQ(blocks_left(), 0u);
}
