// Statistics calls given a null out-pointer (or a result pointer already set): 3, and nothing is read.
#include "guard_cases.h"
#include "qosa.h"

static const char* const s_name = "init";
static u32 s_total, s_free, s_count;
static QOSA_OS_PROC_INFO_S* s_records = nullptr;
static QOSA_OS_PROC_INFO_S s_busy;
static QOSA_OS_PROC_INFO_S* s_set = &s_busy;
static QOSA_OS_THREAD_INFO_S* s_threads = nullptr;

static GuardRows s_rows{
    WITHOUT_ARGS(3, QOSA_OS_GetCPUBusyRateAll),
    EACH_MISSING(QOSA_OS_GetCPUBusyRate, 3, &s_count, &s_records),
    EACH_MISSING(QOSA_OS_GetMEMAllocRate, 3, &s_total, &s_free, &s_count, &s_records),
    CASE("QOSA_OS_GetMEMAllocRate_set", 3, QOSA_OS_GetMEMAllocRate(&s_total, &s_free, &s_count, &s_set)),
    EACH_MISSING(QOSA_OS_GetProcThread, 3, s_name, &s_count, &s_threads),
};
