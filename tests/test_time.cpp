// Time and clocks against the C library's calendar and the kernel's clocks. Nothing here may set
// the clock: the setting calls run in a child that has given up the privilege to set it. (The
// date-time validity rule and the arithmetic of the readings are properties of
// fuzz/fuzz_parsers.cpp.)

#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "internal/time.h"
#include "support.h"

namespace {
u64 now_ms() {
    using namespace std::chrono;
    return u64(duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}
u64 ex_ms(const QOSA_TimeEx& ex) { // back to milliseconds since 1970
    std::tm tm{ex.tm_sec, ex.tm_min, ex.tm_hour, ex.tm_mday, ex.tm_mon, ex.tm_year, 0, 0, 0, 0, nullptr};
    return u64(timegm(&tm)) * 1000 + ex.ms;
}
} // namespace

TEST(QOSA_GetSysRunTime, RunTimeAndWallClock) {
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    EXPECT_LE(QOSA_GetSysRunTime() - qosa::time::run_ms(ts), 50u) << "milliseconds of the boot clock";
    EXPECT_LE(QOSA_GetSysRunTimeSec() - u32(ts.tv_sec), 1u);

    u64 before = now_ms();
    u64 ms = QOSA_GetSystemTime();
    u32 wsec = QOSA_GetSysTimeSec();
    QOSA_TimeEx ex{};
    QOSA_GetTimeEx(&ex);
    struct tm utc {};
    ASSERT_EQ(QOSA_GetTime(&utc), 0u);
    u64 after = now_ms();
    auto within = [&](u64 v, u64 unit) { return v >= before / unit && v <= after / unit; };
    EXPECT_TRUE(within(ms, 1) && within(ex_ms(ex), 1) && ex.ms < 1000) << before << " " << ms << " " << ex_ms(ex);
    EXPECT_TRUE(within(wsec, 1000) && within(u64(timegm(&utc)), 1000));
}

TEST(QOSA_LocalTime_S, ErrorResultsAndThePlatformRecord) {
    struct tm tm {};
    char buf[32];
    tm.tm_year = 2147483647; // a year asctime cannot print
    EXPECT_EQ(QOSA_AscTime_S(&tm, buf), 0xFFFFFFFFu);
    const time_t never = LLONG_MAX; // beyond every broken-down year
    EXPECT_EQ(QOSA_LocalTime_S(&tm, &never), 0xFFFFFFFFu);
    EXPECT_EQ(QOSA_GmTime_S(&tm, &never), 0xFFFFFFFFu);
    EXPECT_EQ(QOSA_CTime_S(&never, buf), 0xFFFFFFFFu);
    timeval tv{};
    struct timezone tz {};
    gettimeofday(&tv, &tz);
    EXPECT_EQ(QOSA_GetTimezone(), tz.tz_minuteswest);
}

TEST(QOSA_SetSysTime, RefusalsLeaveTheClockAlone) {
    // Seven records are refused before the system is asked (last error untouched), then the system
    // refuses a valid one and a zone. The child exits with 1 + the first call that misbehaved.
    pid_t pid = fork();
    if (pid == 0) {
        __user_cap_header_struct hdr{_LINUX_CAPABILITY_VERSION_3, 0};
        const __user_cap_data_struct none[2]{}; // every privilege given up, that of setting the clock with them
        if (syscall(SYS_capset, &hdr, none) != 0) qosa_test::child_exit(255); // still there: set nothing
        // year, month, day, hour, minute, second
        const s32 rec[][6] = {{2023, 2, 29, 12, 0, 0}, {2030, 1, 1, 0, 0, -1},    {2030, 1, 1, 0, -1, 0},
                              {2030, 1, 1, -1, 0, 0},  {2030, 1, -1, 12, 0, 0},   {2030, -1, 1, 12, 0, 0},
                              {-1, 1, 1, 12, 0, 0},    {9999, 12, 31, 23, 59, 59}};
        for (int i = 0; i < 9; ++i) {
            const s32* r = rec[i < 8 ? i : 0];
            QOSA_SysTime t{r[5], r[4], r[3], r[2], r[1], r[0], 0, 0, 0, 0, nullptr};
            errno = 4321;
            u32 res = i < 8 ? QOSA_SetSysTime(&t) : u32(QOSA_SetTimezone(0));
            // The kernel, not the C library, must refuse the zone. qemu-user forwards the system call
            // through the host's C library, which refuses a time and a zone together with EINVAL.
            int want = i < 7 ? 4321 : i == 7 || qosa_test::kUnderEmulator ? -1 : EPERM;
            if (res != 0xFFFFFFFFu || (want == -1 ? errno != EPERM && errno != EINVAL : errno != want))
                qosa_test::child_exit(1 + i);
        }
        qosa_test::child_exit(0);
    }
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    if (WEXITSTATUS(status) == 255) GTEST_SKIP() << "cannot give up the privilege to set the clock";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1 + the index of the call that misbehaved";
}
