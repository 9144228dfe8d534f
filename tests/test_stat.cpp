// Statistics from /proc: the scans against /proc, with this process under a
// 15-character name of its own. (The text steps under them, stat lines, the
// cpu line, meminfo and the shares, are properties of fuzz/fuzz_parsers.cpp.)

#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <set>

#include "internal/proc_parse.h"
#include "support.h"

using namespace qosa::stat;

namespace {
using qosa_test::slurp;

// This process under a 15-character name (the kernel's limit) of its own, or,
// under qemu-user, the executable's name (no two of these tests run at once).
const std::string g_me = qosa_test::name_self(("qosatest" + std::to_string(getpid()) + "xxxxxxx").substr(0, 15));

void release(void* p) { QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, __LINE__, __FILE__); }

// This process's figure in a scan. A process that exits meanwhile may fail a
// scan or end it early: retried.
template <typename Scan>
u32 own_figure(Scan scan) {
    u32 value = 0, found = 0;
    for (int attempt = 0; attempt < 10 && found == 0; ++attempt) {
        u32 n = 0; // left 0 by a failed scan
        QOSA_OS_PROC_INFO_S* recs = nullptr;
        scan(&n, &recs);
        for (u32 i = 0; i < n; ++i)
            if (g_me == recs[i].szProcName) value = recs[i].ulValue, ++found;
        release(recs);
    }
    EXPECT_EQ(found, 1u) << "this process, once";
    return value;
}

void spin(std::stop_token s) {
    while (!s.stop_requested())
        std::this_thread::yield();
}

// The thread list of a process name, the result array released.
std::vector<QOSA_OS_THREAD_INFO_S> threads_of(const std::string& name, u32 result = 0) {
    u32 n = 0;
    QOSA_OS_THREAD_INFO_S* recs = nullptr;
    EXPECT_EQ(QOSA_OS_GetProcThread(name.c_str(), &n, &recs), result) << name;
    EXPECT_TRUE(result == 0 || recs == nullptr) << name;
    std::vector<QOSA_OS_THREAD_INFO_S> out(recs, recs + n);
    release(recs);
    return out;
}

} // namespace

TEST(QOSA_OS_GetCPUBusyRate, MachineAndThisProcessWithTwoThreadsSpinning) {
    std::jthread spin1(spin), spin2(spin);
    u32 rate = 12345;
    ASSERT_EQ(QOSA_OS_GetCPUBusyRateAll(&rate), 0u);
    const u32 floor = qosa_test::kUnderTsan || qosa_test::kUnderAsan ? 6000 : 8500;
    EXPECT_TRUE(rate >= floor && rate <= 10000) << rate;
    const u32 share = own_figure(QOSA_OS_GetCPUBusyRate);
    EXPECT_TRUE(share > 0 || qosa_test::kUnderEmulator) << "the box is shared: any share of it (none under qemu)";
}

TEST(QOSA_OS_GetMEMAllocRate, AgainstMeminfoAndOwnStat) {
    char name[kNameMax + 1];
    u32 total = 0, free = 0, kTotal = 0, kFree = 0, expected = 0; // vsize + rss
    ASSERT_EQ(stat_pair(slurp("/proc/self/stat").c_str(), 23, name, &expected), 0u);
    auto scan = [&](u32* n, QOSA_OS_PROC_INFO_S** recs) { return QOSA_OS_GetMEMAllocRate(&total, &free, n, recs); };
    const u32 mine = own_figure(scan);
    EXPECT_LT(std::abs(static_cast<s32>(mine - expected)), 64 << 20) << mine << " " << expected;
    ASSERT_EQ(parse_meminfo(slurp("/proc/meminfo").c_str(), &kTotal, &kFree), 0u);
    EXPECT_EQ(total, kTotal);
    EXPECT_LT(std::abs(static_cast<s32>(free - kFree)), static_cast<s32>(kTotal / 20));
}

TEST(QOSA_OS_GetProcThread, ThisProcessListsExactlyItsTasks) {
    std::jthread extra1(spin), extra2(spin), extra3(spin);
    std::set<s32> tasks;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/task"))
        tasks.insert(std::stoi(e.path().filename()));
    std::set<s32> got; // (which names match a process is the name test's rule: a fuzz property)
    for (const QOSA_OS_THREAD_INFO_S& t : threads_of(g_me)) {
        EXPECT_TRUE(got.insert(t.iThreadId).second) << t.iThreadId;
        if (qosa_test::kUnderEmulator && t.iThreadId == getpid()) continue; // its made-up line has no state
        EXPECT_LE(t.iState, QOSA_THREAD_STATE_DISK_WAIT) << "running, sleeping or in a page-in";
    }
    EXPECT_EQ(got, tasks);
    testing::internal::CaptureStdout();
    const std::string missing = "no-such-" + std::to_string(getpid());
    EXPECT_TRUE(threads_of(missing, 2).empty());
    std::fflush(stdout);
    // Processes that exit during the scan add their own lines before it.
    EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with("Can not find this process: ," + missing + " \n"));
}

// The state comes from each task's own line (what each letter gives is a fuzz property).
TEST(QOSA_OS_GetProcThread, StoppedChildGivesFour) {
    const std::string child = "qt" + std::to_string(getpid());
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) { // renamed, then stopped
        prctl(PR_SET_NAME, child.c_str());
        for (raise(SIGSTOP);;)
            pause();
    }
    siginfo_t info{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOWAIT), 0);
    const auto threads = threads_of(child);
    EXPECT_TRUE(!threads.empty() && threads[0].iThreadId == pid) << child;
    for (const QOSA_OS_THREAD_INFO_S& t : threads) // a sanitizer runtime may add a thread of its own
        EXPECT_EQ(t.iState, QOSA_THREAD_STATE_STOPPED) << child;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}
