// The timer service through the public interface, in real time: start and
// stop of the service, groups, absolute timers, limits, trace and hook. The
// relative timers' order and rounding are test_timer_thread.cpp's, on a wheel
// driven by hand.

#include <algorithm>
#include <mutex>

#include "timer_helpers.h"

namespace {

using namespace qosa_test;

// What the timer thread reports: trace texts, and hits of absolute timers
// (who: the id their argument points to) or of group members.
struct Hit {
    u32 who, value;
    double atMs; // after the test's start
    time_t sec;
};
Clock::time_point s_t0;
std::mutex s_lock;
std::vector<std::string> s_trace;
std::vector<Hit> s_hits;
u32 s_ids[4] = {0, 1, 2, 3};
void collect(const char* text) {
    std::lock_guard<std::mutex> l(s_lock);
    s_trace.emplace_back(text);
}
void on_expiry(u32 index, u32 value) {
    std::lock_guard<std::mutex> l(s_lock);
    s_hits.push_back({index, value, ms_since(s_t0), time(nullptr)});
}
void record(void* id) { on_expiry(*static_cast<u32*>(id), 0); }
template <class T>
T copy_of(const T& v) {
    std::lock_guard<std::mutex> l(s_lock);
    return v;
}
std::vector<std::string> traces() { return copy_of(s_trace); }
std::vector<Hit> hits() { return copy_of(s_hits); }
std::vector<double> times_of(u32 who) {
    std::vector<double> at;
    for (const Hit& h : hits())
        if (h.who == who) at.push_back(h.atMs);
    return at;
}
size_t hits_of(u32 who) { return times_of(who).size(); }
void count_up(void* counter) { static_cast<std::atomic<int>*>(counter)->fetch_add(1); }
const QOSA_SysTime kEverySecond{-1, -1, -1, -1, -1, -1, 0, 0, 0, 0, nullptr};

class TimerService : public ::testing::Test {
  protected:
    void SetUp() override {
        std::lock_guard<std::mutex> l(s_lock);
        s_trace.clear();
        s_hits.clear();
        s_t0 = Clock::now();
    }
    void TearDown() override {
        QOSA_StopTimerTask();
        QOSA_TimerRegDebugTrace(nullptr);
        QOSA_TMRSetMaxReltmNum(2000);
        QOSA_TMRSetMaxAbstmNum(2000);
    }
};

} // namespace

// The start trace comes after the start lock is released: its receiver may create a timer.
TEST_F(TimerService, StopTimerTaskRunsEveryQueuedRequestFirstAndTheFirstCreateStartsAgain) {
    static void* fromTrace = nullptr;
    QOSA_TimerRegDebugTrace([](const char* text) {
        collect(text);
        if (fromTrace == nullptr) fromTrace = QOSA_CreateRelTimerM(count_up, QOSA_TIMER_ONCE, 0, "trace");
    });
    std::atomic<int> done{0};
    void* r = QOSA_CreateRelTimerM(record, QOSA_TIMER_LOOP, __LINE__, __FILE__);
    void* a = QOSA_CreateAbsTimerM(count_up, QOSA_TIMER_LOOP);
    const QOSA_SysTime never{0, 0, 0, 1, 1, 2100, 0, 0, 0, 0, nullptr};
    ASSERT_EQ(Codes({QOSA_StartRelTimer(r, 10000, nullptr), QOSA_StopRelTimer_Safe(r, count_up, &done),
                     QOSA_StartRelTimer_Simple(60000, count_up, &done), QOSA_StartAbsTimer(a, &never, nullptr),
                     QOSA_StopAbsTimer_Safe(a, count_up, &done)}),
              Codes(5, 0));
    EXPECT_NE(fromTrace, nullptr);
    EXPECT_EQ(traces(), std::vector<std::string>{"Timer initialize success.\n"});

    EXPECT_EQ(QOSA_StopTimerTask(), 0u);
    EXPECT_EQ(done, 2) << "every queued stop completed";
    EXPECT_EQ(Codes({QOSA_StartRelTimer(r, 10, nullptr), QOSA_FreeAbsTimer(a)}), Codes(2, 22));

    // It starts again; on the timer thread a stop is refused (it would wait for itself).
    static std::atomic<u32> fromCallback{0};
    auto stop_here = [](void*) { fromCallback = QOSA_StopTimerTask(); };
    ASSERT_EQ(QOSA_StartRelTimer_Simple(10, stop_here, nullptr), 0u);
    EXPECT_TRUE(eventually([] { return fromCallback.load() != 0; }));
    EXPECT_EQ(std::pair(fromCallback.load(), traces().size()), std::pair(QOSA_ERROR, size_t{2}));
}

