// The timer service with memory tracking on. While memory runs out, what the
// timer thread queues for itself never needs memory and callers' requests
// still report 12; under churn no callback comes after its timer's free
// completed; and every stop leaves no block behind.
#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <random>
#include <vector>

#include "timer_helpers.h"

// With tracking on every library block comes from posix_memalign, which this
// executable replaces: once armed, the first `ok` calls are granted and every
// later one is refused until disarmed. Nothing else here uses posix_memalign,
// so gtest's own allocations are never refused.
namespace {
std::atomic<long> s_grant{-1}, s_refused{0}; // calls still granted (-1: not armed); refusals since armed
void arm(long ok) {
    s_refused = 0;
    s_grant = ok;
}
void disarm() { s_grant = -1; }
} // namespace

extern "C" {
int __interceptor_posix_memalign(void**, size_t, size_t) __attribute__((weak)); // a sanitizer's own
void* __libc_memalign(size_t, size_t);

int posix_memalign(void** out, size_t alignment, size_t size) {
    for (long left = s_grant.load(); left >= 0;) {
        if (left == 0) {
            s_refused++;
            return ENOMEM;
        }
        if (s_grant.compare_exchange_weak(left, left - 1)) break;
    }
    if (__interceptor_posix_memalign != nullptr) return __interceptor_posix_memalign(out, alignment, size);
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr) return ENOMEM;
    *out = p;
    return 0;
}
}

namespace {

using namespace qosa_test;

const char kFile[] = "test_timer_tracked.cpp";

// A timer's argument: a tracked block, released with QOSA_FreeRelTimerArg_safe.
struct Ctx {
    std::atomic<int> dead{0};
};
Ctx* make_ctx() { return new (QOSA_MemTypeMallocD(sizeof(Ctx), QOSA_MEM_DYN, __LINE__, kFile)) Ctx; }

std::atomic<int> s_fired{0};
std::atomic<long> s_late{0};
void fired(void* ctx) {
    if (ctx != nullptr && static_cast<Ctx*>(ctx)->dead.load() != 0) s_late++;
    s_fired++;
}
void mark_dead(void* ctx) { static_cast<Ctx*>(ctx)->dead = 1; }
void* create(u32 mode) { return QOSA_CreateRelTimerM(fired, mode, __LINE__, kFile); }

class TimerTracked : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { QOSA_MemInitMemMange(); }
    void SetUp() override {
        s_fired = 0;
        ASSERT_EQ(QOSA_StartTimerTask(nullptr, nullptr), 0u);
    }
    void TearDown() override {
        disarm();
        EXPECT_EQ(QOSA_StopTimerTask(), 0u);
        EXPECT_EQ(blocks("tmr_", "timer_tracked"), 0u) << "the stop freed everything";
    }
};

} // namespace

// The re-arm of a periodic timer needs no memory; a caller's stop still does.
TEST_F(TimerTracked, StartRelTimerPeriodicTimerKeepsFiringWithoutMemory) {
    void* h = create(QOSA_TIMER_LOOP);
    ASSERT_EQ(QOSA_StartRelTimer(h, 20, nullptr), 0u);
    ASSERT_TRUE(eventually([] { return s_fired >= 2; }));
    arm(0);
    const int before = s_fired;
    const bool kept = eventually([&] { return s_fired >= before + 10; });
    const long refusedByTimerThread = s_refused;
    const u32 stop = QOSA_StopRelTimer_Safe(h, nullptr, nullptr), freed = QOSA_FreeRelTimer(h);
    const int afterStop = s_fired;
    disarm();
    EXPECT_TRUE(kept) << "fired " << s_fired - before << " times while memory was out";
    EXPECT_EQ(refusedByTimerThread, 0) << "the timer thread asked for memory";
    EXPECT_EQ(std::pair(stop, freed), std::pair(12u, 12u));
    EXPECT_TRUE(eventually([&] { return s_fired >= afterStop + 2; })) << "a refused stop leaves it running";
    EXPECT_EQ(QOSA_FreeRelTimer(h), 0u) << "the handle stayed valid";
}

