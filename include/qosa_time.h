/* Time and clocks. */
#ifndef QOSA_TIME_H
#define QOSA_TIME_H

#include <sys/time.h>
#include <time.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

struct timezone;

/* The library's date-time record: the fields of struct tm in its order and
 * widths, so it copies into one as a whole, but with the month counted 1-12
 * and the full year (2024, not 124). -1 in any of the first six fields means
 * "any value" (a wildcard for the absolute timers); the last five are passed
 * on unchanged. */
typedef struct QOSA_SysTime {
    s32 tm_sec;  /* 0-59 */
    s32 tm_min;  /* 0-59 */
    s32 tm_hour; /* 0-23 */
    s32 tm_mday; /* 1-31 */
    s32 tm_mon;  /* 1-12 */
    s32 tm_year; /* full year, 1970 or later */
    s32 tm_wday;
    s32 tm_yday;
    s32 tm_isdst; /* daylight-saving flag for the local-time conversion */
    s64 tm_gmtoff;
    const char* tm_zone;
} QOSA_SysTime;

/* The current UTC time to the millisecond. The six date-time fields follow
 * struct tm: month 0-11, year counted from 1900. */
typedef struct QOSA_TimeEx {
    u32 ms; /* 0-999 */
    s32 tm_sec;
    s32 tm_min;
    s32 tm_hour;
    s32 tm_mday;
    s32 tm_mon;
    s32 tm_year;
} QOSA_TimeEx;

/* Pass-through wrappers. A null pointer argument gives the value noted and
 * nothing is called; otherwise the platform's result comes back unchanged.
 * The non-reentrant forms return the platform's shared static result. */
QOSA_API struct tm* QOSA_LocalTime(const time_t* t); /* NULL for a null t */
QOSA_API struct tm* QOSA_GmTime(const time_t* t);    /* NULL for a null t */
QOSA_API char* QOSA_AscTime(const struct tm* tm);    /* NULL for a null tm */
QOSA_API char* QOSA_CTime(const time_t* t);          /* NULL for a null t */
/* The reentrant forms: 0 when the platform gave a result, 0xFFFFFFFF when it
 * did not or an argument is null. The text buffers take at least 26 bytes. */
QOSA_API u32 QOSA_LocalTime_S(struct tm* out, const time_t* t);
QOSA_API u32 QOSA_GmTime_S(struct tm* out, const time_t* t);
QOSA_API u32 QOSA_AscTime_S(const struct tm* tm, char* buf);
QOSA_API u32 QOSA_CTime_S(const time_t* t, char* buf);
QOSA_API s32 QOSA_GetTimeOfDay(struct timeval* tv, struct timezone* tz); /* 0 for a null tv */
/* Characters written (without the terminator); 0 for a null buffer or tm, an
 * empty format, or a text that does not fit in max bytes. */
QOSA_API u32 QOSA_StrFtime(char* s, u32 max, const char* fmt, const struct tm* tm);
QOSA_API time_t QOSA_MkTime(struct tm* tm); /* 0 for a null tm */

/* Reads the current time and, when out is not null, fills it as UTC (struct tm
 * conventions). 0, or 0xFFFFFFFF when the conversion failed. */
QOSA_API u32 QOSA_GetTime(struct tm* out);
/* Fills out with the current UTC time to the millisecond; nothing for a null out. */
QOSA_API void QOSA_GetTimeEx(QOSA_TimeEx* out);

/* Wall clock: milliseconds since 1970 (0 while the clock reads before 1970),
 * and the low 32 bits of the seconds since 1970. */
QOSA_API u64 QOSA_GetSystemTime(void);
QOSA_API u32 QOSA_GetSysTimeSec(void);

/* Run-time clock: time since the machine started, in milliseconds (wrapping
 * at 2^32, about 49.7 days: take differences modulo 2^32) and in seconds. It
 * runs at real-time rate, counts time spent suspended, and setting the wall
 * clock does not move it. 0 if it cannot be read. */
QOSA_API u32 QOSA_GetSysRunTime(void);
QOSA_API u32 QOSA_GetSysRunTimeSec(void);

/* The kernel's time zone, minutes west of Greenwich. */
QOSA_API s32 QOSA_GetTimezone(void);
/* Writes the current time back with minutesWest as the kernel's time zone:
 * 0, or -1 with the last error set (needs the privilege to set the clock). */
QOSA_API s32 QOSA_SetTimezone(s32 minutesWest);

/* Sets the system clock from t, read as local time (to the second): 0, or
 * 0xFFFFFFFF when t is null, not a valid date-time, holds a wildcard (-1) in
 * any of its six date-time fields, cannot be represented, or the system refused
 * (the last error tells why). */
QOSA_API u32 QOSA_SetSysTime(const QOSA_SysTime* t);
/* 1 when t is a valid date and time, -1 wildcards allowed, year 1970 or later
 * (29 February stands with a wildcard year); 0 otherwise or for a null t. */
QOSA_API u32 ZAL_IsSysTimeValid(const QOSA_SysTime* t);
/* Days of month (1-12) in year: 28 or 29 for February (29 for year -1); 31
 * for any month outside 1-11, month -1 included. */
QOSA_API u32 Max_date(s32 year, u32 month);

QOSA_EXTERN_C_END

#endif /* QOSA_TIME_H */