// Each refusal in the order the checks run (out, proc, count; group, index,
// mode). Members fire the tick after their interval (re-armed once they
// fired) with their value, until stopped; a running member is not restarted.
TEST_F(TimerService, StartRelTimerofGrpRefusesInCheckOrderAndMembersFireOnTimeUntilStopped) {
    QOSA_RelTimerGrp* g = nullptr;
    // Count 0: no block of 0 bytes.
    EXPECT_EQ(Codes({QOSA_InitReltimerGrp(nullptr, 2001, nullptr), QOSA_InitReltimerGrp(&g, 2001, nullptr),
                     QOSA_InitReltimerGrp(&g, 2001, on_expiry), QOSA_InitReltimerGrp(&g, 0, on_expiry)}),
              Codes({0x20160032, 0x20160037, 0x20160034, 0x20160036}));
    EXPECT_EQ(g, nullptr);
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 3, on_expiry), 0u);
    QOSA_RelTimerGrp invalid = *g;
    invalid.valid = 0;
    EXPECT_EQ(Codes({QOSA_StartRelTimerofGrp(&invalid, 3, 100, 0, 2), QOSA_StartRelTimerofGrp(g, 3, 100, 0, 2),
                     QOSA_StartRelTimerofGrp(g, 2, 100, 0, 2), QOSA_StopRelTimerofGrp(&invalid, 3),
                     QOSA_StopRelTimerofGrp(g, 3), QOSA_StopRelTimerofGrp(g, 2), QOSA_FreeRelTimerGrp(&invalid)}),
              Codes({0x20160039, 0x2016003B, 0x2016003C, 0x20160041, 0x20160042, 0x20160044, 0x20160047}));

    ASSERT_EQ(Codes({QOSA_StartRelTimerofGrp(g, 0, 100, 7, 0), QOSA_StartRelTimerofGrp(g, 2, 250, 9, 1),
                     QOSA_StartRelTimerofGrp(g, 0, 20, 99, 0)}),
              Codes(3, 0)); // the last leaves the running member as it is
    std::this_thread::sleep_for(1100ms);
    // Stopped, member 0 fires no more; started again (value 8), it goes with the group unfired.
    ASSERT_EQ(Codes({QOSA_StopRelTimerofGrp(g, 0), QOSA_StartRelTimerofGrp(g, 0, 30, 8, 0), QOSA_FreeRelTimerGrp(g)}),
              Codes(3, 0));
    std::this_thread::sleep_for(100ms);
    const std::vector<Hit> all = hits();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(hits().size(), all.size()) << "no callback once the group's release ran";
    const u32 values[] = {7, ~0u, 9}; // member 1 never fires
    for (const Hit& h : all)
        EXPECT_EQ(h.value, values[h.who]) << h.who;

    const size_t slack = kSlack == 1 ? 1 : 3;
    // The first time not before the interval; the mean period near T + 1 ticks.
    auto periodic = [](u32 member, double interval, size_t least, size_t most, double lo, double hi) {
        SCOPED_TRACE(member);
        const std::vector<double> at = times_of(member);
        ASSERT_GE(at.size(), least);
        EXPECT_LE(at.size(), most);
        EXPECT_GE(at.front(), interval);
        const double mean = (at.back() - at.front()) / double(at.size() - 1);
        EXPECT_GE(mean, lo);
        EXPECT_LE(mean, hi);
    };
    periodic(0, 100.0, 10 - 2 * slack, 10, 105.0, 115.0 + 10 * kSlack);
    periodic(2, 250.0, 4 - slack, 4, 260.0 - 10 * slack, 260.0 + 10 * slack);
}

