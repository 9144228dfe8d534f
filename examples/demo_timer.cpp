// Demo section: the timer service. A periodic and a one-shot relative timer
// and a calendar (absolute) timer, with how late each fired; then the stop.
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <thread>
#include <vector>

#include "demo.h"
#include "qosa.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

Clock::time_point s_t0;
std::mutex s_lock;
std::vector<double> s_periodic; // ms after the start call
std::atomic<double> s_oneShot{-1}, s_calendarLate{-1};
time_t s_calendarDue = 0;
std::atomic<int> s_stopped{0};

double since_start() { return std::chrono::duration<double, std::milli>(Clock::now() - s_t0).count(); }

void on_periodic(void*) {
    std::lock_guard<std::mutex> l(s_lock);
    s_periodic.push_back(since_start());
}
void on_one_shot(void*) { s_oneShot = since_start(); }
void on_calendar(void*) {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    s_calendarLate = static_cast<double>(tv.tv_sec - s_calendarDue) * 1000.0 + static_cast<double>(tv.tv_usec) / 1000.0;
}
void on_stopped(void*) { s_stopped = 1; }
void trace(const char* text) { std::printf("  [trace] %s", text); }

void run() {
    demo::heading("relative and absolute timers");
    QOSA_TimerRegDebugTrace(trace);
    // The first create starts the service (its trace line shows).
    void* periodic = QOSA_CreateRelTimerM(on_periodic, QOSA_TIMER_LOOP, __LINE__, "demo_timer.cpp");
    void* oneShot = QOSA_CreateRelTimerM(on_one_shot, QOSA_TIMER_ONCE_FREE, __LINE__, "demo_timer.cpp");
    void* calendar = QOSA_CreateAbsTimerM(on_calendar, QOSA_TIMER_ONCE_FREE);

    // Second 0 of the next minute when it is close, else two seconds ahead.
    time_t now = time(nullptr);
    time_t toMinute = 60 - now % 60;
    s_calendarDue = now + (toMinute >= 2 && toMinute <= 4 ? toMinute : 2);
    struct tm due {};
    localtime_r(&s_calendarDue, &due);
    QOSA_SysTime when{due.tm_sec, due.tm_min, due.tm_hour, due.tm_mday, due.tm_mon + 1, due.tm_year + 1900,
                      0,          0,          -1,          0,           nullptr};

    s_t0 = Clock::now();
    std::printf("QOSA_StartRelTimer(periodic, 100 ms) -> %u\n", QOSA_StartRelTimer(periodic, 100, nullptr));
    std::printf("QOSA_StartRelTimer(one-shot, 250 ms) -> %u\n", QOSA_StartRelTimer(oneShot, 250, nullptr));
    std::printf("QOSA_StartAbsTimer(%02d:%02d:%02d local) -> %u\n", due.tm_hour, due.tm_min, due.tm_sec,
                QOSA_StartAbsTimer(calendar, &when, nullptr));
    for (int i = 0; i < 600 && (s_calendarLate < 0 || since_start() < 1000); ++i)
        std::this_thread::sleep_for(10ms);
    QOSA_StopRelTimer_Safe(periodic, on_stopped, nullptr);
    for (int i = 0; i < 100 && s_stopped == 0; ++i)
        std::this_thread::sleep_for(10ms);

    {
        std::lock_guard<std::mutex> l(s_lock);
        std::printf("periodic 100 ms: %zu expiries", s_periodic.size());
        if (!s_periodic.empty()) {
            double mean = s_periodic.size() > 1
                              ? (s_periodic.back() - s_periodic.front()) / static_cast<double>(s_periodic.size() - 1)
                              : 0.0;
            std::printf(", first after %.1f ms, then every %.1f ms on average (re-armed the tick after it fired)",
                        s_periodic.front(), mean);
        }
        std::printf("\n");
    }
    std::printf("one-shot 250 ms: fired after %.1f ms (%.1f ms late)\n", s_oneShot.load(), s_oneShot.load() - 250);
    std::printf("calendar timer: fired %.1f ms after its second began (matched once a second)\n",
                s_calendarLate.load());

    u32 stopped = QOSA_StopTimerTask();
    std::printf("QOSA_StopTimerTask() -> %u; live timers afterwards: %d relative, %d absolute\n", stopped,
                std::atomic_ref<s32>(g_reltmNum).load(), std::atomic_ref<s32>(g_abstmNum).load());
    QOSA_TimerRegDebugTrace(nullptr);
}

} // namespace

static demo::Section s_section{90, "timers", run};
