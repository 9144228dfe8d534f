// The timer service while memory runs out, tracking on: what the timer thread
// queues for itself never needs memory, callers' requests still report 12, and
// a timer group's release leaves no block behind.
#include <gtest/gtest.h>

#include <cerrno>

#include "timer_helpers.h"

// With tracking on every library block comes from posix_memalign, which this
// executable replaces: once armed, the first `ok` calls are granted and every
// later one is refused until disarmed. Nothing else here uses posix_memalign,
// so gtest's own allocations are never refused.
namespace {
std::atomic<long> s_grant{-1}; // calls still granted; -1: not armed
std::atomic<long> s_refused{0};
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

std::atomic<int> s_fired{0};
void fired(void*) { s_fired++; }

class TimerNoMemory : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { QOSA_MemInitMemMange(); }
    void SetUp() override {
        s_fired = 0;
        ASSERT_EQ(QOSA_StartTimerTask(nullptr, nullptr), 0u);
    }
    void TearDown() override {
        disarm();
        EXPECT_EQ(QOSA_StopTimerTask(), 0u);
        EXPECT_EQ(blocks("tmr_"), 0u) << "the stop freed everything";
    }
};

} // namespace

// The re-arm of a periodic timer needs no memory; a caller's stop still does.
TEST_F(TimerNoMemory, StartRelTimerPeriodicTimerKeepsFiring) {
    void* h = QOSA_CreateRelTimerM(fired, QOSA_TIMER_LOOP, __LINE__, "test_timer_nomem.cpp");
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
    EXPECT_EQ(stop, 12u);
    EXPECT_EQ(freed, 12u);
    EXPECT_TRUE(eventually([&] { return s_fired >= afterStop + 2; })) << "a refused stop leaves it running";
    EXPECT_EQ(QOSA_FreeRelTimer(h), 0u) << "the handle stayed valid";
}

// A timer released after it fired goes, with its slot and count, when no memory is left.
TEST_F(TimerNoMemory, StartRelTimerSimpleAndAbsOnceFreeGoAfterFiring) {
    const u32 blocksBefore = blocks("tmr_");
    const s32 relBefore = live(g_reltmNum), absBefore = live(g_abstmNum);
    ASSERT_EQ(QOSA_StartRelTimer_Simple(30, fired, nullptr), 0u);
    void* a = QOSA_CreateAbsTimerM(fired, QOSA_TIMER_ONCE_FREE);
    const QOSA_SysTime everySecond{-1, -1, -1, -1, -1, -1, 0, 0, 0, 0, nullptr};
    ASSERT_EQ(QOSA_StartAbsTimer(a, &everySecond, nullptr), 0u);
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
TEST_F(TimerNoMemory, FreeRelTimerGrpLeavesNoBlock) {
    const u32 blocksBefore = blocks("tmr_");
    for (long grant : {0, 1, 2}) {
        QOSA_RelTimerGrp* g = nullptr;
        ASSERT_EQ(QOSA_InitReltimerGrp(&g, 2, [](u32, u32) { s_fired++; }), 0u);
        ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 0, 10, 1, 0), 0u);
        arm(grant);
        const u32 r = QOSA_FreeRelTimerGrp(g);
        disarm();
        if (grant == 0) {
            EXPECT_EQ(r, 0x20160048u);
            EXPECT_EQ(g->valid, 1u);
            EXPECT_EQ(QOSA_FreeRelTimerGrp(g), 0u);
        } else {
            EXPECT_EQ(r, 0u) << grant;
        }
        EXPECT_TRUE(eventually([&] { return blocks("tmr_") == blocksBefore; }))
            << grant << ": " << blocks("tmr_group") << " group blocks left";
    }
}

// Each allocation records the line of its own call, not that of a helper.
TEST_F(TimerNoMemory, InitReltimerGrpBlocksNameTheirCalls) {
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
TEST_F(TimerNoMemory, FreeRelTimerGrpWhileTheServiceStops) {
    static std::atomic<int> phase{0}; // 1: the callback runs; 2: it may return
    QOSA_RelTimerGrp* g = nullptr;
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 1, [](u32, u32) {}), 0u);
    ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 0, 10, 0, 0), 0u);
    auto hold = [](void*) {
        phase = 1;
        while (phase != 2)
            std::this_thread::yield();
    };
    ASSERT_EQ(QOSA_StartRelTimer(QOSA_CreateRelTimerM(hold, QOSA_TIMER_ONCE, __LINE__, "hold"), 10, nullptr), 0u);
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