TEST_F(TimerService, CreateTimerMKeepsTheCountLimitsOfBothKinds) {
    // How many of n creates give a timer.
    auto made = [](int n, void* (*make)()) {
        int k = 0;
        for (; n > 0; --n)
            k += make() != nullptr;
        return k;
    };
    void* (*rel)() = [] { return QOSA_CreateRelTimerM(record, QOSA_TIMER_LOOP, __LINE__, __FILE__); };
    void* (*abs)() = [] { return QOSA_CreateAbsTimerM(count_up, QOSA_TIMER_LOOP); };
    QOSA_TMRSetMaxReltmNum(5);
    void* first = rel();
    EXPECT_EQ(made(5, rel), 4);
    EXPECT_EQ(QOSA_FreeRelTimer(first), 0u);
    EXPECT_EQ(made(2, rel), 1) << "a free makes room at once";
    QOSA_TMRSetMaxReltmNum(100);
    EXPECT_EQ(ulMaxReltmNum, 5u) << "ignored while the service runs";
    EXPECT_EQ(QOSA_StopTimerTask(), 0u);
    QOSA_TMRSetMaxReltmNum(5000);
    EXPECT_EQ(made(2001, rel), 2000) << "whatever the maximum, at most 2000 live";
    EXPECT_EQ(QOSA_StopTimerTask(), 0u);

    QOSA_TMRSetMaxAbstmNum(2);
    void* a = abs();
    EXPECT_TRUE(petimer_create_abstimer(nullptr, QOSA_TIMER_LOOP) == nullptr && errno == EINVAL);
    EXPECT_EQ(made(2, abs), 1);
    EXPECT_EQ(QOSA_FreeAbsTimer(a), 0u);
    EXPECT_TRUE(eventually([] { return live(g_abstmNum) == 1; })) << "counted until its release at the next pass";
    EXPECT_EQ(made(1, abs), 1);
}

TEST_F(TimerService, TimerRegDebugTraceLongCallbackWarningAndSysCtrlRegTaskTidHook) {
    QOSA_TimerRegDebugTrace(collect);
    const std::string fits(511, 'x');
    qosa_timer_debug("%s", fits.c_str());
    qosa_timer_debug("%s!", fits.c_str()); // 512 characters: not sent
    auto slow = [](void*) { std::this_thread::sleep_for(150ms); };
    ASSERT_EQ(Codes({QOSA_StartRelTimer(QOSA_CreateRelTimerM(slow, QOSA_TIMER_ONCE, 4242, "long.c"), 10, nullptr),
                     QOSA_StartRelTimer(QOSA_CreateRelTimerM(slow, QOSA_TIMER_ONCE, 77, nullptr), 10, nullptr)}),
              Codes(2, 0));
    ASSERT_TRUE(eventually([] { return traces().size() == 4; }));
    QOSA_TimerRegDebugTrace(nullptr);
    qosa_timer_debug("off");
    const std::vector<std::string> t = traces();
    ASSERT_EQ(std::pair(t.size(), t[0]), std::pair(size_t{4}, fits));
    const std::string head = "warning: timer_timeout_proc execution time is too long! timer[";
    int took = 0;
    ASSERT_EQ(std::sscanf(t[2].c_str(), (head + "long.c:4242] takes time %d\n").c_str(), &took), 1) << t[2];
    EXPECT_GE(took, 150);
    EXPECT_LT(took, 150 + 100 * kSlack);
    EXPECT_EQ(t[3].rfind(head + "unknown:0] takes time ", 0), 0u) << "no file: no position";

    testing::internal::CaptureStdout();
    EXPECT_EQ((std::pair{QOSA_SysCtrlRegTaskTid("net"), QOSA_SysCtrlRegTaskTid(nullptr)}), std::pair(27, 30));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "QOSA_SysCtrlRegTaskTid net\nQOSA_SysCtrlRegTaskTid (null)\n");
    auto hook = [](const char* name, va_list args) {
        int n = va_arg(args, int);
        return static_cast<int>(std::string(name).size() * 100 + std::string(va_arg(args, const char*)).size()) + n;
    };
    EXPECT_EQ(QOSA_SYSCTRL_RegSysCtrlRegTaskTid(hook), 0u);
    EXPECT_EQ(QOSA_SysCtrlRegTaskTid("net", 7, "abcd"), 311) << "the caller's further arguments reach the hook";
    QOSA_SYSCTRL_RegSysCtrlRegTaskTid(nullptr);
}

