// Demo section: clocks, local time and the date-time validity rule.
#include <cstdio>
#include <cstring>

#include "demo.h"
#include "qosa.h"

static void run() {
    demo::heading("run-time clock (since boot)");
    u32 ms = QOSA_GetSysRunTime();
    std::printf("QOSA_GetSysRunTime() -> %u ms, QOSA_GetSysRunTimeSec() -> %u s\n", ms, QOSA_GetSysRunTimeSec());
    QOSA_SleepMs(50);
    std::printf("after a 50 ms sleep: %u ms later\n", QOSA_GetSysRunTime() - ms);

    demo::heading("wall clock");
    std::printf("QOSA_GetSystemTime() -> %llu ms since 1970, QOSA_GetSysTimeSec() -> %u s\n",
                static_cast<unsigned long long>(QOSA_GetSystemTime()), QOSA_GetSysTimeSec());
    time_t now = static_cast<time_t>(QOSA_GetSysTimeSec());
    struct tm local {};
    char text[64] = "";
    if (QOSA_LocalTime_S(&local, &now) == 0) QOSA_StrFtime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &local);
    std::printf("local time: %s\n", text);
    QOSA_TimeEx ex{};
    QOSA_GetTimeEx(&ex);
    std::printf("QOSA_GetTimeEx (UTC): %04d-%02d-%02d %02d:%02d:%02d.%03u\n", ex.tm_year + 1900, ex.tm_mon + 1,
                ex.tm_mday, ex.tm_hour, ex.tm_min, ex.tm_sec, ex.ms);

    demo::heading("date-time validity (* = any)");
    const struct {
        s32 year, mon, mday;
    } dates[] = {{2024, 2, 29}, {2023, 2, 29},  {2100, 2, 29}, {-1, 2, 29},
                 {2024, 4, 31}, {2024, -1, 31}, {1969, 12, 31}};
    for (const auto& d : dates) {
        QOSA_SysTime t{};
        t.tm_year = d.year, t.tm_mon = d.mon, t.tm_mday = d.mday;
        char date[16];
        std::snprintf(date, sizeof date, "%04d-%02d-%02d", d.year, d.mon, d.mday);
        if (d.year < 0) std::memcpy(date, "****", 4);
        if (d.mon < 0) date[5] = date[6] = '*';
        std::printf("  %s  %-7s  (days in that month: %u)\n", date, ZAL_IsSysTimeValid(&t) ? "valid" : "invalid",
                    Max_date(d.year, static_cast<u32>(d.mon)));
    }
}

static demo::Section s_section{30, "time and clocks", run};
