// Guarded entry points of the time and clock family.
#include "guard_cases.h"
#include "qosa.h"

namespace {
time_t s_t = 0;
struct tm s_tm {};
char s_buf[64];
constexpr std::int64_t kFail = 0xFFFFFFFF;
} // namespace

static GuardRows s_rows{
    {"QOSA_LocalTime", [] { return as_flag(QOSA_LocalTime(nullptr)); }, 0},
    {"QOSA_GmTime", [] { return as_flag(QOSA_GmTime(nullptr)); }, 0},
    {"QOSA_AscTime", [] { return as_flag(QOSA_AscTime(nullptr)); }, 0},
    {"QOSA_CTime", [] { return as_flag(QOSA_CTime(nullptr)); }, 0},
    {"QOSA_LocalTime_S_NoOut", [] { return std::int64_t{QOSA_LocalTime_S(nullptr, &s_t)}; }, kFail},
    {"QOSA_LocalTime_S_NoTime", [] { return std::int64_t{QOSA_LocalTime_S(&s_tm, nullptr)}; }, kFail},
    {"QOSA_GmTime_S_NoOut", [] { return std::int64_t{QOSA_GmTime_S(nullptr, &s_t)}; }, kFail},
    {"QOSA_GmTime_S_NoTime", [] { return std::int64_t{QOSA_GmTime_S(&s_tm, nullptr)}; }, kFail},
    {"QOSA_AscTime_S_NoTm", [] { return std::int64_t{QOSA_AscTime_S(nullptr, s_buf)}; }, kFail},
    {"QOSA_AscTime_S_NoBuf", [] { return std::int64_t{QOSA_AscTime_S(&s_tm, nullptr)}; }, kFail},
    {"QOSA_CTime_S_NoTime", [] { return std::int64_t{QOSA_CTime_S(nullptr, s_buf)}; }, kFail},
    {"QOSA_CTime_S_NoBuf", [] { return std::int64_t{QOSA_CTime_S(&s_t, nullptr)}; }, kFail},
    {"QOSA_GetTimeOfDay", [] { return std::int64_t{QOSA_GetTimeOfDay(nullptr, nullptr)}; }, 0},
    {"QOSA_StrFtime_NoBuf", [] { return std::int64_t{QOSA_StrFtime(nullptr, 64, "%Y", &s_tm)}; }, 0},
    {"QOSA_StrFtime_NoFmt", [] { return std::int64_t{QOSA_StrFtime(s_buf, 64, nullptr, &s_tm)}; }, 0},
    {"QOSA_StrFtime_EmptyFmt", [] { return std::int64_t{QOSA_StrFtime(s_buf, 64, "", &s_tm)}; }, 0},
    {"QOSA_StrFtime_NoTm", [] { return std::int64_t{QOSA_StrFtime(s_buf, 64, "%Y", nullptr)}; }, 0},
    {"QOSA_MkTime", [] { return std::int64_t{QOSA_MkTime(nullptr)}; }, 0},
    {"QOSA_GetTimeEx", [] { return QOSA_GetTimeEx(nullptr), std::int64_t{0}; }, 0},
    {"QOSA_GetTime", [] { return std::int64_t{QOSA_GetTime(nullptr)}; }, 0},
    {"QOSA_SetSysTime", [] { return std::int64_t{QOSA_SetSysTime(nullptr)}; }, kFail},
    {"ZAL_IsSysTimeValid", [] { return std::int64_t{ZAL_IsSysTimeValid(nullptr)}; }, 0},
};
