// Statistics from /proc: the text steps on hand-written lines, then the scans
// against /proc, with this process under a 15-character name of its own.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "internal/proc_parse.h"
#include "qosa_mem.h"
#include "qosa_stat.h"
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

TEST(StatText, StatLinesNamesAndStates) {
    StatHead h;
    for (std::string name : {"bash", "Web Content", "a) (b", "x)", "", "  two  blanks ", "name-of-twenty-chars"}) {
        std::string line = "7 (" + name + ") S"; // field k holds 10 * k
        for (int k = 4; k <= 24; ++k)
            line += ' ' + std::to_string(10 * k);
        const std::string kept = name.substr(0, kNameMax);
        char got[kNameMax + 1];
        u32 v14 = 0, v23 = 0;
        EXPECT_TRUE(stat_pair(line.c_str(), 14, got, &v14) == 0 && v14 == 290 && got == kept) << name << ": " << got;
        EXPECT_TRUE(stat_pair(line.c_str(), 23, got, &v23) == 0 && v23 == 470) << name << ": " << v23;
        EXPECT_TRUE(parse_stat_head(line.c_str(), &h) == 5 && h.state == 'S' && h.ppid == 40 && h.pgrp == 50) << name;
        EXPECT_EQ(h.token, ("(" + kept + ")").substr(0, kNameMax));
    }
    char name[kNameMax + 1];
    u32 v = 77;
    for (const char* cut : {"7 (no close S 1 2 3", "7 ) wrong order ( 1 2", "7 (short) S 1 2 3"})
        EXPECT_TRUE(stat_pair(cut, 14, name, &v) == 2 && v == 77) << cut;
    EXPECT_TRUE(stat_pair("7 (w) S\t 1 \r\n 2  3", 4, name, &v) == 0 && v == 3) << "blanks of every kind";
    EXPECT_TRUE(stat_pair("7 (big) R 4294967296 5", 4, name, &v) == 0 && v == 5) << "the sum keeps its low 32 bits";
    // Lines cut anywhere: the fields read so far.
    const std::pair<const char*, int> heads[] = {{"(a) S 1 2", -1}, {"7 a) S 1 2", 1}, {"7 (a S 1 2", 1},
                                                 {"7 (a) \n", 2},   {"7 (a) S x", 3},  {"7 (a) S 1", 4}};
    for (auto [line, fields] : heads)
        EXPECT_EQ(parse_stat_head(line, &h), fields) << line;

    EXPECT_TRUE(name_matches("bash", "(bash)") && name_matches("abcdefghijklmnoPQRST", "(abcdefghijklmno)"));
    EXPECT_FALSE(name_matches("bashx", "(bash)") || name_matches("abcdefghijklmnXPQRS", "(abcdefghijklmno)"));
    EXPECT_FALSE(name_matches("abcdefghijklmnoP", "(abcdefghijklmn)")) << "a 14-character name was not cut";
    EXPECT_FALSE(name_matches("", "(") || name_matches("", "")) << "no token";
    std::string codes;
    for (char letter : std::string("RSDTWZXIt"))
        codes += std::to_string(state_code(letter));
    EXPECT_EQ(codes, "012453333");
}

