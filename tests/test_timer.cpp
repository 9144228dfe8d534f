// The timer service through the public interface: start and stop of the
// service, relative and absolute timers, groups, limits, trace and hook.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qosa.h"
#include "sanitizers.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kSlack = qosa_test::kUnderTsan || qosa_test::kUnderAsan ? 4 : 1;

template <class Pred>
bool eventually(Pred done, std::chrono::milliseconds limit = 3s) {
    for (auto end = Clock::now() + limit * kSlack; !done(); std::this_thread::sleep_for(2ms))
        if (Clock::now() > end) return false;
    return true;
}

// The live counts change on the timer thread: read them atomically.
s32 live(s32& count) { return std::atomic_ref<s32>(count).load(); }

// What the timer thread reports: trace texts, absolute timers fired (the
// number their argument points to, and when), group members' expiries.
struct GroupHit {
    u32 index, value;
    double atMs;
};
std::mutex s_lock;
std::vector<std::string> s_trace;
std::vector<std::pair<int, time_t>> s_absHits;
std::vector<GroupHit> s_groupHits;
template <class T>
T locked_copy(const T& v) {
    std::lock_guard<std::mutex> l(s_lock);
    return v;
}
void collect(const char* text) {
    std::lock_guard<std::mutex> l(s_lock);
    s_trace.emplace_back(text);
}
std::vector<std::string> traces() { return locked_copy(s_trace); }
int s_ids[3] = {0, 1, 2};
void record(void* arg) {
    std::lock_guard<std::mutex> l(s_lock);
    s_absHits.emplace_back(*static_cast<int*>(arg), time(nullptr));
}
size_t abs_hits(int who) {
    auto all = locked_copy(s_absHits);
    return std::count_if(all.begin(), all.end(), [=](auto& h) { return h.first == who; });
}
const auto s_t0 = Clock::now();
void on_expiry(u32 index, u32 value) {
    std::lock_guard<std::mutex> l(s_lock);
    s_groupHits.push_back({index, value, std::chrono::duration<double, std::milli>(Clock::now() - s_t0).count()});
}
std::vector<GroupHit> group_hits() { return locked_copy(s_groupHits); }

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
        std::lock_guard<std::mutex> l(s_lock);
        s_trace.clear();
        s_absHits.clear();
        s_groupHits.clear();
    }
    void TearDown() override {
        QOSA_StopTimerTask();
        QOSA_TimerRegDebugTrace(nullptr);
    }
};
class AbsTimer : public Timer {};
class TimerGroup : public Timer {};

} // namespace

