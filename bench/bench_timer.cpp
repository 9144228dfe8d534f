// The timer service against timerfd:
//  - the caller-side cost of starting, stopping and freeing a relative timer
//    against timerfd_settime / timerfd_create + close;
//  - 2000 periodic 100-ms timers: firing lateness against the due tick and the
//    CPU of the timer thread, beside 2000 periodic timerfds in one epoll loop;
//  - the CPU of the idle service (timer thread with no timers).
// The last two run once for a few seconds and report counters (milliseconds,
// percent of one core) instead of a time per iteration.
#include <benchmark/benchmark.h>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>
#include <vector>

#include "qosa_timer.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const char kFile[] = "bench_timer.cpp";
constexpr int kTimers = 2000;
constexpr auto kWindow = 3s;

void nothing(void*) {}

// ---- caller-side cost ----

void Start_qosa(benchmark::State& st) {
    void* h = QOSA_CreateRelTimerM(nothing, QOSA_TIMER_LOOP, __LINE__, kFile);
    for (auto _ : st)
        benchmark::DoNotOptimize(QOSA_StartRelTimer(h, 100000, nullptr));
    QOSA_FreeRelTimer(h);
}
void Start_peer(benchmark::State& st) {
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    itimerspec its{{0, 0}, {100, 0}};
    for (auto _ : st)
        benchmark::DoNotOptimize(timerfd_settime(fd, 0, &its, nullptr));
    close(fd);
}
BENCHMARK(Start_qosa)->Name("TimerStart.qosa");
BENCHMARK(Start_peer)->Name("TimerStart.peer");

void Stop_qosa(benchmark::State& st) {
    void* h = QOSA_CreateRelTimerM(nothing, QOSA_TIMER_LOOP, __LINE__, kFile);
    QOSA_StartRelTimer(h, 100000, nullptr);
    for (auto _ : st)
        benchmark::DoNotOptimize(QOSA_StopRelTimer_Safe(h, nullptr, nullptr));
    QOSA_FreeRelTimer(h);
}
void Stop_peer(benchmark::State& st) {
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    itimerspec off{};
    for (auto _ : st)
        benchmark::DoNotOptimize(timerfd_settime(fd, 0, &off, nullptr));
    close(fd);
}
BENCHMARK(Stop_qosa)->Name("TimerStop.qosa");
BENCHMARK(Stop_peer)->Name("TimerStop.peer");

// A free needs a timer to free: each iteration creates one and frees it.
void CreateFree_qosa(benchmark::State& st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(QOSA_FreeRelTimer(QOSA_CreateRelTimerM(nothing, QOSA_TIMER_LOOP, __LINE__, kFile)));
}
void CreateFree_peer(benchmark::State& st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(close(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)));
}
BENCHMARK(CreateFree_qosa)->Name("TimerCreateFree.qosa");
BENCHMARK(CreateFree_peer)->Name("TimerCreateFree.peer");

// ---- 2000 periodic timers ----

