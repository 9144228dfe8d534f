// Statistics calls given a null out-pointer: 3, and nothing is read.
#include "guard_cases.h"
#include "qosa.h"

static u32 s_n = 0;
static QOSA_OS_PROC_INFO_S* s_procs = nullptr;
static QOSA_OS_THREAD_INFO_S* s_threads = nullptr;

static GuardRows s_rows{
    {"QOSA_OS_GetCPUBusyRateAll", [] { return QOSA_OS_GetCPUBusyRateAll(nullptr); }, 3},
    {"QOSA_OS_GetCPUBusyRate_NoCount", [] { return QOSA_OS_GetCPUBusyRate(nullptr, &s_procs); }, 3},
    {"QOSA_OS_GetCPUBusyRate_NoRecords", [] { return QOSA_OS_GetCPUBusyRate(&s_n, nullptr); }, 3},
    {"QOSA_OS_GetMEMAllocRate_NoTotal", [] { return QOSA_OS_GetMEMAllocRate(nullptr, &s_n, &s_n, &s_procs); }, 3},
    {"QOSA_OS_GetMEMAllocRate_NoFree", [] { return QOSA_OS_GetMEMAllocRate(&s_n, nullptr, &s_n, &s_procs); }, 3},
    {"QOSA_OS_GetMEMAllocRate_NoCount", [] { return QOSA_OS_GetMEMAllocRate(&s_n, &s_n, nullptr, &s_procs); }, 3},
    {"QOSA_OS_GetMEMAllocRate_NoRecords", [] { return QOSA_OS_GetMEMAllocRate(&s_n, &s_n, &s_n, nullptr); }, 3},
    {"QOSA_OS_GetProcThread_NoName", [] { return QOSA_OS_GetProcThread(nullptr, &s_n, &s_threads); }, 3},
    {"QOSA_OS_GetProcThread_NoCount", [] { return QOSA_OS_GetProcThread("init", nullptr, &s_threads); }, 3},
    {"QOSA_OS_GetProcThread_NoRecords", [] { return QOSA_OS_GetProcThread("init", &s_n, nullptr); }, 3},
};
