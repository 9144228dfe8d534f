// Statistics calls given a null out-pointer: 3, and nothing is read.
#include "guard_cases.h"
#include "qosa.h"

namespace {
u32 s_n = 0;
QOSA_OS_PROC_INFO_S* s_procs = nullptr;
QOSA_OS_THREAD_INFO_S* s_threads = nullptr;
} // namespace

static GuardRows s_rows{
    {"QOSA_OS_GetCPUBusyRateAll", [] { return std::int64_t{QOSA_OS_GetCPUBusyRateAll(nullptr)}; }, 3},
    {"QOSA_OS_GetCPUBusyRate_NoCount", [] { return std::int64_t{QOSA_OS_GetCPUBusyRate(nullptr, &s_procs)}; }, 3},
    {"QOSA_OS_GetCPUBusyRate_NoRecords", [] { return std::int64_t{QOSA_OS_GetCPUBusyRate(&s_n, nullptr)}; }, 3},
    {"QOSA_OS_GetMEMAllocRate_NoTotal",
     [] { return std::int64_t{QOSA_OS_GetMEMAllocRate(nullptr, &s_n, &s_n, &s_procs)}; }, 3},
    {"QOSA_OS_GetMEMAllocRate_NoFree",
     [] { return std::int64_t{QOSA_OS_GetMEMAllocRate(&s_n, nullptr, &s_n, &s_procs)}; }, 3},
    {"QOSA_OS_GetMEMAllocRate_NoCount",
     [] { return std::int64_t{QOSA_OS_GetMEMAllocRate(&s_n, &s_n, nullptr, &s_procs)}; }, 3},
    {"QOSA_OS_GetMEMAllocRate_NoRecords",
     [] { return std::int64_t{QOSA_OS_GetMEMAllocRate(&s_n, &s_n, &s_n, nullptr)}; }, 3},
    {"QOSA_OS_GetProcThread_NoName", [] { return std::int64_t{QOSA_OS_GetProcThread(nullptr, &s_n, &s_threads)}; }, 3},
    {"QOSA_OS_GetProcThread_NoCount", [] { return std::int64_t{QOSA_OS_GetProcThread("init", nullptr, &s_threads)}; },
     3},
    {"QOSA_OS_GetProcThread_NoRecords", [] { return std::int64_t{QOSA_OS_GetProcThread("init", &s_n, nullptr)}; }, 3},
};