// A timer released after it fired goes, with its slot and count, when no memory is left.
TEST_F(TimerTracked, StartRelTimerSimpleAndAbsOnceFreeGoAfterFiringWithoutMemory) {
    const u32 blocksBefore = blocks("tmr_");
    const s32 relBefore = live(g_reltmNum), absBefore = live(g_abstmNum);
    ASSERT_EQ(QOSA_StartRelTimer_Simple(30, fired, nullptr), 0u);
    void* a = QOSA_CreateAbsTimerM(fired, QOSA_TIMER_ONCE_FREE);
    ASSERT_EQ(QOSA_StartAbsTimer(a, &kEverySecond, nullptr), 0u);
    arm(0);
    const bool gone = eventually([&] { return live(g_reltmNum) == relBefore && live(g_abstmNum) == absBefore; });
    disarm();
    EXPECT_TRUE(gone);
    EXPECT_EQ(s_fired, 2);
    EXPECT_EQ(blocks("tmr_"), blocksBefore);
    EXPECT_EQ(QOSA_FreeAbsTimer(a), 22u);
}

// Memory runs out at the k-th allocation of a group's free with one member
// running: only the member's free asks for memory (k = 1: 0x20160048 and the
// group stays valid); its own release never fails and leaves nothing behind.
TEST_F(TimerTracked, FreeRelTimerGrpWithoutMemoryLeavesNoBlock) {
    const u32 blocksBefore = blocks("tmr_");
    for (long grant : {0, 1, 2}) {
        QOSA_RelTimerGrp* g = nullptr;
        ASSERT_EQ(QOSA_InitReltimerGrp(&g, 2, [](u32, u32) { s_fired++; }), 0u);
        ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 0, 10, 1, 0), 0u);
        arm(grant);
        const u32 r = QOSA_FreeRelTimerGrp(g);
        disarm();
        if (grant == 0) {
            EXPECT_EQ(std::pair(r, g->valid), std::pair(0x20160048u, 1u));
            EXPECT_EQ(QOSA_FreeRelTimerGrp(g), 0u);
        } else {
            EXPECT_EQ(r, 0u) << grant;
        }
        EXPECT_TRUE(eventually([&] { return blocks("tmr_") == blocksBefore; }))
            << grant << ": " << blocks("tmr_group") << " group blocks left";
    }
}

// Each allocation records the line of its own call, not that of a helper.
TEST_F(TimerTracked, InitReltimerGrpBlocksNameTheirCalls) {
    QOSA_RelTimerGrp* g = nullptr;
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 2, [](u32, u32) {}), 0u);
    QOSA_MEM_REC_S* recs = nullptr;
    ASSERT_EQ(sysMemSortMemInfo(&recs, const_cast<char*>("tmr_group"), 2), 2u); // the group and its members
    EXPECT_NE(recs[0].ulLine, recs[1].ulLine);
    std::free(recs);
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
    ASSERT_EQ(QOSA_StartRelTimer(QOSA_CreateRelTimerM(hold, QOSA_TIMER_ONCE, __LINE__, kFile), 10, nullptr), 0u);
    ASSERT_TRUE(eventually([] { return phase == 1; }));
    std::thread stop([] { EXPECT_EQ(QOSA_StopTimerTask(), 0u); });
    const bool quitting = eventually([] { return petimer_isQuiting() == 1; });
    const u32 r = QOSA_FreeRelTimerGrp(g);
    phase = 2;
    stop.join();
    EXPECT_TRUE(quitting);
    EXPECT_EQ(r, 0u);
    EXPECT_EQ(blocks("tmr_"), 0u);
    ASSERT_EQ(QOSA_StartTimerTask(nullptr, nullptr), 0u); // for the fixture's stop
}

// The argument's release waits for the requests queued before it.
TEST_F(TimerTracked, FreeRelTimerArgSafeRunsAfterEveryEarlierRequest) {
    static std::atomic<int> liveAtDone{0};
    Ctx* c = make_ctx();
    void* h = create(QOSA_TIMER_LOOP);
    ASSERT_EQ(QOSA_StartRelTimer(h, 10, c), 0u);
    ASSERT_EQ(QOSA_StopRelTimer_Safe(
                  h, [](void* arg) { liveAtDone = sysMemCheckUserAddr(arg) != nullptr ? 1 : -1; }, c),
              0u);
    ASSERT_EQ(QOSA_FreeRelTimer(h), 0u);
    ASSERT_EQ(QOSA_FreeRelTimerArg_safe(c), 0u);
    ASSERT_EQ(QOSA_StopTimerTask(), 0u);
    EXPECT_EQ(liveAtDone, 1) << "the block was still there when the earlier stop completed";
    ASSERT_EQ(QOSA_StartTimerTask(nullptr, nullptr), 0u);
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
    ASSERT_EQ(QOSA_StartTimerTask(nullptr, nullptr), 0u); // for the fixture's stop
}