// The start trace is sent after the start lock is released, so its receiver
// may use the service (a timed-out start would hang here).
TEST_F(Timer, FirstCreateStartsTheServiceAndItsStopRunsEveryRequestFirst) {
    static void* fromTrace = nullptr;
    EXPECT_EQ(QOSA_StopTimerTask(), QOSA_ERROR) << "nothing runs yet";
    QOSA_TimerRegDebugTrace([](const char* text) {
        collect(text);
        if (fromTrace == nullptr) fromTrace = QOSA_CreateRelTimerM(count_up, QOSA_TIMER_ONCE, 0, "trace");
    });
    std::atomic<int> done{0};
    std::vector<void*> hs;
    for (int i = 0; i < 50; ++i) {
        hs.push_back(create(QOSA_TIMER_LOOP));
        u32 r = QOSA_StartRelTimer(hs.back(), 10000, nullptr);
        if (i % 2 == 0) r |= QOSA_StopRelTimer_Safe(hs.back(), count_up, &done);
        if (i % 5 == 0) r |= QOSA_FreeRelTimer(hs.back());
        ASSERT_EQ(r, 0u);
    }
    EXPECT_NE(fromTrace, nullptr);
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

TEST_F(Timer, OneShotsFireOnceAfterTheirIntervalAndPeriodicOnesTheTickAfter) {
    Fired once, freed, simple, loop;
    void* h = create(QOSA_TIMER_ONCE);
    void* hf = create(QOSA_TIMER_ONCE_FREE);
    once.t0 = simple.t0 = loop.t0 = Clock::now();
    ASSERT_EQ(QOSA_StartRelTimer(h, 1000, &once), 0u);
    ASSERT_EQ(QOSA_StartRelTimer(hf, 20, &freed), 0u);
    ASSERT_EQ(QOSA_StartRelTimer_Simple(30, Fired::proc, &simple), 0u);
    EXPECT_EQ(live(g_reltmNum), 3);
    ASSERT_EQ(QOSA_StartRelTimer(create(QOSA_TIMER_LOOP), 100, &loop), 0u);
    ASSERT_TRUE(eventually([&] { return once.n == 1 && loop.n >= 9; }));
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(once.n + freed.n + simple.n, 3);
    EXPECT_GE(once.at[0], 1000.0);
    EXPECT_LE(once.at[0], 1000.0 + 120 * kSlack);
    EXPECT_GE(simple.at[0], 30.0);
    double mean = (loop.at[8] - loop.at[0]) / 8; // re-armed the tick after it fired
    EXPECT_GE(mean, 105.0);
    EXPECT_LE(mean, 115.0 + 10 * kSlack);
    EXPECT_EQ(live(g_reltmNum), 2) << "the releasing kinds are gone";
    EXPECT_EQ(QOSA_FreeRelTimer(hf), 22u);
    ASSERT_EQ(QOSA_StartRelTimer(h, 20, &once), 0u); // a stopped one-shot starts again
    EXPECT_TRUE(eventually([&] { return once.n == 2; }));
}

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
    static void* self = nullptr;
    static std::atomic<int> selfFired{0}, selfDone{0};
    self = create(QOSA_TIMER_LOOP, [](void*) {
        if (selfFired++ == 0) QOSA_StopRelTimer_Safe(self, count_up, &selfDone);
    });
    ASSERT_EQ(QOSA_StartRelTimer(self, 10, nullptr), 0u);
    ASSERT_TRUE(eventually([&] { return selfDone == 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(f.n, firedAtDone);
    EXPECT_EQ(selfFired, 1);

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

TEST_F(Timer, TraceLongCallbackWarningAndSystemControlHook) {
    QOSA_TimerRegDebugTrace(collect);
    std::string fits(511, 'x');
    qosa_timer_debug("%s", fits.c_str());
    qosa_timer_debug("%s!", fits.c_str()); // 512 characters: not sent
    auto slow = [](void*) { std::this_thread::sleep_for(150ms); };
    ASSERT_EQ(QOSA_StartRelTimer(QOSA_CreateRelTimerM(slow, QOSA_TIMER_ONCE, 4242, "long.c"), 10, nullptr), 0u);
    ASSERT_TRUE(eventually([] { return traces().size() == 3; }));
    QOSA_TimerRegDebugTrace(nullptr);
    qosa_timer_debug("off");
    std::vector<std::string> t = traces();
    ASSERT_EQ(t.size(), 3u);
    EXPECT_EQ(t[0], fits);
    const std::string head = "warning: timer_timeout_proc execution time is too long! timer[";
    int took = 0;
    ASSERT_EQ(std::sscanf(t[2].c_str(), (head + "long.c:4242] takes time %d\n").c_str(), &took), 1) << t[2];
    EXPECT_GE(took, 150);
    EXPECT_LT(took, 150 + 100 * kSlack);

    testing::internal::CaptureStdout();
    int printed = QOSA_SysCtrlRegTaskTid("net");
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "QOSA_SysCtrlRegTaskTid net\n");
    EXPECT_EQ(printed, 27);
    auto hook = [](const char* name, va_list args) {
        int n = va_arg(args, int);
        return static_cast<int>(std::string(name).size() * 100 + std::string(va_arg(args, const char*)).size()) + n;
    };
    EXPECT_EQ(QOSA_SYSCTRL_RegSysCtrlRegTaskTid(hook), 0u);
    EXPECT_EQ(QOSA_SysCtrlRegTaskTid("net", 7, "abcd"), 311) << "the caller's further arguments reach the hook";
    QOSA_SYSCTRL_RegSysCtrlRegTaskTid(nullptr);
}

constexpr QOSA_SysTime kEverySecond{-1, -1, -1, -1, -1, -1, 0, 0, 0, 0, nullptr};

TEST_F(AbsTimer, FullPatternFiresOnceAtItsSecondNewestStartedFirst) {
    void* h = QOSA_CreateAbsTimerM(record, QOSA_TIMER_LOOP);
    QOSA_SysTime june31{0, 0, 0, 31, 6, 2030, 0, 0, 0, 0, nullptr}, daily{0, 30, 7, -1, -1, -1, 0, 0, 0, 0, nullptr};
    EXPECT_EQ(QOSA_StartAbsTimer(h, &june31, nullptr), 22u);
    EXPECT_EQ(QOSA_StartAbsTimer(h, &daily, &s_ids[2]), 0u);
    EXPECT_EQ(QOSA_FreeAbsTimer(h), 0u);
    void* older = QOSA_CreateAbsTimerM(record, QOSA_TIMER_LOOP);
    void* newer = QOSA_CreateAbsTimerM(record, QOSA_TIMER_LOOP);
    const time_t due = time(nullptr) + 2;
    struct tm t {};
    localtime_r(&due, &t);
    QOSA_SysTime when{t.tm_sec, t.tm_min, t.tm_hour, t.tm_mday, t.tm_mon + 1, t.tm_year + 1900, 0, 0, -1, 0, nullptr};
    ASSERT_EQ(QOSA_StartAbsTimer(older, &when, &s_ids[0]), 0u);
    ASSERT_EQ(QOSA_StartAbsTimer(newer, &when, &s_ids[1]), 0u);
    ASSERT_TRUE(eventually([] { return abs_hits(0) == 1; }, 4000ms));
    std::this_thread::sleep_for(1500ms);
    std::lock_guard<std::mutex> l(s_lock);
    ASSERT_EQ(s_absHits.size(), 2u) << "each fires once";
    EXPECT_EQ(s_absHits[0].first, 1) << "newest started fires first";
    EXPECT_GE(s_absHits[0].second, due);
    EXPECT_LE(s_absHits[0].second, due + 2 * kSlack); // a loaded machine delays the pass
}

TEST_F(AbsTimer, EverySecondPatternInEachMode) {
    void* loop = QOSA_CreateAbsTimerM(record, QOSA_TIMER_LOOP);
    void* once = QOSA_CreateAbsTimerM(record, QOSA_TIMER_ONCE);
    void* onceFree = QOSA_CreateAbsTimerM(record, QOSA_TIMER_ONCE_FREE);
    ASSERT_EQ(std::atomic_ref<s32>(g_abstmNum).load(), 3);
    ASSERT_EQ(QOSA_StartAbsTimer(loop, &kEverySecond, &s_ids[0]), 0u);
    ASSERT_EQ(QOSA_StartAbsTimer(once, &kEverySecond, &s_ids[1]), 0u);
    ASSERT_EQ(QOSA_StartAbsTimer(onceFree, &kEverySecond, &s_ids[2]), 0u);
    ASSERT_TRUE(eventually([] { return abs_hits(0) >= 3; }, 5000ms));
    EXPECT_EQ(abs_hits(1), 1u) << "a one-shot becomes inactive";
    EXPECT_EQ(abs_hits(2), 1u);
    EXPECT_EQ(std::atomic_ref<s32>(g_abstmNum).load(), 2) << "the releasing one-shot is gone";
    EXPECT_EQ(QOSA_FreeAbsTimer(onceFree), 22u);

    // Started again, the one-shot fires once more; a stopped loop no more.
    std::atomic<int> done{0};
    ASSERT_EQ(QOSA_StartAbsTimer(once, &kEverySecond, &s_ids[1]), 0u);
    ASSERT_EQ(QOSA_StopAbsTimer_Safe(loop, count_up, &done), 0u);
    ASSERT_TRUE(eventually([&] { return done == 1 && abs_hits(1) == 2; }, 3000ms));
    size_t loops = abs_hits(0);
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(abs_hits(0), loops);
    EXPECT_EQ(abs_hits(1), 2u);

    void* out = nullptr;
    EXPECT_EQ(QOSA_StopAbsTimer_SafeEx(loop, nullptr, nullptr, nullptr), 22u);
    EXPECT_EQ(QOSA_StopAbsTimer_SafeEx(loop, nullptr, nullptr, &out), 0u);
    EXPECT_EQ(out, &s_ids[0]) << "the argument of the last start";
    EXPECT_EQ(QOSA_FreeAbsTimer(loop), 0u);
    EXPECT_EQ(QOSA_FreeAbsTimer(loop), 22u);
    EXPECT_EQ(QOSA_StartAbsTimer(loop, &kEverySecond, nullptr), 22u);
}

TEST_F(TimerGroup, ResultCodesInCheckOrder) {
    QOSA_RelTimerGrp* g = nullptr;
    EXPECT_EQ(QOSA_InitReltimerGrp(nullptr, 2001, nullptr), 0x20160032u);
    EXPECT_EQ(QOSA_InitReltimerGrp(&g, 2001, nullptr), 0x20160037u);
    EXPECT_EQ(QOSA_InitReltimerGrp(&g, 2001, on_expiry), 0x20160034u);
    EXPECT_EQ(QOSA_InitReltimerGrp(&g, 0, on_expiry), 0x20160036u) << "no block of 0 bytes";
    EXPECT_EQ(g, nullptr);
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 3, on_expiry), 0u);

    QOSA_RelTimerGrp invalid = *g;
    invalid.valid = 0;
    EXPECT_EQ(QOSA_StartRelTimerofGrp(nullptr, 0, 100, 0, 0), 0x20160039u);
    EXPECT_EQ(QOSA_StartRelTimerofGrp(&invalid, 3, 100, 0, 2), 0x20160039u);
    EXPECT_EQ(QOSA_StartRelTimerofGrp(g, 3, 100, 0, 2), 0x2016003Bu);
    EXPECT_EQ(QOSA_StartRelTimerofGrp(g, 2, 100, 0, 2), 0x2016003Cu);

    EXPECT_EQ(QOSA_StopRelTimerofGrp(nullptr, 0), 0x20160040u);
    EXPECT_EQ(QOSA_StopRelTimerofGrp(&invalid, 3), 0x20160041u);
    EXPECT_EQ(QOSA_StopRelTimerofGrp(g, 3), 0x20160042u);
    EXPECT_EQ(QOSA_StopRelTimerofGrp(g, 2), 0x20160044u);

    EXPECT_EQ(QOSA_FreeRelTimerGrp(nullptr), 0x20160046u);
    EXPECT_EQ(QOSA_FreeRelTimerGrp(&invalid), 0x20160047u);
    // The service never ran: the group is released at once (a leak shows under ASan).
    EXPECT_EQ(QOSA_FreeRelTimerGrp(g), 0u);

    // A member whose timer cannot be made.
    QOSA_TMRSetMaxReltmNum(1);
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 1, on_expiry), 0u);
    void* other = QOSA_CreateRelTimerM([](void*) {}, QOSA_TIMER_LOOP, __LINE__, "test_timer.cpp");
    EXPECT_EQ(QOSA_StartRelTimerofGrp(g, 0, 100, 1, 0), 0x2016003Du);
    ASSERT_EQ(QOSA_FreeRelTimer(other), 0u);
    EXPECT_EQ(QOSA_StartRelTimerofGrp(g, 0, 100, 1, 0), 0u);
    EXPECT_EQ(QOSA_FreeRelTimerGrp(g), 0u);
    EXPECT_EQ(QOSA_StopTimerTask(), 0u);
    QOSA_TMRSetMaxReltmNum(2000);
}

