// Time and clocks against the C library's calendar and the kernel's clocks.
// Nothing here may set the clock: the setting calls run in a child that has
// given up the privilege to set it.
#include <gtest/gtest.h>

#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "qosa_time.h"

namespace qosa::time {
u64 wall_ms(const timeval& tv);
u32 run_ms(const timespec& ts);
bool to_time_ex(const timeval& tv, QOSA_TimeEx* out);
void to_platform_tm(const QOSA_SysTime& t, struct tm& out);
} // namespace qosa::time

namespace {

QOSA_SysTime at(s32 year, s32 mon, s32 mday, s32 hour = 12, s32 min = 0, s32 sec = 0) {
    QOSA_SysTime t{};
    t.tm_year = year, t.tm_mon = mon, t.tm_mday = mday, t.tm_hour = hour, t.tm_min = min, t.tm_sec = sec;
    return t;
}

u64 now_ms() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return u64(tv.tv_sec) * 1000 + u64(tv.tv_usec) / 1000;
}

// A QOSA_TimeEx back to milliseconds since 1970.
u64 ex_ms(const QOSA_TimeEx& ex) {
    struct tm tm {};
    tm.tm_year = ex.tm_year, tm.tm_mon = ex.tm_mon, tm.tm_mday = ex.tm_mday;
    tm.tm_hour = ex.tm_hour, tm.tm_min = ex.tm_min, tm.tm_sec = ex.tm_sec;
    return u64(timegm(&tm)) * 1000 + ex.ms;
}

} // namespace

TEST(Validity, AgreesWithTheCalendar) {
    for (s32 year : {1900, 1970, 2000, 2023, 2024, 2100})
        for (s32 mon = 1; mon <= 12; ++mon) {
            u32 days = 0;
            for (s32 mday = 0; mday <= 32; ++mday) {
                struct tm tm {}; // a day exists when the calendar keeps it as it is
                tm.tm_year = year - 1900, tm.tm_mon = mon - 1, tm.tm_mday = mday;
                timegm(&tm);
                bool exists = tm.tm_mday == mday && tm.tm_mon == mon - 1;
                days += exists;
                QOSA_SysTime t = at(year, mon, mday, 23, 59, 59);
                EXPECT_EQ(ZAL_IsSysTimeValid(&t), exists && year >= 1970 ? 1u : 0u)
                    << year << '-' << mon << '-' << mday;
            }
            EXPECT_EQ(Max_date(year, u32(mon)), days) << year << '-' << mon;
        }
    EXPECT_EQ(Max_date(-1, 2), 29u);
    for (u32 month : {0u, 12u, 13u, 0xFFFFFFFFu})
        EXPECT_EQ(Max_date(2023, month), 31u) << month;
}

TEST(Validity, WildcardsAndTimeOfDay) {
    // year, month, day, hour, minute, second: valid
    const s32 rows[][7] = {{-1, 2, 29, 0, 0, 0, 1},    {-1, 2, 30, 0, 0, 0, 0},     {2024, 4, -1, 0, 0, 0, 1},
                           {2024, -1, 31, 0, 0, 0, 1}, {-1, -1, -1, -1, -1, -1, 1}, {-2, 1, 1, 0, 0, 0, 0},
                           {2024, 1, -2, 0, 0, 0, 0},  {2024, 1, 1, 23, 59, 59, 1}, {2024, 1, 1, 24, 0, 0, 0},
                           {2024, 1, 1, 0, 60, 0, 0},  {2024, 1, 1, 0, 0, 60, 0},   {2024, 1, 1, -2, 0, 0, 0},
                           {2024, 1, 1, 0, -2, 0, 0},  {2024, 1, 1, 0, 0, -2, 0}};
    for (const auto& r : rows) {
        QOSA_SysTime t = at(r[0], r[1], r[2], r[3], r[4], r[5]);
        EXPECT_EQ(ZAL_IsSysTimeValid(&t), u32(r[6]))
            << r[0] << '-' << r[1] << '-' << r[2] << ' ' << r[3] << ':' << r[4] << ':' << r[5];
    }
}

TEST(Clocks, RunTimeIsTheBootClockAtWallClockRate) {
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    u32 sec = QOSA_GetSysRunTimeSec();
    EXPECT_TRUE(sec == u32(ts.tv_sec) || sec == u32(ts.tv_sec + 1));

    u32 run0 = QOSA_GetSysRunTime();
    u64 wall0 = now_ms();
    usleep(1000000);
    u32 run1 = QOSA_GetSysRunTime();
    u64 wall1 = now_ms();
    EXPECT_GE(u32(run1 - run0), 1000u);
    EXPECT_NEAR(double(u32(run1 - run0)), double(wall1 - wall0), 5.0);

    // Past 2^32 ms the value starts again from 0; differences still come out right.
    EXPECT_EQ(qosa::time::run_ms({4294967, 296000000}), 0u);
    u32 late = qosa::time::run_ms({4294968, 4000000});
    EXPECT_EQ(late, 708u);
    EXPECT_EQ(u32(late - qosa::time::run_ms({4294967, 200000000})), 804u);
}

