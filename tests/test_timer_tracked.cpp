// The timer service with memory tracking on: the blocks name their calls, a
// released argument outlives the requests queued before it, under churn no
// callback comes after its timer's free completed, and every stop leaves no
// block behind. (Memory running out is the fault sweep's part.)

#include <new>
#include <random>

#include "timer_helpers.h"

namespace {

using namespace qosa_test;

// A timer's argument: a tracked block, released with QOSA_FreeRelTimerArg_safe.
using Ctx = std::atomic<int>; // set once it is dead
Ctx* make_ctx() { return new (QOSA_MemTypeMallocD(sizeof(Ctx), QOSA_MEM_DYN, __LINE__, __FILE__)) Ctx(0); }

std::atomic<int> s_fired{0};
std::atomic<long> s_late{0};
void fired(void* ctx) {
    if (ctx != nullptr && static_cast<Ctx*>(ctx)->load() != 0) s_late++;
    s_fired++;
}
void mark_dead(void* ctx) { static_cast<Ctx*>(ctx)->store(1); }
void* create(u32 mode) { return QOSA_CreateRelTimerM(fired, mode, __LINE__, __FILE__); }

class TimerTracked : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { QOSA_MemInitMemMange(); }
    void TearDown() override {
        QOSA_StopTimerTask();
        EXPECT_EQ(tracked_records("tmr_").size() + tracked_records("timer_tracked").size(), 0u)
            << "the stop freed everything";
    }
};

} // namespace

// Each allocation records the line of its own call, not that of a helper.
// With the service down, no callback can run: the group's free releases it at once.
TEST_F(TimerTracked, InitReltimerGrpBlocksNameTheirCalls) {
    QOSA_RelTimerGrp* g = nullptr;
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 2, [](u32, u32) {}), 0u);
    const std::vector<QOSA_MEM_REC_S> recs = tracked_records("tmr_group");
    ASSERT_EQ(recs.size(), 2u); // the group and its members
    EXPECT_NE(recs[0].ulLine, recs[1].ulLine);
    EXPECT_EQ(QOSA_FreeRelTimerGrp(g), 0u);
}

// Freed while a stop waits for a callback to return: the group is released
// by the stop (its member's timer counts as gone).
TEST_F(TimerTracked, FreeRelTimerGrpWhileTheServiceStops) {
    static std::atomic<int> phase{0}; // 1: the callback runs; 2: it may return
    QOSA_RelTimerGrp* g = nullptr;
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 1, [](u32, u32) {}), 0u);
    ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 0, 10, 0, 0), 0u);
    auto hold = [](void*) {
        phase = 1;
        while (phase != 2)
            std::this_thread::yield();
    };
    ASSERT_EQ(QOSA_StartRelTimer(QOSA_CreateRelTimerM(hold, QOSA_TIMER_ONCE, __LINE__, __FILE__), 10, nullptr), 0u);
    ASSERT_TRUE(eventually([] { return phase == 1; }));
    std::thread stop([] { EXPECT_EQ(QOSA_StopTimerTask(), 0u); });
    const bool quitting = eventually([] { return petimer_isQuiting() == 1; });
    const u32 r = QOSA_FreeRelTimerGrp(g);
    phase = 2;
    stop.join();
    EXPECT_EQ(std::pair(quitting, r), std::pair(true, 0u));
}

// The argument's release waits for the requests queued before it.
TEST_F(TimerTracked, FreeRelTimerArgSafeRunsAfterEveryEarlierRequest) {
    static std::atomic<int> liveAtDone{0};
    Ctx* c = make_ctx();
    void* h = create(QOSA_TIMER_LOOP);
    auto note_live = [](void* arg) { liveAtDone = sysMemCheckUserAddr(arg) != nullptr ? 1 : -1; };
    ASSERT_EQ(Codes({QOSA_StartRelTimer(h, 10, c), QOSA_StopRelTimer_Safe(h, note_live, c), QOSA_FreeRelTimer(h),
                     QOSA_FreeRelTimerArg_safe(c), QOSA_StopTimerTask()}),
              Codes(5, 0));
    EXPECT_EQ(liveAtDone, 1) << "the block was still there when the earlier stop completed";
}

// Four threads, each about once a millisecond, make, restart or free one of a pool of 16 timers.
TEST_F(TimerTracked, FreeRelTimerNoCallbackAfterItCompletedUnderChurn) {
    auto churn = [](unsigned seed, Clock::time_point end) {
        std::mt19937 rng(seed);
        auto pick = [&](u32 lo, u32 hi) { return lo + rng() % (hi - lo + 1); };
        // Never started: its stop queued after a free completes after that free.
        void* marker = create(QOSA_TIMER_LOOP);
        ASSERT_NE(marker, nullptr);
        struct Live {
            void* h = nullptr;
            Ctx* c = nullptr;
        } pool[16];
        auto release = [&](Live& t) {
            // Its own stop before the free, or the marker's after it; then the argument's release.
            ASSERT_EQ(pick(0, 1) == 0 ? Codes({QOSA_StopRelTimer_Safe(t.h, mark_dead, t.c), QOSA_FreeRelTimer(t.h),
                                               QOSA_FreeRelTimerArg_safe(t.c)})
                                      : Codes({QOSA_FreeRelTimer(t.h), QOSA_StopRelTimer_Safe(marker, mark_dead, t.c),
                                               QOSA_FreeRelTimerArg_safe(t.c)}),
                      Codes(3, 0));
            t = Live{};
        };
        while (Clock::now() < end) {
            Live& t = pool[pick(0, 15)];
            const u32 action = pick(0, 9);
            if (t.h == nullptr) {
                t.c = make_ctx();
                t.h = create(pick(0, 1));
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
    };
    const auto end = Clock::now() + (kSlack > 1 ? 2s : 5s);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i)
        threads.emplace_back(churn, 1234 + i, end);
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(live(g_reltmNum), 0);
    EXPECT_EQ(QOSA_StopTimerTask(), 0u);
    EXPECT_GT(s_fired, 0);
    EXPECT_EQ(s_late, 0) << "a callback ran after its timer's free completed";
}
