// With tracking on, every statistics result array is a tracked block of the
// statistics unit, and no call leaves a working array behind.
#include <gtest/gtest.h>

#include <unistd.h>

#include <iterator>
#include <string>

#include "internal/mem_table.h"
#include "qosa_mem.h"
#include "qosa_stat.h"
#include "support.h"

// A live, undamaged block of the statistics unit holding at least that many bytes; released.
static void expect_result_block(void* p, u32 bytes) {
    const QOSA_MEM_REC_S* rec = sysMemCheckUserAddr(p);
    ASSERT_NE(rec, nullptr) << "not a tracked block";
    EXPECT_STREQ(rec->pFile, "os_run_config.c");
    EXPECT_TRUE(rec->ulSize >= bytes && rec->ulStatus == QOSA_MEM_GOOD) << rec->ulSize << " " << bytes;
    QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, __LINE__, __FILE__);
}

TEST(StatTracked, ResultArraysAreTrackedAndNothingIsLeft) {
    QOSA_MemInitMemMange();
    const std::string me = qosa_test::name_self("qosatrack" + std::to_string(getpid()));
    const auto& table = qosa::mem::g_MemMonitorRecord;
    const u32 live = table.ulCurCnt, errors = table.ulErrCnt;

    u32 n = 0, total = 0, free = 0, r = 1;
    QOSA_OS_PROC_INFO_S* procs = nullptr;
    ASSERT_EQ(QOSA_OS_GetMEMAllocRate(&total, &free, &n, &procs), 0u);
    expect_result_block(procs, n * sizeof *procs);
    for (int attempt = 0; attempt < 5 && r == 1; ++attempt) // a process may exit during the first scan
        r = QOSA_OS_GetCPUBusyRate(&n, &procs);
    ASSERT_EQ(r, 0u);
    expect_result_block(procs, n * sizeof *procs);
    QOSA_OS_THREAD_INFO_S* threads = nullptr;
    ASSERT_EQ(QOSA_OS_GetProcThread(me.c_str(), &n, &threads), 0u);
    expect_result_block(threads, n * sizeof *threads);
    // Failing calls: no process of that name, a result pointer already set.
    EXPECT_EQ(QOSA_OS_GetProcThread("no-such-process-name", &n, &threads), 2u);
    QOSA_OS_PROC_INFO_S busy{};
    procs = &busy;
    EXPECT_EQ(QOSA_OS_GetMEMAllocRate(&total, &free, &n, &procs), 3u);
    EXPECT_EQ(table.ulCurCnt, live) << "a block is left";
    EXPECT_EQ(table.ulErrCnt, errors) << "a release went wrong";
}
