/** @file
 * Time and clocks. */
#ifndef QOSA_TIME_H
#define QOSA_TIME_H

#include <sys/time.h>
#include <time.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

struct timezone;

/** The library's date-time record: the fields of struct tm in its order and
 * widths, so it copies into one as a whole, but with the month counted 1-12
 * and the full year (2024, not 124). -1 in any of the first six fields means
 * "any value" (a wildcard for the absolute timers); the last five are passed
 * on unchanged. */
typedef struct QOSA_SysTime {
    s32 tm_sec;          /**< 0-59, or -1 */
    s32 tm_min;          /**< 0-59, or -1 */
    s32 tm_hour;         /**< 0-23, or -1 */
    s32 tm_mday;         /**< 1-31, or -1 */
    s32 tm_mon;          /**< 1-12, or -1 */
    s32 tm_year;         /**< full year, 1970 or later, or -1 */
    s32 tm_wday;         /**< passed on unchanged */
    s32 tm_yday;         /**< passed on unchanged */
    s32 tm_isdst;        /**< daylight-saving flag for the local-time conversion */
    s64 tm_gmtoff;       /**< passed on unchanged */
    const char* tm_zone; /**< passed on unchanged */
} QOSA_SysTime;

/** The current UTC time to the millisecond. The six date-time fields follow
 * struct tm: month 0-11, year counted from 1900. */
typedef struct QOSA_TimeEx {
    u32 ms;      /**< 0-999 */
    s32 tm_sec;  /**< 0-59 */
    s32 tm_min;  /**< 0-59 */
    s32 tm_hour; /**< 0-23 */
    s32 tm_mday; /**< 1-31 */
    s32 tm_mon;  /**< 0-11 */
    s32 tm_year; /**< years since 1900 */
} QOSA_TimeEx;

/** @name Pass-through wrappers
 * A null pointer argument gives the value noted and nothing is called;
 * otherwise the platform's result comes back unchanged. The non-reentrant
 * forms return the platform's shared static result, overwritten by the next
 * call from any thread; the _S forms write to the caller's storage. */
/** @{ */
/** localtime. @param t seconds since 1970
 * @return the shared broken-down local time; NULL for a null t or failure */
QOSA_API struct tm* QOSA_LocalTime(const time_t* t);
/** gmtime. @param t seconds since 1970
 * @return the shared broken-down UTC time; NULL for a null t or failure */
QOSA_API struct tm* QOSA_GmTime(const time_t* t);
/** asctime. @param tm a broken-down time
 * @return the shared text ("Thu Mar  5 12:34:56 2024
"); NULL for a null tm */
QOSA_API char* QOSA_AscTime(const struct tm* tm);
/** ctime. @param t seconds since 1970
 * @return the shared text of the local time; NULL for a null t */
QOSA_API char* QOSA_CTime(const time_t* t);
/** localtime_r. @param out receives the local time @param t seconds since
 * 1970 @return 0; 0xFFFFFFFF when the platform gave no result or an argument
 * is NULL */
QOSA_API u32 QOSA_LocalTime_S(struct tm* out, const time_t* t);
/** gmtime_r. @param out receives the UTC time @param t seconds since 1970
 * @return 0; 0xFFFFFFFF when the platform gave no result or an argument is
 * NULL */
QOSA_API u32 QOSA_GmTime_S(struct tm* out, const time_t* t);
/** asctime_r. @param tm a broken-down time @param buf at least 26 bytes
 * @return 0; 0xFFFFFFFF when the platform gave no result or an argument is
 * NULL */
QOSA_API u32 QOSA_AscTime_S(const struct tm* tm, char* buf);
/** ctime_r. @param t seconds since 1970 @param buf at least 26 bytes
 * @return 0; 0xFFFFFFFF when the platform gave no result or an argument is
 * NULL */
QOSA_API u32 QOSA_CTime_S(const time_t* t, char* buf);
/** gettimeofday. @param tv receives the wall-clock time
 * @param tz receives the kernel's time zone, or NULL
 * @return 0; -1 with errno; 0 for a null tv (nothing read) */
QOSA_API s32 QOSA_GetTimeOfDay(struct timeval* tv, struct timezone* tz);
/** strftime. @param s receives the text @param max size of s in bytes
 * @param fmt the format @param tm a broken-down time
 * @return characters written (without the terminator); 0 for a null buffer
 *         or tm, an empty format, or a text that does not fit */
QOSA_API u32 QOSA_StrFtime(char* s, u32 max, const char* fmt, const struct tm* tm);
/** mktime. @param tm a broken-down local time (normalised in place)
 * @return seconds since 1970; -1 when not representable; 0 for a null tm */
QOSA_API time_t QOSA_MkTime(struct tm* tm);
/** @} */

/** @name Current time */
/** @{ */
/** Reads the current time and fills out with it as UTC (struct tm
 * conventions). @param out receives the time, or NULL
 * @return 0; 0xFFFFFFFF when the conversion failed */
QOSA_API u32 QOSA_GetTime(struct tm* out);
/** The current UTC time to the millisecond. @param out receives it; NULL does
 * nothing */
QOSA_API void QOSA_GetTimeEx(QOSA_TimeEx* out);
/** Wall clock in milliseconds. @return milliseconds since 1970; 0 while the
 * clock reads before 1970 */
QOSA_API u64 QOSA_GetSystemTime(void);
/** Wall clock in seconds. @return the low 32 bits of the seconds since 1970 */
QOSA_API u32 QOSA_GetSysTimeSec(void);
/** Run-time clock: time since the machine started. It runs at real-time
 * rate, counts time spent suspended, and setting the wall clock does not
 * move it. @return milliseconds, wrapping at 2^32 (about 49.7 days: take
 * differences modulo 2^32); 0 if it cannot be read */
QOSA_API u32 QOSA_GetSysRunTime(void);
/** The run-time clock in seconds. @return seconds since the machine started
 * (low 32 bits); 0 if it cannot be read */
QOSA_API u32 QOSA_GetSysRunTimeSec(void);
/** @} */

/** @name Time zone and setting the clock */
/** @{ */
/** The kernel's time zone. @return minutes west of Greenwich */
QOSA_API s32 QOSA_GetTimezone(void);
/** Writes the current time back with a new kernel time zone (needs the
 * privilege to set the clock). @param minutesWest minutes west of Greenwich
 * @return 0; -1 with the last error set */
QOSA_API s32 QOSA_SetTimezone(s32 minutesWest);
/** Sets the system clock from t, read as local time (to the second; needs
 * the privilege to set the clock). @param t the date and time, without
 * wildcards @return 0; 0xFFFFFFFF when t is NULL, not a valid date-time,
 * holds a wildcard (-1) in any of its six date-time fields, cannot be
 * represented, or the system refused (the last error tells why) */
QOSA_API u32 QOSA_SetSysTime(const QOSA_SysTime* t);
/** Tests a date and time: -1 wildcards allowed, year 1970 or later, 29
 * February stands with a wildcard year; a leap second (60) is invalid.
 * @param t the record @return 1 when valid; 0 otherwise or for NULL */
QOSA_API u32 ZAL_IsSysTimeValid(const QOSA_SysTime* t);
/** Days of a month. @param year the full year; -1 counts as a leap year
 * @param month 1-12
 * @return 28 to 31; 29 for February of year -1; 31 for any month outside
 *         1-11, month -1 included */
QOSA_API u32 Max_date(s32 year, u32 month);
/** @} */

QOSA_EXTERN_C_END

#endif /* QOSA_TIME_H */
