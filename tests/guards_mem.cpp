// Guarded entry points of the memory tracker and its reports.
#include "guard_cases.h"
#include "qosa.h"

namespace {
// A word that is no slot number, in front of a pointer that is no block.
u32 s_notBlock[4] = {0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0};
QOSA_MEM_REC_S s_rec;
char s_buf[64];
} // namespace

static GuardRows s_rows{
    {"QOSA_MemTypeFreeD", [] { return QOSA_MemTypeFreeD(nullptr, 0, __LINE__, __FILE__), 0; }, 0},
    {"QOSA_MemGetMemStatus", [] { return QOSA_MemGetMemStatus(nullptr); }, 1},
    {"QOSA_MemGetMemRec", [] { return QOSA_MemGetMemRec(0, 0, nullptr, nullptr); }, 1},
    {"QOSA_MemGetMemScan", [] { return QOSA_MemGetMemScan(nullptr); }, 1},
    {"QOSA_MemGetMemoryUseMonitor", [] { return QOSA_MemGetMemoryUseMonitor(nullptr); }, 1},
    {"MemGetMemStats", [] { return MemGetMemStats(nullptr); }, 1},
    {"MemGetMemRec", [] { return MemGetMemRec(0, 0, nullptr, nullptr); }, 1},
    {"MemGetMemScan", [] { return MemGetMemScan(nullptr); }, 1},
    {"MemGetMemoryUseMonitor", [] { return MemGetMemoryUseMonitor(nullptr); }, 1},
    {"MemRecordMemRecFun", [] { return MemRecordMemRecFun(nullptr), 0; }, 0},
    {"sysMemDeleteUserMem", [] { return sysMemDeleteUserMem(nullptr); }, 4},
    {"sysMemCopyUserMem_dst", [] { return sysMemCopyUserMem(nullptr, &s_notBlock[2]); }, 1},
    {"sysMemCopyUserMem_src", [] { return sysMemCopyUserMem(&s_notBlock[2], nullptr); }, 1},
    {"sysMemCheckUserAddr", [] { return as_flag(sysMemCheckUserAddr(nullptr)); }, 0},
    {"sysMemGetErrMemLog", [] { return sysMemGetErrMemLog(nullptr); }, 0},
    {"sysMemProtect", [] { return sysMemProtect(nullptr); }, -1},
    {"sysMemUnProtect", [] { return sysMemUnProtect(nullptr); }, -1},
    {"sysMemSortMemInfo", [] { return sysMemSortMemInfo(nullptr, nullptr, 0); }, 0},
    {"sysMemScanErrMemInfo", [] { return sysMemScanErrMemInfo(nullptr); }, 0},
    {"sysMemPrintMemInfo", [] { return sysMemPrintMemInfo(1, nullptr, 100, &s_rec, 1); }, 0},
    {"sysMemLogStringCat", [] { return sysMemLogStringCat(nullptr, 100, "%d", 1); }, 0},
    {"sysMemLogStringCat_format", [] { return sysMemLogStringCat(s_buf, sizeof s_buf, nullptr); }, 0},
    {"sysMemStrcasestr_text", [] { return as_flag(sysMemStrcasestr(nullptr, "a")); }, 0},
    {"sysMemStrcasestr_pattern", [] { return as_flag(sysMemStrcasestr(s_buf, nullptr)); }, 0},
    {"sysMemSortByAddr", [] { return sysMemSortByAddr(nullptr, nullptr); }, 1},
    {"sysMemSortBySize", [] { return sysMemSortBySize(nullptr, nullptr); }, 1},
};
