// The timer service end to end through the public interface: the service's
// start and stop, relative timers in their three modes, handles, safe stops,
// the long-callback warning, the count limits, the trace and the
// system-control hook.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qosa.h"
#include "sanitizers.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Upper bounds of timing checks stretch under the sanitizers.
constexpr int kSlack = qosa_test::kUnderTsan || qosa_test::kUnderAsan ? 4 : 1;

template <class Pred>
bool eventually(Pred done) {
    for (auto end = Clock::now() + 3s * kSlack; !done(); std::this_thread::sleep_for(2ms))
        if (Clock::now() > end) return false;
    return true;
}

// The live counts change on the timer thread: read them atomically.
s32 live(s32& count) { return std::atomic_ref<s32>(count).load(); }

std::mutex s_traceLock;
std::vector<std::string> s_trace;
void collect(const char* text) {
    std::lock_guard<std::mutex> lock(s_traceLock);
    s_trace.emplace_back(text);
}
std::vector<std::string> traces() {
    std::lock_guard<std::mutex> lock(s_traceLock);
    return s_trace;
}

// Expiries of a timer: when (ms after t0) and how many.
struct Fired {
    Clock::time_point t0 = Clock::now();
    double at[16] = {};
    std::atomic<int> n{0};
    static void proc(void* arg) {
        auto* f = static_cast<Fired*>(arg);
        int i = f->n.load();
        if (i < 16) f->at[i] = std::chrono::duration<double, std::milli>(Clock::now() - f->t0).count();
        f->n.store(i + 1);
    }
};
void count_up(void* arg) { static_cast<std::atomic<int>*>(arg)->fetch_add(1); }
void* create(u32 mode, QOSA_TimerProc proc = Fired::proc) {
    return QOSA_CreateRelTimerM(proc, mode, __LINE__, "test_timer.cpp");
}

class Timer : public ::testing::Test {
  protected:
    void SetUp() override {
        std::lock_guard<std::mutex> lock(s_traceLock);
        s_trace.clear();
    }
    void TearDown() override {
        QOSA_StopTimerTask();
        QOSA_TimerRegDebugTrace(nullptr);
    }
};

} // namespace

TEST_F(Timer, FirstCreateStartsTheServiceAndItsStopRunsEveryRequestFirst) {
    EXPECT_EQ(QOSA_StopTimerTask(), QOSA_ERROR) << "nothing runs yet";
    QOSA_TimerRegDebugTrace(collect);
    std::atomic<int> done{0};
    std::vector<void*> hs;
    for (int i = 0; i < 50; ++i) {
        hs.push_back(create(QOSA_TIMER_LOOP));
        u32 r = QOSA_StartRelTimer(hs.back(), 10000, nullptr);
        if (i % 2 == 0) r |= QOSA_StopRelTimer_Safe(hs.back(), count_up, &done);
        if (i % 5 == 0) r |= QOSA_FreeRelTimer(hs.back());
        ASSERT_EQ(r, 0u);
    }
    EXPECT_EQ(traces(), std::vector<std::string>{"Timer initialize success.\n"});
    pthread_t tid{};
    EXPECT_EQ(QOSA_StartTimerTask(&tid, nullptr), 0u);
    EXPECT_EQ(tid, pthread_t{}) << "a running service is not started again";
    void* a = QOSA_CreateAbsTimerM(count_up, QOSA_TIMER_LOOP);
    QOSA_SysTime never{0, 0, 0, 1, 1, 2100, 0, 0, 0, 0, nullptr};
    ASSERT_EQ(QOSA_StartAbsTimer(a, &never, nullptr) | QOSA_StopAbsTimer_Safe(a, count_up, &done), 0u);

    EXPECT_EQ(QOSA_StopTimerTask(), 0u);
    EXPECT_EQ(done, 26) << "every queued stop completed";
    EXPECT_EQ(live(g_reltmNum), 0);
    EXPECT_EQ(live(g_abstmNum), 0);
    EXPECT_EQ(petimer_getTreadId(), pthread_t{});
    for (void* h : hs)
        EXPECT_EQ(QOSA_StartRelTimer(h, 10, nullptr), 22u);
    EXPECT_EQ(QOSA_FreeAbsTimer(a), 22u);
    EXPECT_EQ(QOSA_StopTimerTask(), QOSA_ERROR);

    Fired f; // and it starts again
    ASSERT_EQ(QOSA_StartRelTimer(create(QOSA_TIMER_ONCE), 10, &f), 0u);
    EXPECT_TRUE(eventually([&] { return f.n == 1; }));
    EXPECT_EQ(traces().size(), 2u);
}

