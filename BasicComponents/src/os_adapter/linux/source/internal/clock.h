// The library's one piece of time arithmetic: nanosecond counts on a clock,
// absolute deadlines for the timed waits, and a sleep that a signal does not
// cut short. Waits use CLOCK_MONOTONIC unless the interface names the wall
// clock.
#pragma once

#include <time.h>

#include <cerrno>
#include <cstdint>

namespace qosa::clock {

inline constexpr std::int64_t kNsPerUs = 1000;
inline constexpr std::int64_t kNsPerMs = 1000000;
inline constexpr std::int64_t kNsPerSec = 1000000000;

inline std::int64_t to_ns(const timespec& t) { return static_cast<std::int64_t>(t.tv_sec) * kNsPerSec + t.tv_nsec; }
inline timespec to_timespec(std::int64_t ns) {
    timespec t{};
    t.tv_sec = static_cast<time_t>(ns / kNsPerSec);
    t.tv_nsec = static_cast<long>(ns % kNsPerSec);
    return t;
}

// Now on clk, in nanoseconds.
inline std::int64_t now_ns(clockid_t clk = CLOCK_MONOTONIC) {
    timespec t{};
    clock_gettime(clk, &t);
    return to_ns(t);
}

// The absolute time ns (>= 0) after from. A sum past what the count holds is
// no limit: forever is set and the result is the latest time there is.
inline timespec after(const timespec& from, std::int64_t ns, bool* forever = nullptr) {
    bool never = ns > INT64_MAX - to_ns(from);
    if (forever != nullptr) *forever = never;
    return to_timespec(never ? INT64_MAX : to_ns(from) + ns);
}
inline timespec after(std::int64_t ns, clockid_t clk = CLOCK_MONOTONIC, bool* forever = nullptr) {
    timespec now{};
    clock_gettime(clk, &now);
    return after(now, ns, forever);
}

// Wall-clock seconds since 1970, the low 32 bits.
inline std::uint32_t wall_sec() {
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<std::uint32_t>(t.tv_sec);
}

// Sleeps ns on the monotonic clock, going on after a signal handler ran.
inline void sleep_ns(std::int64_t ns) {
    timespec at = after(ns);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
    }
}

} // namespace qosa::clock
