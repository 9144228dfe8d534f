// The timer service against timerfd:
//  - the caller's cost of starting, stopping, creating and freeing a relative
//    timer against timerfd_settime and timerfd_create + close;
//  - 2000 periodic 100-ms timers for a fixed window per round: firing
//    lateness against the due time (p50, p99) and the CPU share of the timer
//    thread, beside 2000 periodic timerfds in one epoll loop;
//  - the CPU share of the idle service (timer thread, no timers) beside a
//    thread woken every 10 ms by a timerfd.
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <thread>
#include <vector>

#include "bench.h"
#include "qosa_timer.h"

namespace {

using bench::Clock;
using bench::keep;
using bench::u64;
using namespace std::chrono_literals;

const char kFile[] = "bench_timer.cpp";
constexpr int kTimers = 2000;
constexpr auto kPeriodicWindow = 450ms; // four firings of each timer
constexpr auto kIdleWindow = 200ms;

void nothing(void*) {}

// One library timer and one timerfd for the caller-side cases.
void* s_handle = nullptr;
int s_fd = -1;

void make_handles() {
    s_handle = QOSA_CreateRelTimerM(nothing, QOSA_TIMER_LOOP, __LINE__, kFile);
    s_fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    if (s_handle == nullptr || s_fd < 0) throw bench::Skip("no timer");
}
void drop_handles() {
    if (s_handle != nullptr) QOSA_FreeRelTimer(s_handle);
    if (s_fd >= 0) close(s_fd);
    s_handle = nullptr;
    s_fd = -1;
}

double ms_between(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

double cpu_seconds(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Lateness samples (ms) to p50 and p99 (seconds), and the CPU share.
void report(std::vector<double> late, double cpu, double wall, double* out) {
    if (late.empty()) throw bench::Skip("no timer fired");
    std::sort(late.begin(), late.end());
    auto at = [&](double q) { return late[static_cast<std::size_t>(q * double(late.size() - 1))] / 1e3; };
    out[0] = at(0.50);
    out[1] = at(0.99);
    out[2] = cpu / wall;
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

void periodic_qosa(u64, double* out) {
    // 2000 is the most live timers a create allows; one slot more takes the
    // one-shot that starts them all.
    QOSA_StopTimerTask();
    QOSA_TMRSetMaxReltmNum(kTimers + 1);
    s_periodic = Periodic{};
    s_periodic.late.reserve(kTimers * 8);
    for (int i = 0; i < kTimers; ++i)
        s_periodic.h[i] = QOSA_CreateRelTimerM(periodic_fired, QOSA_TIMER_LOOP, __LINE__, kFile);
    clockid_t cpu{};
    pthread_getcpuclockid(petimer_getTreadId(), &cpu);
    QOSA_StartRelTimer_Simple(10, start_all, nullptr);
    auto w0 = Clock::now();
    double c0 = cpu_seconds(cpu);
    std::this_thread::sleep_for(kPeriodicWindow);
    double used = cpu_seconds(cpu) - c0;
    double wall = bench::seconds_since(w0);
    QOSA_StopTimerTask(); // joins the timer thread and frees every timer: its samples are complete
    QOSA_TMRSetMaxReltmNum(kTimers);
    report(s_periodic.late, used, wall, out);
}

void periodic_timerfd(u64, double* out) {
    int ep = epoll_create1(EPOLL_CLOEXEC);
    std::vector<int> fds(kTimers);
    std::vector<double> late;
    late.reserve(kTimers * 8);
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
    double c0 = cpu_seconds(cpu);
    std::this_thread::sleep_for(kPeriodicWindow);
    double used = cpu_seconds(cpu) - c0;
    double wall = bench::seconds_since(w0);
    stop = true;
    loop.join();
    for (int fd : fds)
        close(fd);
    close(ep);
    report(late, used, wall, out);
}

void idle_qosa(u64, double* out) {
    QOSA_StopTimerTask();
    pthread_t tid{};
    QOSA_StartTimerTask(&tid, nullptr);
    clockid_t cpu{};
    pthread_getcpuclockid(tid, &cpu);
    std::this_thread::sleep_for(20ms);
    auto w0 = Clock::now();
    double c0 = cpu_seconds(cpu);
    std::this_thread::sleep_for(kIdleWindow);
    out[0] = (cpu_seconds(cpu) - c0) / bench::seconds_since(w0);
    QOSA_StopTimerTask();
}

void idle_timerfd(u64, double* out) {
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    itimerspec its{{0, 10000000L}, {0, 10000000L}};
    timerfd_settime(fd, 0, &its, nullptr);
    std::atomic<bool> stop{false};
    std::thread tick([&] {
        u64 count = 0;
        while (!stop.load())
            keep(read(fd, &count, sizeof count));
    });
    clockid_t cpu{};
    pthread_getcpuclockid(tick.native_handle(), &cpu);
    std::this_thread::sleep_for(20ms);
    auto w0 = Clock::now();
    double c0 = cpu_seconds(cpu);
    std::this_thread::sleep_for(kIdleWindow);
    out[0] = (cpu_seconds(cpu) - c0) / bench::seconds_since(w0);
    stop = true;
    tick.join();
    close(fd);
}

const bench::Registrar reg([] {
    bench::Case start{"timer.start",
                      bench::timed("QOSA_StartRelTimer",
                                   [](u64 n) {
                                       for (u64 i = 0; i < n; ++i)
                                           keep(QOSA_StartRelTimer(s_handle, 100000, nullptr));
                                   }),
                      bench::timed("timerfd_settime", [](u64 n) {
                          itimerspec its{{0, 0}, {100, 0}};
                          for (u64 i = 0; i < n; ++i)
                              keep(timerfd_settime(s_fd, 0, &its, nullptr));
                      })};
    start.setup = make_handles;
    start.teardown = drop_handles;
    bench::add(start);

    bench::Case stop{"timer.stop",
                     bench::timed("QOSA_StopRelTimer_Safe",
                                  [](u64 n) {
                                      for (u64 i = 0; i < n; ++i)
                                          keep(QOSA_StopRelTimer_Safe(s_handle, nullptr, nullptr));
                                  }),
                     bench::timed("timerfd_settime 0", [](u64 n) {
                         itimerspec off{};
                         for (u64 i = 0; i < n; ++i)
                             keep(timerfd_settime(s_fd, 0, &off, nullptr));
                     })};
    stop.setup = [] {
        make_handles();
        QOSA_StartRelTimer(s_handle, 100000, nullptr);
    };
    stop.teardown = drop_handles;
    bench::add(stop);

    bench::pair(
        "timer.create+free", "QOSA_CreateRelTimerM+FreeRelTimer",
        [](u64 n) {
            for (u64 i = 0; i < n; ++i)
                keep(QOSA_FreeRelTimer(QOSA_CreateRelTimerM(nothing, QOSA_TIMER_LOOP, __LINE__, kFile)));
        },
        "timerfd_create+close",
        [](u64 n) {
            for (u64 i = 0; i < n; ++i)
                keep(close(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)));
        });

    bench::add({"timer.periodic.2000x100ms",
                {"2000 timers, QOSA_TIMER_LOOP", periodic_qosa},
                {"2000 timerfds, one epoll loop", periodic_timerfd},
                {{"late p50", bench::Kind::Latency}, {"late p99", bench::Kind::Latency}, {"CPU", bench::Kind::Share}},
                1});
    bench::add({"timer.idle-service",
                {"timer thread, no timers", idle_qosa},
                {"10-ms timerfd read loop", idle_timerfd},
                {{"CPU", bench::Kind::Share}},
                1});
});

} // namespace