// The start trace is sent after the start lock is released, so its receiver
// may use the service (a timed-out start would hang here).
void* s_fromTrace = nullptr;
void create_from_trace(const char*) { s_fromTrace = QOSA_CreateRelTimerM(count_up, QOSA_TIMER_ONCE, 0, "trace"); }

TEST_F(Timer, TraceReceiverMayCreateATimer) {
    QOSA_TimerRegDebugTrace(create_from_trace);
    void* h = create(QOSA_TIMER_ONCE);
    QOSA_TimerRegDebugTrace(nullptr);
    EXPECT_NE(h, nullptr);
    EXPECT_NE(s_fromTrace, nullptr);
    EXPECT_EQ(live(g_reltmNum), 2);
}

TEST_F(Timer, OneShotsFireOnceAfterTheirInterval) {
    Fired once, freed, simple;
    void* h = create(QOSA_TIMER_ONCE);
    void* hf = create(QOSA_TIMER_ONCE_FREE);
    once.t0 = simple.t0 = Clock::now();
    ASSERT_EQ(QOSA_StartRelTimer(h, 1000, &once), 0u);
    ASSERT_EQ(QOSA_StartRelTimer(hf, 20, &freed), 0u);
    ASSERT_EQ(QOSA_StartRelTimer_Simple(30, Fired::proc, &simple), 0u);
    EXPECT_EQ(live(g_reltmNum), 3);
    ASSERT_TRUE(eventually([&] { return once.n == 1; }));
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(once.n + freed.n + simple.n, 3);
    EXPECT_GE(once.at[0], 1000.0);
    EXPECT_LE(once.at[0], 1000.0 + 120 * kSlack);
    EXPECT_GE(simple.at[0], 30.0);
    EXPECT_EQ(live(g_reltmNum), 1) << "the releasing kinds are gone";
    EXPECT_EQ(QOSA_FreeRelTimer(hf), 22u);
    // A one-shot is kept, stopped: it can be started again.
    ASSERT_EQ(QOSA_StartRelTimer(h, 20, &once), 0u);
    EXPECT_TRUE(eventually([&] { return once.n == 2; }));
}

TEST_F(Timer, PeriodicTimerIsRearmedTheTickAfterItFired) {
    Fired f;
    ASSERT_EQ(QOSA_StartRelTimer(create(QOSA_TIMER_LOOP), 100, &f), 0u);
    ASSERT_TRUE(eventually([&] { return f.n >= 9; }));
    double mean = (f.at[8] - f.at[0]) / 8;
    EXPECT_GE(mean, 105.0);
    EXPECT_LE(mean, 115.0 + 10 * kSlack);
}

namespace {
struct SelfStop {
    void* h = nullptr;
    std::atomic<int> fired{0}, done{0};
    static void proc(void* arg) {
        auto* s = static_cast<SelfStop*>(arg);
        if (s->fired++ == 0) QOSA_StopRelTimer_Safe(s->h, count_up, &s->done);
    }
};
} // namespace

