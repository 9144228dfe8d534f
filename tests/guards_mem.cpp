// Guarded entry points of the memory tracker and its reports.
#include "guard_cases.h"
#include "qosa.h"

namespace {
// A word that is no slot number, in front of a pointer that is no block.
u32 s_notBlock[4] = {0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0};
QOSA_MEM_REC_S s_rec;
char s_text[64];
const char* const s_pattern = "a";
} // namespace

static GuardRows s_rows{
    WITHOUT_ARGS(0, QOSA_MemTypeFreeD, MemRecordMemRecFun, sysMemCheckUserAddr, sysMemGetErrMemLog, sysMemSortMemInfo,
                 sysMemScanErrMemInfo),
    WITHOUT_ARGS(1, QOSA_MemGetMemStatus, QOSA_MemGetMemRec, QOSA_MemGetMemScan, QOSA_MemGetMemoryUseMonitor,
                 MemGetMemStats, MemGetMemRec, MemGetMemScan, MemGetMemoryUseMonitor, sysMemSortByAddr,
                 sysMemSortBySize),
    WITHOUT_ARGS(-1, sysMemProtect, sysMemUnProtect),
    CASE("sysMemDeleteUserMem", 4, sysMemDeleteUserMem(nullptr)),
    CASE("sysMemCopyUserMem_dst", 1, sysMemCopyUserMem(nullptr, &s_notBlock[2])),
    CASE("sysMemCopyUserMem_src", 1, sysMemCopyUserMem(&s_notBlock[2], nullptr)),
    CASE("sysMemPrintMemInfo", 0, sysMemPrintMemInfo(1, nullptr, 100, &s_rec, 1)),
    CASE("sysMemLogStringCat", 0, sysMemLogStringCat(nullptr, 100, "%d", 1)),
    CASE("sysMemLogStringCat_format", 0, sysMemLogStringCat(s_text, sizeof s_text, nullptr)),
    EACH_MISSING(sysMemStrcasestr, 0, s_text, s_pattern),
};
