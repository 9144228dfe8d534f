// Guarded entry points of the core frame and the string utilities.
#include <cerrno>

#include "guard_cases.h"
#include "qosa.h"

static s32 s_out;

static GuardRows s_rows{
    {"QOSA_MutexInit", [] { return QOSA_MutexInit(nullptr, nullptr); }, -1},
    {"QOSA_MutexInitRecursive", [] { return QOSA_MutexInitRecursive(nullptr); }, -1},
    {"QOSA_MutexDestroy", [] { return QOSA_MutexDestroy(nullptr); }, -1},
    {"QOSA_MutexLock", [] { return QOSA_MutexLock(nullptr); }, -1},
    {"QOSA_MutexTryLock", [] { return QOSA_MutexTryLock(nullptr); }, -1},
    {"QOSA_MutexUnLock", [] { return QOSA_MutexUnLock(nullptr); }, -1},
    {"QOSA_StrLen", [] { return QOSA_StrLen(nullptr); }, 0},
    {"QOSA_StrToUper", [] { return as_flag(QOSA_StrToUper(nullptr)); }, 0},
    {"QOSA_StrToLower", [] { return as_flag(QOSA_StrToLower(nullptr)); }, 0},
    {"QOSA_Ultostr", [] { return QOSA_Ultostr(nullptr, 12, 1, 10); }, -1},
    {"QOSA_StrToInt32_NoText", [] { return QOSA_StrToInt32(nullptr, &s_out); }, 1},
    {"QOSA_StrToInt32_NoOut", [] { return QOSA_StrToInt32("1", nullptr); }, 1},
    {"QOSA_StrTok_S", [] { return as_flag(QOSA_StrTok_S(nullptr, ",", nullptr)); }, 0},
    {"QOSA_AddOperateRec", [] { return std::int64_t{QOSA_AddOperateRec(nullptr) != 0}; }, 1},
    {"QOSA_StrError_S", [] { return QOSA_StrError_S(nullptr, 64, ENOENT); }, ERANGE},
    {"QOSA_DumpOperateHistory", [] { return std::int64_t{QOSA_DumpOperateHistory(nullptr, 100) != 0}; }, 1},
};