TEST_F(Timer, SafeStopsTakeEffectBeforeTheirDoneCallbackAndFreedHandlesGoStale) {
    Fired f;
    std::atomic<int> done{0};
    void* h = create(QOSA_TIMER_LOOP);
    ASSERT_EQ(QOSA_StartRelTimer(h, 20, &f), 0u);
    ASSERT_TRUE(eventually([&] { return f.n >= 2; }));
    ASSERT_EQ(QOSA_StopRelTimer_Safe(h, count_up, &done), 0u);
    ASSERT_TRUE(eventually([&] { return done == 1; }));
    int firedAtDone = f.n;
    // A periodic timer stopping itself: re-armed first, then taken off.
    SelfStop s;
    s.h = create(QOSA_TIMER_LOOP, SelfStop::proc);
    ASSERT_EQ(QOSA_StartRelTimer(s.h, 10, &s), 0u);
    ASSERT_TRUE(eventually([&] { return s.done == 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(f.n, firedAtDone);
    EXPECT_EQ(s.fired, 1);

    void* out = nullptr;
    EXPECT_EQ(QOSA_StopRelTimer_SafeEx(h, nullptr, nullptr, nullptr), 22u);
    EXPECT_EQ(QOSA_StopRelTimer_SafeEx(h, nullptr, nullptr, &out), 0u);
    EXPECT_EQ(out, &f) << "the argument of the last start";
    EXPECT_EQ(QOSA_StartRelTimer(&out, 10, nullptr), 22u) << "no slot of the index";
    EXPECT_EQ(QOSA_StartRelTimer(static_cast<char*>(h) + 1, 10, nullptr), 22u) << "inside a slot";
    EXPECT_EQ(QOSA_FreeRelTimer(h), 0u);
    EXPECT_EQ(QOSA_FreeRelTimer(h), 22u);
    EXPECT_EQ(QOSA_StartRelTimer(h, 10, nullptr), 22u);
    EXPECT_EQ(QOSA_StopRelTimer_Safe(h, nullptr, nullptr), 22u);
}

TEST_F(Timer, LongCallbackIsReportedWithItsSourcePosition) {
    QOSA_TimerRegDebugTrace(collect);
    auto slow = [](void*) { std::this_thread::sleep_for(150ms); };
    ASSERT_EQ(QOSA_StartRelTimer(QOSA_CreateRelTimerM(slow, QOSA_TIMER_ONCE, 4242, "long.c"), 10, nullptr), 0u);
    ASSERT_TRUE(eventually([] { return traces().size() == 2; }));
    const std::string head = "warning: timer_timeout_proc execution time is too long! timer[";
    std::vector<std::string> t = traces();
    int took = 0;
    ASSERT_EQ(std::sscanf(t[1].c_str(), (head + "long.c:4242] takes time %d\n").c_str(), &took), 1) << t[1];
    EXPECT_GE(took, 150);
    EXPECT_LT(took, 150 + 100 * kSlack);
}

TEST_F(Timer, CountLimits) {
    QOSA_TMRSetMaxReltmNum(5);
    void* first = create(QOSA_TIMER_LOOP);
    for (int i = 1; i < 5; ++i)
        ASSERT_NE(create(QOSA_TIMER_LOOP), nullptr);
    EXPECT_EQ(create(QOSA_TIMER_LOOP), nullptr);
    EXPECT_EQ(QOSA_FreeRelTimer(first), 0u);
    EXPECT_NE(create(QOSA_TIMER_LOOP), nullptr) << "a free makes room at once";
    QOSA_TMRSetMaxReltmNum(100);
    EXPECT_EQ(ulMaxReltmNum, 5u) << "ignored while the service runs";
    EXPECT_EQ(QOSA_StopTimerTask(), 0u);

    QOSA_TMRSetMaxReltmNum(5000); // whatever the maximum, at most 2000 live
    for (int i = 0; i < 2000; ++i)
        ASSERT_NE(create(QOSA_TIMER_LOOP), nullptr) << i;
    EXPECT_EQ(create(QOSA_TIMER_LOOP), nullptr);
    EXPECT_EQ(QOSA_StopTimerTask(), 0u);
    QOSA_TMRSetMaxReltmNum(2000);

    QOSA_TMRSetMaxAbstmNum(2);
    void* a = QOSA_CreateAbsTimerM(count_up, QOSA_TIMER_LOOP);
    EXPECT_NE(QOSA_CreateAbsTimerM(count_up, QOSA_TIMER_LOOP), nullptr);
    EXPECT_EQ(QOSA_CreateAbsTimerM(count_up, QOSA_TIMER_LOOP), nullptr);
    EXPECT_EQ(QOSA_FreeAbsTimer(a), 0u);
    EXPECT_TRUE(eventually([] { return live(g_abstmNum) == 1; })) << "counted until its release at the next pass";
    EXPECT_NE(QOSA_CreateAbsTimerM(count_up, QOSA_TIMER_LOOP), nullptr);
    EXPECT_EQ(QOSA_StopTimerTask(), 0u);
    QOSA_TMRSetMaxAbstmNum(2000);
}

namespace {
int sysctrl_hook(const char* name, va_list args) {
    int n = va_arg(args, int);
    return static_cast<int>(std::string(name).size() * 100 + std::string(va_arg(args, const char*)).size()) + n;
}
} // namespace

TEST_F(Timer, TraceAndSystemControlHook) {
    QOSA_TimerRegDebugTrace(collect);
    std::string fits(511, 'x');
    qosa_timer_debug("%s", fits.c_str());
    qosa_timer_debug("%s!", fits.c_str()); // 512 characters: not sent
    QOSA_TimerRegDebugTrace(nullptr);
    qosa_timer_debug("off");
    EXPECT_EQ(traces(), std::vector<std::string>{fits});

    testing::internal::CaptureStdout();
    int printed = QOSA_SysCtrlRegTaskTid("net");
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "QOSA_SysCtrlRegTaskTid net\n");
    EXPECT_EQ(printed, 27);
    EXPECT_EQ(QOSA_SYSCTRL_RegSysCtrlRegTaskTid(sysctrl_hook), 0u);
    EXPECT_EQ(QOSA_SysCtrlRegTaskTid("net", 7, "abcd"), 311) << "the caller's further arguments reach the hook";
    QOSA_SYSCTRL_RegSysCtrlRegTaskTid(nullptr);
}
