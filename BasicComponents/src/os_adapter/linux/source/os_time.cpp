// Time and clocks: wall clock, run-time clock, broken-down times, setting the
// system clock and the date-time validity rule.
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <time.h>

#include <cstddef>

#include "internal/clock.h"
#include "internal/common.h"
#include "internal/time.h"
#include "qosa_time.h"

// QOSA_SysTime is copied into a struct tm as a whole.
#define QOSA_SAME_FIELD(f)                                                                                             \
    static_assert(offsetof(QOSA_SysTime, f) == offsetof(struct tm, f) && sizeof(QOSA_SysTime::f) == sizeof(tm::f),     \
                  "QOSA_SysTime::" #f " sits where struct tm has it")
QOSA_SAME_FIELD(tm_sec);
QOSA_SAME_FIELD(tm_min);
QOSA_SAME_FIELD(tm_hour);
QOSA_SAME_FIELD(tm_mday);
QOSA_SAME_FIELD(tm_mon);
QOSA_SAME_FIELD(tm_year);
QOSA_SAME_FIELD(tm_wday);
QOSA_SAME_FIELD(tm_yday);
QOSA_SAME_FIELD(tm_isdst);
QOSA_SAME_FIELD(tm_gmtoff);
QOSA_SAME_FIELD(tm_zone);
#undef QOSA_SAME_FIELD
static_assert(sizeof(QOSA_SysTime) == sizeof(struct tm));

static_assert(offsetof(QOSA_TimeEx, ms) == 0 && offsetof(QOSA_TimeEx, tm_sec) == 4);
static_assert(offsetof(QOSA_TimeEx, tm_year) == 24 && sizeof(QOSA_TimeEx) == 28);

// Pieces of the clocks kept apart from the readings, so the arithmetic can be
// checked at any instant.
namespace qosa::time {

// Milliseconds since 1970 from a wall-clock reading; 0 before 1970.
u64 wall_ms(const timeval& tv) {
    if (tv.tv_sec < 0 || tv.tv_usec < 0) return 0;
    return u64{static_cast<u32>(tv.tv_sec)} * 1000u + static_cast<u64>(tv.tv_usec) / 1000u;
}

// Milliseconds since boot, modulo 2^32, from a boot-clock reading.
u32 run_ms(const timespec& ts) {
    return static_cast<u32>(static_cast<u64>(ts.tv_sec) * 1000u + static_cast<u64>(ts.tv_nsec) / 1000000u);
}

// The UTC breakdown of a wall-clock reading; false when it cannot be broken down.
bool to_time_ex(const timeval& tv, QOSA_TimeEx* out) {
    time_t sec = tv.tv_sec;
    struct tm tm {};
    if (gmtime_r(&sec, &tm) == nullptr) return false;
    *out = QOSA_TimeEx{
        static_cast<u32>(tv.tv_usec / 1000), tm.tm_sec, tm.tm_min, tm.tm_hour, tm.tm_mday, tm.tm_mon, tm.tm_year};
    return true;
}

// A date-time record as the platform's struct tm: every field copied, month
// and year moved to the platform's origin.
void to_platform_tm(const QOSA_SysTime& t, struct tm& out) {
    memcpy_s(&out, sizeof out, &t, sizeof t);
    if (out.tm_year != -1) out.tm_year -= 1900;
    if (out.tm_mon != -1) out.tm_mon -= 1;
}

} // namespace qosa::time

namespace {

constexpr s32 kAny = -1;

bool leap(s32 year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

bool in_range_or_any(s32 v, s32 lo, s32 hi) { return v == kAny || (v >= lo && v <= hi); }

bool has_wildcard(const QOSA_SysTime& t) {
    return t.tm_sec == kAny || t.tm_min == kAny || t.tm_hour == kAny || t.tm_mday == kAny || t.tm_mon == kAny ||
           t.tm_year == kAny;
}

bool boot_clock(timespec* ts) { return clock_gettime(CLOCK_BOOTTIME, ts) == 0; }

// The last day of a month (1..12) of a year; -1 stands for any.
u32 max_day(s32 year, u32 month) {
    if (month > 11) return 31; // December, and month -1 (any month) seen unsigned
    switch (month) {
    case 4:
    case 6:
    case 9:
    case 11:
        return 30;
    case 2:
        return year == kAny || leap(year) ? 29 : 28;
    default:
        return 31;
    }
}

} // namespace

u32 qosa::time::run_ms() {
    timespec ts;
    return boot_clock(&ts) ? run_ms(ts) : 0; // GCOVR_EXCL_BR_LINE
}

u32 qosa::time::local_time(struct tm* out, const time_t* t) {
    return guarded(QOSA_ERROR, need(out, t), [=] { return localtime_r(t, out) ? 0u : QOSA_ERROR; });
}

u32 qosa::time::sys_time_valid(const QOSA_SysTime* t) {
    if (t == nullptr) return 0;
    if (t->tm_year < 1970 && t->tm_year != kAny) return 0;
    if (!in_range_or_any(t->tm_mday, 1, 31)) return 0;
    if (!in_range_or_any(t->tm_mon, 1, 12)) return 0;
    if (!in_range_or_any(t->tm_hour, 0, 23) || !in_range_or_any(t->tm_min, 0, 59) || !in_range_or_any(t->tm_sec, 0, 59))
        return 0;
    if (t->tm_mday != kAny && static_cast<u32>(t->tm_mday) > max_day(t->tm_year, static_cast<u32>(t->tm_mon))) return 0;
    return 1;
}

extern "C" {

struct tm* QOSA_LocalTime(const time_t* t) {
    return guarded<struct tm*>(nullptr, need(t), [=] { return localtime(t); });
}
struct tm* QOSA_GmTime(const time_t* t) {
    return guarded<struct tm*>(nullptr, need(t), [=] { return gmtime(t); });
}
char* QOSA_AscTime(const struct tm* tm) {
    return guarded<char*>(nullptr, need(tm), [=] { return asctime(tm); });
}
char* QOSA_CTime(const time_t* t) {
    return guarded<char*>(nullptr, need(t), [=] { return ctime(t); });
}

u32 QOSA_LocalTime_S(struct tm* out, const time_t* t) { return qosa::time::local_time(out, t); }
u32 QOSA_GmTime_S(struct tm* out, const time_t* t) {
    return guarded(QOSA_ERROR, need(out, t), [=] { return gmtime_r(t, out) ? 0u : QOSA_ERROR; });
}
u32 QOSA_AscTime_S(const struct tm* tm, char* buf) {
    return guarded(QOSA_ERROR, need(tm, buf), [=] { return asctime_r(tm, buf) ? 0u : QOSA_ERROR; });
}
u32 QOSA_CTime_S(const time_t* t, char* buf) {
    return guarded(QOSA_ERROR, need(t, buf), [=] { return ctime_r(t, buf) ? 0u : QOSA_ERROR; });
}

s32 QOSA_GetTimeOfDay(struct timeval* tv, struct timezone* tz) {
    return guarded<s32>(0, need(tv), [=] { return gettimeofday(tv, tz); });
}

u32 QOSA_StrFtime(char* s, u32 max, const char* fmt, const struct tm* tm) {
    return guarded<u32>(0, need(s, as_path(fmt), tm), [=] { return strftime(s, max, fmt, tm); });
}

time_t QOSA_MkTime(struct tm* tm) {
    return guarded<time_t>(0, need(tm), [=] { return mktime(tm); });
}

// The clocks of a running Linux system can always be read, and the present
// always has a broken-down time: the failure branches of those readings
// (GCOVR_EXCL_BR) are left out of the coverage figures.
u32 QOSA_GetTime(struct tm* out) {
    time_t now = ::time(nullptr);
    if (out == nullptr) return 0;
    return gmtime_r(&now, out) ? 0u : QOSA_ERROR; // GCOVR_EXCL_BR_LINE
}

void QOSA_GetTimeEx(QOSA_TimeEx* out) {
    if (out == nullptr) return;
    timeval tv{};
    gettimeofday(&tv, nullptr);
    // GCOVR_EXCL_BR_START
    if (!qosa::time::to_time_ex(tv, out)) memset_s(out, sizeof *out, 0, sizeof *out);
    // GCOVR_EXCL_BR_STOP
}

u64 QOSA_GetSystemTime(void) {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return qosa::time::wall_ms(tv);
}

u32 QOSA_GetSysTimeSec(void) { return qosa::clock::wall_sec(); }

u32 QOSA_GetSysRunTime(void) { return qosa::time::run_ms(); }

u32 QOSA_GetSysRunTimeSec(void) {
    timespec ts;
    return boot_clock(&ts) ? static_cast<u32>(ts.tv_sec) : 0; // GCOVR_EXCL_BR_LINE
}

s32 QOSA_GetTimezone(void) {
    timeval tv{};
    struct timezone tz {};
    gettimeofday(&tv, &tz);
    return tz.tz_minuteswest;
}

s32 QOSA_SetTimezone(s32 minutesWest) {
    timeval tv{};
    struct timezone tz {};
    if (gettimeofday(&tv, &tz) != 0) return -1; // GCOVR_EXCL_BR_LINE
    tz.tz_minuteswest = minutesWest;
    // The C library refuses a time and a zone in one call; the kernel takes both.
    return static_cast<s32>(syscall(SYS_settimeofday, &tv, &tz));
}

u32 QOSA_SetSysTime(const QOSA_SysTime* t) {
    // A wildcard is fine in a pattern but names no instant to set the clock to.
    if (qosa::time::sys_time_valid(t) == 0 || has_wildcard(*t)) return QOSA_ERROR;
    struct tm local;
    qosa::time::to_platform_tm(*t, local);
    time_t sec = mktime(&local);
    if (sec == static_cast<time_t>(-1)) return QOSA_ERROR;
    const timeval tv{sec, 0};
    return settimeofday(&tv, nullptr) == 0 ? 0u : QOSA_ERROR;
}

u32 ZAL_IsSysTimeValid(const QOSA_SysTime* t) { return qosa::time::sys_time_valid(t); }

u32 Max_date(s32 year, u32 month) { return max_day(year, month); }

} // extern "C"