TEST_F(TimerGroup, MembersFireWithTheirNumberAndValueUntilStopped) {
    QOSA_RelTimerGrp* g = nullptr;
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 3, on_expiry), 0u);
    ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 0, 100, 7, 0), 0u);
    ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 2, 250, 9, 1), 0u);
    ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 0, 20, 99, 0), 0u) << "a running member is not restarted";
    std::this_thread::sleep_for(1100ms);
    ASSERT_EQ(QOSA_StopRelTimerofGrp(g, 0), 0u);
    std::this_thread::sleep_for(50ms);

    std::map<u32, std::vector<double>> at;
    for (const GroupHit& h : group_hits()) {
        EXPECT_EQ(h.value, h.index == 0 ? 7u : 9u);
        at[h.index].push_back(h.atMs);
    }
    ASSERT_EQ(at.size(), 2u);
    // 100 ms fires every 110 ms, 250 ms every 260 ms (re-armed the tick after).
    int slack = qosa_test::kUnderTsan || qosa_test::kUnderAsan ? 3 : 1;
    EXPECT_GE(at[0].size(), 10u - 2 * slack);
    EXPECT_LE(at[0].size(), 10u);
    EXPECT_GE(at[2].size(), 4u - slack);
    EXPECT_LE(at[2].size(), 4u);
    EXPECT_NEAR((at[2].back() - at[2].front()) / double(at[2].size() - 1), 260.0, 10.0 * slack);

    // Stopped: member 0 fires no more; it can be started again at once.
    size_t n0 = at[0].size();
    ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 0, 30, 8, 0), 0u);
    ASSERT_EQ(QOSA_FreeRelTimerGrp(g), 0u);
    std::this_thread::sleep_for(100ms);
    size_t after = group_hits().size();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(group_hits().size(), after) << "no callback once the group's release ran";
    std::vector<GroupHit> all = group_hits();
    EXPECT_EQ(std::count_if(all.begin(), all.end(), [](const GroupHit& h) { return h.value == 7; }), long(n0));
    EXPECT_EQ(std::atomic_ref<s32>(g_reltmNum).load(), 0);
}
