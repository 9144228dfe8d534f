// Demo section: the machine's busy rate and memory, the busiest processes and
// the demo's own threads, all read from /proc.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>

#include "demo.h"
#include "qosa.h"

namespace {

void release(void* p) { QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, __LINE__, __FILE__); }

// Hundredths of a percent as "12.34 %".
void percent(u32 rate) { std::printf("%3u.%02u %%", rate / 100, rate % 100); }

const char* state_name(s32 code) {
    static const char* const names[] = {"running", "sleeping", "disk wait", "other (zombie, idle, ...)",
                                        "stopped", "paging"};
    return code >= 0 && code <= 5 ? names[code] : "?";
}

void run() {
    demo::heading("machine (one second)");
    u32 rate = 0;
    if (QOSA_OS_GetCPUBusyRateAll(&rate) == 0) {
        std::printf("QOSA_OS_GetCPUBusyRateAll -> ");
        percent(rate);
        std::printf(" busy\n");
    }
    u32 total = 0, free = 0, n = 0;
    QOSA_OS_PROC_INFO_S* procs = nullptr;
    if (QOSA_OS_GetMEMAllocRate(&total, &free, &n, &procs) == 0) {
        std::printf("memory: %u kB total, %u kB free (%u processes)\n", total, free, n);
        release(procs);
    }

    demo::heading("the five busiest processes (one second)");
    u32 r = 1;
    for (int attempt = 0; attempt < 3 && r == 1; ++attempt) // a process may exit during the first scan
        r = QOSA_OS_GetCPUBusyRate(&n, &procs);
    if (r == 0) {
        std::stable_sort(procs, procs + n, [](const auto& a, const auto& b) { return a.ulValue > b.ulValue; });
        for (u32 i = 0; i < n && i < 5; ++i) {
            std::printf("  %-18s ", procs[i].szProcName);
            percent(procs[i].ulValue);
            std::printf("\n");
        }
        release(procs);
    } else {
        std::printf("QOSA_OS_GetCPUBusyRate -> %u\n", r);
    }

    demo::heading("this demo's threads");
    std::string me;
    std::getline(std::ifstream("/proc/self/comm"), me);
    QOSA_OS_THREAD_INFO_S* threads = nullptr;
    r = QOSA_OS_GetProcThread(me.c_str(), &n, &threads);
    std::printf("QOSA_OS_GetProcThread(\"%s\") -> %u, %u thread(s)\n", me.c_str(), r, n);
    for (u32 i = 0; r == 0 && i < n; ++i)
        std::printf("  thread %d: %s\n", threads[i].iThreadId, state_name(threads[i].iState));
    release(threads);
}

} // namespace

static demo::Section s_section{100, "system statistics", run};
