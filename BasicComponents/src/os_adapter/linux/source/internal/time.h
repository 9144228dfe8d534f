// The library's own view of the clocks and the calendar (os_time): the
// arithmetic of the readings, kept apart so it can be checked at any instant,
// and what the time entry points do, bound inside the library.
#pragma once

#include <sys/time.h>
#include <time.h>

#include "qosa_time.h"

namespace qosa::time {

// Milliseconds since 1970 from a wall-clock reading; 0 before 1970.
u64 wall_ms(const timeval& tv);
// Milliseconds since boot, modulo 2^32, from a boot-clock reading.
u32 run_ms(const timespec& ts);
// The UTC breakdown of a wall-clock reading; false when it cannot be broken down.
bool to_time_ex(const timeval& tv, QOSA_TimeEx* out);
// A date-time record as the platform's struct tm: every field copied, month and
// year moved to its origin (a -1 wildcard stays -1).
void to_platform_tm(const QOSA_SysTime& t, struct tm& out);

// The run-time clock now: milliseconds since boot modulo 2^32, suspend
// included (QOSA_GetSysRunTime).
u32 run_ms();
// 1 when the date-time is one the clock can be set to, -1 fields standing
// for any (ZAL_IsSysTimeValid), else 0.
u32 sys_time_valid(const QOSA_SysTime* t);
// The local breakdown of t: 0, or QOSA_ERROR (QOSA_LocalTime_S).
u32 local_time(struct tm* out, const time_t* t);

} // namespace qosa::time