TEST(Clocks, WallClockAgainstGettimeofday) {
    u64 before = now_ms();
    u64 ms = QOSA_GetSystemTime();
    u32 sec = QOSA_GetSysTimeSec();
    QOSA_TimeEx ex{};
    QOSA_GetTimeEx(&ex);
    struct tm utc {};
    ASSERT_EQ(QOSA_GetTime(&utc), 0u);
    u64 after = now_ms();
    EXPECT_TRUE(ms >= before && ms <= after) << before << " " << ms << " " << after;
    EXPECT_TRUE(sec >= before / 1000 && sec <= after / 1000);
    EXPECT_TRUE(u64(timegm(&utc)) >= before / 1000 && u64(timegm(&utc)) <= after / 1000);
    EXPECT_TRUE(ex.ms < 1000 && ex_ms(ex) >= before && ex_ms(ex) <= after) << before << " " << ex_ms(ex);

    // Before 1970 the wall clock reads 0; seconds keep their low 32 bits.
    EXPECT_EQ(qosa::time::wall_ms({-1, 999999}), 0u);
    EXPECT_EQ(qosa::time::wall_ms({5, -1}), 0u);
    EXPECT_EQ(qosa::time::wall_ms({(1LL << 32) + 5, 678999}), 5678u);
    ASSERT_TRUE(qosa::time::to_time_ex({1709642096, 789999}, &ex)); // 2024-03-05 12:34:56.789 UTC
    EXPECT_EQ(ex.tm_year, 124);
    EXPECT_EQ(ex_ms(ex), 1709642096789u);
}

TEST(Wrappers, FormatAndReentrantForms) {
    time_t t = 1709642096;
    struct tm tm {};
    ASSERT_EQ(QOSA_GmTime_S(&tm, &t), 0u);
    char buf[32];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(QOSA_StrFtime(buf, sizeof buf, "", &tm), 0u);
    EXPECT_EQ(buf[0], 'x') << "an empty format writes nothing";
    EXPECT_EQ(QOSA_StrFtime(buf, 10, "%Y-%m-%d", &tm), 0u) << "no room for the terminator";
    EXPECT_EQ(QOSA_StrFtime(buf, 11, "%Y-%m-%d", &tm), 10u);
    EXPECT_STREQ(buf, "2024-03-05");
    ASSERT_EQ(QOSA_AscTime_S(&tm, buf), 0u);
    EXPECT_STREQ(buf, "Tue Mar  5 12:34:56 2024\n");
    tm.tm_year = 2147483647; // a year asctime cannot print
    EXPECT_EQ(QOSA_AscTime_S(&tm, buf), 0xFFFFFFFFu);
    EXPECT_EQ(QOSA_GetTime(nullptr), 0u);
}

TEST(SetSysTime, RecordBecomesPlatformTime) {
    QOSA_SysTime t = at(2024, 3, 5, 12, 34, 56);
    t.tm_wday = 2, t.tm_yday = 64, t.tm_isdst = 1, t.tm_gmtoff = 3600, t.tm_zone = "XYZ";
    struct tm tm;
    std::memset(&tm, 0x5A, sizeof tm);
    qosa::time::to_platform_tm(t, tm);
    EXPECT_EQ(tm.tm_year, 124);
    EXPECT_EQ(tm.tm_mon, 2);
    tm.tm_year = 2024, tm.tm_mon = 3;
    EXPECT_EQ(std::memcmp(&tm, &t, sizeof tm), 0) << "every other field is copied as it is";
}

namespace {

bool drop_clock_privilege() {
    __user_cap_header_struct hdr{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    if (syscall(SYS_capget, &hdr, data) != 0) return false;
    data[0].effective &= ~(1u << CAP_SYS_TIME);
    data[0].permitted &= ~(1u << CAP_SYS_TIME);
    if (syscall(SYS_capset, &hdr, data) != 0 || syscall(SYS_capget, &hdr, data) != 0) return false;
    return (data[0].effective & (1u << CAP_SYS_TIME)) == 0;
}

} // namespace

TEST(SetSysTime, RefusalsLeaveTheClockAlone) {
    // Seven records refused before the system is asked (last error untouched),
    // then a valid one and a time zone that the system refuses.
    struct {
        u32 result;
        int err;
    } o[10]{};
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
        if (drop_clock_privilege()) {
            const QOSA_SysTime rec[] = {at(2023, 2, 29),
                                        at(2030, 1, 1, 0, 0, -1),
                                        at(2030, 1, 1, 0, -1, 0),
                                        at(2030, 1, 1, -1, 0, 0),
                                        at(2030, 1, -1),
                                        at(2030, -1, 1),
                                        at(-1, 1, 1),
                                        at(9999, 12, 31, 23, 59, 59)};
            for (int i = 0; i < 8; ++i)
                errno = 4321, o[i].result = QOSA_SetSysTime(&rec[i]), o[i].err = errno;
            errno = 4321, o[8].result = u32(QOSA_SetTimezone(100000)), o[8].err = errno;
            o[9].result = 1;
        }
        _exit(write(fds[1], o, sizeof o) == ssize_t(sizeof o) ? 0 : 1);
    }
    close(fds[1]);
    ASSERT_EQ(read(fds[0], o, sizeof o), ssize_t(sizeof o));
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    if (o[9].result != 1) GTEST_SKIP() << "cannot give up the privilege to set the clock";
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(o[i].result, 0xFFFFFFFFu) << "call " << i;
        if (i < 7)
            EXPECT_EQ(o[i].err, 4321) << "record " << i << " reached the system";
        else
            EXPECT_TRUE(o[i].err == EPERM || o[i].err == EINVAL) << "call " << i << ": " << o[i].err;
    }
}