// Timers 0 and 1 match one second in two; 2 and 3 every second, periodic and one-shot.
TEST_F(TimerService, StartAbsTimerFullAndEverySecondPatternsPeriodicAndOneShot) {
    const QOSA_SysTime june31{0, 0, 0, 31, 6, 2030, 0, 0, 0, 0, nullptr};
    const time_t due = time(nullptr) + 2;
    struct tm t {};
    localtime_r(&due, &t);
    QOSA_SysTime when{t.tm_sec, t.tm_min, t.tm_hour, t.tm_mday, t.tm_mon + 1, t.tm_year + 1900, 0, 0, -1, 0, nullptr};
    std::vector<void*> h;
    for (u32 mode : {QOSA_TIMER_LOOP, QOSA_TIMER_LOOP, QOSA_TIMER_LOOP, QOSA_TIMER_ONCE})
        h.push_back(QOSA_CreateAbsTimerM(record, mode));
    EXPECT_EQ(QOSA_StartAbsTimer(h[0], &june31, nullptr), 22u);
    for (size_t i = 0; i < h.size(); ++i)
        ASSERT_EQ(QOSA_StartAbsTimer(h[i], i < 2 ? &when : &kEverySecond, &s_ids[i]), 0u);
    ASSERT_TRUE(eventually([] { return hits_of(0) == 1 && hits_of(2) >= 3; }, 5000ms));

    // Started again, the one-shot fires once more (it went inactive); a stopped loop no more.
    std::atomic<int> done{0};
    void* out = nullptr;
    ASSERT_EQ(Codes({QOSA_StartAbsTimer(h[3], &kEverySecond, &s_ids[3]),
                     QOSA_StopAbsTimer_SafeEx(h[2], count_up, &done, &out)}),
              Codes(2, 0));
    EXPECT_EQ(out, &s_ids[2]) << "the argument of the last start";
    ASSERT_TRUE(eventually([&] { return done == 1 && hits_of(3) == 2; }, 3000ms));
    const size_t loops = hits_of(2);
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(std::pair(hits_of(2), hits_of(3)), std::pair(loops, size_t{2}));
    ASSERT_EQ(hits_of(0) + hits_of(1), 2u) << "each fires once";
    const std::vector<Hit> all = hits();
    auto first = std::find_if(all.begin(), all.end(), [](const Hit& x) { return x.who < 2; });
    EXPECT_EQ(first->who, 1u) << "newest started fires first";
    EXPECT_GE(first->sec, due);
    EXPECT_LE(first->sec, due + 2 * kSlack); // a loaded machine delays the pass
    EXPECT_EQ(QOSA_StopAbsTimer_SafeEx(h[2], nullptr, nullptr, nullptr), 22u) << "no place for the argument";
}