TEST(StatText, CpuLineRatesAndMeminfo) {
    CpuSample a{}, b{}, c{};
    ASSERT_EQ(parse_cpu_line("intr 1\ncpu  100 0 50 850 3 0 0\ncpu0 1 2 3 4\n", &a) +
                  parse_cpu_line("cpu  160 0 70 870 9\n", &b),
              0u);
    EXPECT_EQ(busy_rate(a, b), 8000u);
    EXPECT_EQ(busy_rate(a, a), 0u) << "no tick between the samples";
    EXPECT_TRUE(parse_cpu_line("cpu 7\n", &c) == 0 && c.user == 7 && c.idle == 0) << "a short line keeps the rest";
    EXPECT_EQ(parse_cpu_line("cpu0 1 2 3 4\n", &c) + parse_cpu_line("cpu ", &c), 4u);
    // Counters past 2^32 on both sides of the interval.
    ASSERT_EQ(parse_cpu_line("cpu 4294967290 0 4294967290 8589934592", &a) +
                  parse_cpu_line("cpu 4294967340 0 4294967290 8589934742", &b),
              0u);
    EXPECT_EQ(busy_rate(a, b), 2500u);
    b.idle = a.idle - 10; // idle went back: still a rate
    EXPECT_EQ(busy_rate(a, b), 10000u);
    EXPECT_EQ(busy_rate({}, {u64{1} << 61, 0, 0, u64{1} << 61}), 5000u) << "totals too large to scale first";
    EXPECT_EQ(busy_rate(b, a), 0u) << "counters that went back";

    // 32-bit tick counters wrap; ticks that went back; capped; no ticks of the machine.
    const u32 shares[][4] = {{0xFFFFFFF0u, 0x10u, 64, 5000}, {150, 100, 200, 0}, {0, 300, 200, 10000}, {0, 300, 0, 0}};
    for (const auto& [before, after, machine, share] : shares)
        EXPECT_EQ(process_share(before, after, machine), share) << before << " " << after << " " << machine;

    u32 total = 0, free = 0;
    EXPECT_EQ(parse_meminfo("MemTotal:       16318712 kB\nMemFree:          123456 kB\n", &total, &free), 0u);
    EXPECT_TRUE(total == 16318712 && free == 123456) << total << " " << free;
    EXPECT_EQ(parse_meminfo("MemTotal:  99999999999 kB\nFree: 1\n", &total, &free), 2u);
    EXPECT_EQ(total, 0xFFFFFFFFu) << "saturated, and set before MemFree is looked for";
}

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
    std::vector<std::string> names{g_me};
    if (g_me.size() == 15) names.push_back(g_me + "-longer-than-15"); // the emulator's name may be shorter
    for (const std::string& name : names) {
        std::set<s32> got;
        for (const QOSA_OS_THREAD_INFO_S& t : threads_of(name)) {
            EXPECT_TRUE(got.insert(t.iThreadId).second) << t.iThreadId;
            if (qosa_test::kUnderEmulator && t.iThreadId == getpid()) continue; // its made-up line has no state
            EXPECT_LE(t.iState, QOSA_THREAD_STATE_DISK_WAIT) << "running, sleeping or in a page-in";
        }
        EXPECT_EQ(got, tasks) << name;
    }
    testing::internal::CaptureStdout();
    const std::string missing = "no-such-" + std::to_string(getpid());
    EXPECT_TRUE(threads_of(missing, 2).empty());
    std::fflush(stdout);
    // Processes that exit during the scan add their own lines before it.
    EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with("Can not find this process: ," + missing + " \n"));
    EXPECT_TRUE(threads_of(g_me.substr(0, g_me.size() - 1), 2).empty()) << "a shorter name is another name";
}

TEST(QOSA_OS_GetProcThread, StoppedChildGivesFourAndZombieThree) {
    for (bool zombie : {false, true}) {
        const std::string child = (zombie ? "qz" : "qt") + std::to_string(getpid());
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) { // renamed, then stopped or exited
            prctl(PR_SET_NAME, child.c_str());
            if (zombie) _exit(0);
            for (raise(SIGSTOP);;)
                pause();
        }
        siginfo_t info{}; // exited but not reaped, or stopped
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, (zombie ? WEXITED : WSTOPPED) | WNOWAIT), 0);
        const auto threads = threads_of(child);
        EXPECT_TRUE(!threads.empty() && threads[0].iThreadId == pid) << child;
        for (const QOSA_OS_THREAD_INFO_S& t : threads) // a sanitizer runtime may add a thread of its own
            EXPECT_EQ(t.iState, zombie ? QOSA_THREAD_STATE_OTHER : QOSA_THREAD_STATE_STOPPED) << child;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}