double ms_between(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

double cpu_ms(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

void report(benchmark::State& st, std::vector<double> late, double cpuMs, double wallMs) {
    std::sort(late.begin(), late.end());
    auto at = [&](double q) { return late.empty() ? 0.0 : late[std::min(late.size() - 1, size_t(q * late.size()))]; };
    st.counters["fires"] = static_cast<double>(late.size());
    st.counters["late_p50_ms"] = at(0.50);
    st.counters["late_p99_ms"] = at(0.99);
    st.counters["late_max_ms"] = late.empty() ? 0.0 : late.back();
    st.counters["cpu_pct"] = 100.0 * cpuMs / wallMs;
}

// All timers are started from one callback, so their starts are carried out
// in the same pass: each then expires every 11 ticks (re-armed the tick after
// it fired), its k-th time 11k ticks after the starting callback ran.
struct Periodic {
    void* h[kTimers] = {};
    int fires[kTimers] = {};
    std::vector<double> late; // written on the timer thread only
    Clock::time_point t0;
} s_periodic;

void periodic_fired(void* arg) {
    auto i = static_cast<int>(reinterpret_cast<std::intptr_t>(arg));
    auto due = s_periodic.t0 + std::chrono::milliseconds(110 * ++s_periodic.fires[i]);
    s_periodic.late.push_back(ms_between(due, Clock::now()));
}

void start_all(void*) {
    s_periodic.t0 = Clock::now();
    for (std::intptr_t i = 0; i < kTimers; ++i)
        QOSA_StartRelTimer(s_periodic.h[i], 100, reinterpret_cast<void*>(i));
}

void Periodic_qosa(benchmark::State& st) {
    for (auto _ : st) {
        // 2000 is the most live timers a create allows; one slot more takes
        // the one-shot that starts them all.
        QOSA_StopTimerTask();
        QOSA_TMRSetMaxReltmNum(kTimers + 1);
        s_periodic = Periodic{};
        s_periodic.late.reserve(kTimers * 40);
        for (int i = 0; i < kTimers; ++i)
            s_periodic.h[i] = QOSA_CreateRelTimerM(periodic_fired, QOSA_TIMER_LOOP, __LINE__, kFile);
        clockid_t cpu{};
        pthread_getcpuclockid(petimer_getTreadId(), &cpu);
        QOSA_StartRelTimer_Simple(10, start_all, nullptr);
        auto w0 = Clock::now();
        double c0 = cpu_ms(cpu);
        std::this_thread::sleep_for(kWindow);
        double used = cpu_ms(cpu) - c0;
        double wall = ms_between(w0, Clock::now());
        QOSA_StopTimerTask(); // joins the timer thread: its samples are complete
        QOSA_TMRSetMaxReltmNum(kTimers);
        report(st, s_periodic.late, used, wall);
    }
}
BENCHMARK(Periodic_qosa)->Name("Periodic2000x100ms_qosa")->Iterations(1)->Unit(benchmark::kMillisecond);

void Periodic_timerfd(benchmark::State& st) {
    for (auto _ : st) {
        int ep = epoll_create1(EPOLL_CLOEXEC);
        std::vector<int> fds(kTimers);
        std::vector<double> late;
        late.reserve(kTimers * 40);
        std::atomic<bool> stop{false};
        timespec t0{};
        clock_gettime(CLOCK_MONOTONIC, &t0);
        auto at = [&](long ms) { // t0 + ms, as an absolute monotonic time
            timespec t = t0;
            t.tv_sec += ms / 1000;
            t.tv_nsec += (ms % 1000) * 1000000L;
            if (t.tv_nsec >= 1000000000L) t.tv_sec += 1, t.tv_nsec -= 1000000000L;
            return t;
        };
        for (int i = 0; i < kTimers; ++i) {
            fds[i] = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
            itimerspec its{{0, 100000000L}, at(100)};
            timerfd_settime(fds[i], TFD_TIMER_ABSTIME, &its, nullptr);
            epoll_event ev{EPOLLIN, {.u32 = static_cast<u32>(i)}};
            epoll_ctl(ep, EPOLL_CTL_ADD, fds[i], &ev);
        }
        std::vector<u64> expired(kTimers, 0);
        std::thread loop([&] {
            epoll_event evs[256];
            while (!stop.load()) {
                int n = epoll_wait(ep, evs, 256, 50);
                timespec now{};
                clock_gettime(CLOCK_MONOTONIC, &now);
                for (int k = 0; k < n; ++k) {
                    u32 i = evs[k].data.u32;
                    u64 count = 0;
                    if (read(fds[i], &count, sizeof count) != sizeof count) continue;
                    expired[i] += count;
                    timespec due = at(static_cast<long>(100 * expired[i]));
                    late.push_back(static_cast<double>(now.tv_sec - due.tv_sec) * 1e3 +
                                   static_cast<double>(now.tv_nsec - due.tv_nsec) / 1e6);
                }
            }
        });
        clockid_t cpu{};
        pthread_getcpuclockid(loop.native_handle(), &cpu);
        auto w0 = Clock::now();
        double c0 = cpu_ms(cpu);
        std::this_thread::sleep_for(kWindow);
        double used = cpu_ms(cpu) - c0;
        double wall = ms_between(w0, Clock::now());
        stop = true;
        loop.join();
        for (int fd : fds)
            close(fd);
        close(ep);
        report(st, late, used, wall);
    }
}
BENCHMARK(Periodic_timerfd)->Name("Periodic2000x100ms_timerfd")->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- idle service ----

void Idle_qosa(benchmark::State& st) {
    for (auto _ : st) {
        QOSA_StopTimerTask();
        pthread_t tid{};
        QOSA_StartTimerTask(&tid, nullptr);
        clockid_t cpu{};
        pthread_getcpuclockid(tid, &cpu);
        std::this_thread::sleep_for(200ms);
        auto w0 = Clock::now();
        double c0 = cpu_ms(cpu);
        std::this_thread::sleep_for(kWindow);
        st.counters["cpu_pct"] = 100.0 * (cpu_ms(cpu) - c0) / ms_between(w0, Clock::now());
        QOSA_StopTimerTask();
    }
}
BENCHMARK(Idle_qosa)->Name("IdleService_qosa")->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
