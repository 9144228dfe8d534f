// Statistics from /proc: the text steps on hand-written lines, then the four
// calls against /proc, with this process renamed to a name of its own.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "internal/proc_parse.h"
#include "qosa_mem.h"
#include "qosa_stat.h"
#include "sanitizers.h"

using namespace qosa::stat;

namespace {

// This process under a 15-character name (the kernel's limit) of its own.
const std::string& own_name() {
    static const std::string name = [] {
        std::string n = ("qosatest" + std::to_string(getpid()) + "xxxxxxx").substr(0, 15);
        prctl(PR_SET_NAME, n.c_str());
        return n;
    }();
    return name;
}

void release(void* p) { QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, __LINE__, __FILE__); }
std::string slurp(const char* path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

} // namespace

TEST(StatLine, NamesAndFieldsWhateverTheName) {
    for (std::string name : {"bash", "Web Content", "a) (b", "x)", "", "  two  blanks ", "name-of-twenty-chars"}) {
        std::string line = "7 (" + name + ") S"; // field k holds 10 * k
        for (int k = 4; k <= 52; ++k)
            line += ' ' + std::to_string(10 * k);
        const std::string kept = name.substr(0, kNameMax);
        char got[kNameMax + 1];
        u32 v = 0;
        ASSERT_EQ(stat_pair(line.c_str(), 14, got, &v), 0u) << name;
        EXPECT_TRUE(v == 140 + 150 && got == kept) << name << ": " << v << " " << got;
        ASSERT_EQ(stat_pair(line.c_str(), 23, got, &v), 0u) << name;
        EXPECT_EQ(v, 230u + 240u) << name;
        StatHead h;
        EXPECT_EQ(parse_stat_head(line.c_str(), &h), 5) << name;
        EXPECT_TRUE(h.pid == 7 && h.state == 'S' && h.ppid == 40 && h.pgrp == 50) << name;
        EXPECT_EQ(h.token, ("(" + kept + ")").substr(0, kNameMax));
    }
    char name[kNameMax + 1];
    u32 v = 77;
    EXPECT_EQ(stat_pair("7 (no close S 1 2 3", 14, name, &v), 2u);
    EXPECT_EQ(stat_pair("7 ) wrong order ( 1 2", 3, name, &v), 2u);
    EXPECT_EQ(stat_pair("7 (short) S 1 2 3", 14, name, &v), 2u) << "the line ends before the field";
    EXPECT_EQ(v, 77u);
    EXPECT_EQ(stat_pair("7 (w) S\t 1 \r\n 2  3", 4, name, &v), 0u);
    EXPECT_EQ(v, 3u) << "tabs and line ends are stepped over after a blank";
    EXPECT_EQ(stat_pair("7 (big) R 4294967296 5", 4, name, &v), 0u);
    EXPECT_EQ(v, 5u) << "the sum keeps its low 32 bits";
    StatHead h;
    EXPECT_EQ(parse_stat_head("x (a) S", &h), -1);
    EXPECT_EQ(parse_stat_head("9 (a) Z", &h), 3);
}

TEST(StatLine, NameTestAndStateCodes) {
    const struct {
        const char *searched, *token;
        bool match;
    } cases[] = {{"bash", "(bash)", true},
                 {"bas", "(bash)", false},
                 {"bashx", "(bash)", false},
                 {"abcdefghijklmno", "(abcdefghijklmno)", true},
                 {"abcdefghijklmnoPQRST", "(abcdefghijklmno)", true}, // through the kernel's 15
                 {"abcdefghijklmn", "(abcdefghijklmno)", false},
                 {"abcdefghijklmnXPQRS", "(abcdefghijklmno)", false},
                 {"abcdefghijklmnoP", "(abcdefghijklmn)", false}}; // a 14-character name was not cut
    for (const auto& c : cases)
        EXPECT_EQ(name_matches(c.searched, c.token), c.match) << c.searched << " " << c.token;
    const char letters[] = "RSDTWZXIt";
    const s32 codes[] = {0, 1, 2, 4, 5, 3, 3, 3, 3};
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(state_code(letters[i]), codes[i]) << letters[i];
}

TEST(StatLine, CpuLineRatesAndMeminfo) {
    CpuSample a{}, b{}, c{};
    ASSERT_EQ(parse_cpu_line("intr 1\ncpu  100 0 50 850 3 0 0\ncpu0 1 2 3 4\n", &a), 0u);
    ASSERT_EQ(parse_cpu_line("cpu  160 0 70 870 9\n", &b), 0u);
    EXPECT_EQ(busy_rate(a, b), 8000u);
    EXPECT_EQ(busy_rate(a, a), 0u) << "no tick between the samples";
    EXPECT_EQ(parse_cpu_line("cpu 7\n", &c), 0u);
    EXPECT_TRUE(c.user == 7 && c.idle == 0) << "a short line keeps what it reached";
    EXPECT_EQ(parse_cpu_line("cpu0 1 2 3 4\n", &c), 2u);
    EXPECT_EQ(parse_cpu_line("cpu ", &c), 2u);
    // Counters past 2^32 on both sides of the interval.
    ASSERT_EQ(parse_cpu_line("cpu 4294967290 0 4294967290 8589934592", &a), 0u);
    ASSERT_EQ(parse_cpu_line("cpu 4294967340 0 4294967290 8589934742", &b), 0u);
    EXPECT_EQ(busy_rate(a, b), 2500u);
    b.idle = a.idle - 10; // idle went back: still a rate
    EXPECT_EQ(busy_rate(a, b), 10000u);

    EXPECT_EQ(process_share(100, 150, 200), 2500u);
    EXPECT_EQ(process_share(0xFFFFFFF0u, 0x10u, 64), 5000u) << "32-bit tick counters wrap";
    EXPECT_EQ(process_share(150, 100, 200), 0u) << "ticks that went back";
    EXPECT_EQ(process_share(0, 300, 200), 10000u);
    EXPECT_EQ(process_share(0, 300, 0), 0u);

    u32 total = 0, free = 0;
    EXPECT_EQ(parse_meminfo("MemTotal:       16318712 kB\nMemFree:          123456 kB\n", &total, &free), 0u);
    EXPECT_TRUE(total == 16318712 && free == 123456);
    EXPECT_EQ(parse_meminfo("MemTotal:  99999999999 kB\nFree: 1\n", &total, &free), 2u);
    EXPECT_EQ(total, 0xFFFFFFFFu) << "saturated, and set before MemFree is looked for";
}

TEST(CpuBusyRate, MachineAndThisProcess) {
    const std::string& me = own_name();
    u32 rate = 12345;
    ASSERT_EQ(QOSA_OS_GetCPUBusyRateAll(&rate), 0u);
    EXPECT_LE(rate, 10000u);
    const u32 floor = qosa_test::kUnderTsan || qosa_test::kUnderAsan ? 6000 : 8500;
    auto spin = [](std::stop_token s) {
        while (!s.stop_requested()) {
        }
    };
    std::jthread spin1(spin), spin2(spin);
    ASSERT_EQ(QOSA_OS_GetCPUBusyRateAll(&rate), 0u);
    EXPECT_TRUE(rate >= floor && rate <= 10000) << rate;

    // A process that exits during a scan fails the call (first scan) or ends
    // the scan before this process (second scan): retry.
    u32 mine = 0, found = 0;
    for (int attempt = 0; attempt < 5 && found == 0; ++attempt) {
        u32 n = 0;
        QOSA_OS_PROC_INFO_S* recs = nullptr;
        u32 r = QOSA_OS_GetCPUBusyRate(&n, &recs);
        ASSERT_TRUE(r == 0 || r == 1) << r;
        for (u32 i = 0; i < n; ++i) {
            EXPECT_LE(recs[i].ulValue, 10000u) << recs[i].szProcName;
            if (me == recs[i].szProcName) mine = recs[i].ulValue, ++found;
        }
        release(recs);
    }
    EXPECT_EQ(found, 1u);
    EXPECT_GE(mine, floor / 3) << "two spinning threads on two cores, the box shared";
}

TEST(MemAllocRate, AgainstMeminfoAndOwnStat) {
    const std::string& me = own_name();
    u32 total = 5, free = 5, n = 5;
    QOSA_OS_PROC_INFO_S dummy{};
    QOSA_OS_PROC_INFO_S* recs = &dummy;
    EXPECT_EQ(QOSA_OS_GetMEMAllocRate(&total, &free, &n, &recs), 3u);
    EXPECT_TRUE(total == 5 && n == 5 && recs == &dummy) << "nothing read";

    char name[kNameMax + 1];
    u32 expected = 0; // vsize + rss
    ASSERT_EQ(stat_pair(slurp("/proc/self/stat").c_str(), 23, name, &expected), 0u);
    // A process that exits during the scan ends it early: retry until this one is in.
    const QOSA_OS_PROC_INFO_S* mine = nullptr;
    for (int attempt = 0; attempt < 10 && mine == nullptr; ++attempt) {
        release(recs == &dummy ? nullptr : recs);
        recs = nullptr;
        ASSERT_EQ(QOSA_OS_GetMEMAllocRate(&total, &free, &n, &recs), 0u);
        for (u32 i = 0; i < n; ++i)
            if (me == recs[i].szProcName) mine = &recs[i];
    }
    ASSERT_NE(mine, nullptr);
    EXPECT_LT(std::abs(static_cast<s32>(mine->ulValue - expected)), 64 << 20) << mine->ulValue << " " << expected;
    release(recs);

    u32 kTotal = 0, kFree = 0;
    ASSERT_EQ(parse_meminfo(slurp("/proc/meminfo").c_str(), &kTotal, &kFree), 0u);
    EXPECT_EQ(total, kTotal);
    EXPECT_LT(std::abs(static_cast<s32>(free - kFree)), static_cast<s32>(kTotal / 20));
}

TEST(ProcThread, ThisProcessHasExactlyItsTasks) {
    const std::string& me = own_name();
    std::vector<std::jthread> extra;
    for (int i = 0; i < 3; ++i)
        extra.emplace_back([](std::stop_token s) {
            while (!s.stop_requested())
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::set<s32> tasks;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/task"))
        tasks.insert(std::stoi(e.path().filename()));

    for (const std::string& name : {me, me + "-longer-than-15"}) {
        u32 n = 0;
        QOSA_OS_THREAD_INFO_S* recs = nullptr;
        ASSERT_EQ(QOSA_OS_GetProcThread(name.c_str(), &n, &recs), 0u) << name;
        std::set<s32> got;
        for (u32 i = 0; i < n; ++i) {
            got.insert(recs[i].iThreadId);
            const s32 want = recs[i].iThreadId == getpid() ? QOSA_THREAD_STATE_RUNNING : QOSA_THREAD_STATE_SLEEPING;
            // A loaded machine may catch any thread running or in a page-in (disk) sleep.
            EXPECT_TRUE(recs[i].iState == want || recs[i].iState == QOSA_THREAD_STATE_RUNNING ||
                        recs[i].iState == QOSA_THREAD_STATE_DISK_WAIT)
                << recs[i].iState;
        }
        release(recs);
        EXPECT_TRUE(got == tasks && n == tasks.size()) << name << ": " << n << " listed, " << tasks.size() << " tasks";
    }

    testing::internal::CaptureStdout();
    u32 n = 9;
    QOSA_OS_THREAD_INFO_S* recs = nullptr;
    const std::string missing = "no-such-" + std::to_string(getpid());
    EXPECT_EQ(QOSA_OS_GetProcThread(missing.c_str(), &n, &recs), 2u);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Can not find this process: ," + missing + " \n");
    EXPECT_TRUE(n == 0 && recs == nullptr);
    EXPECT_EQ(QOSA_OS_GetProcThread(me.substr(0, 14).c_str(), &n, &recs), 2u) << "a shorter name is another name";
}

TEST(ProcThread, StoppedAndZombieChildren) {
    own_name();
    for (bool zombie : {false, true}) {
        const std::string child = (zombie ? "qz" : "qt") + std::to_string(getpid());
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) { // renamed, then stopped or exited
            prctl(PR_SET_NAME, child.c_str());
            if (zombie) _exit(0);
            for (raise(SIGSTOP);;)
                pause();
        }
        // The child goes, whatever the checks say.
        std::unique_ptr<pid_t, void (*)(pid_t*)> reap(&pid, [](pid_t* p) {
            kill(*p, SIGKILL);
            waitpid(*p, nullptr, 0);
        });
        siginfo_t info{}; // exited but not reaped, or stopped
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, (zombie ? WEXITED : WSTOPPED) | WNOWAIT), 0);
        u32 n = 0;
        QOSA_OS_THREAD_INFO_S* recs = nullptr;
        EXPECT_EQ(QOSA_OS_GetProcThread(child.c_str(), &n, &recs), 0u) << child;
        ASSERT_GE(n, 1u) << child; // a sanitizer runtime may add a thread of its own
        EXPECT_EQ(recs[0].iThreadId, pid);
        for (u32 i = 0; i < n; ++i)
            EXPECT_EQ(recs[i].iState, zombie ? QOSA_THREAD_STATE_OTHER : QOSA_THREAD_STATE_STOPPED) << child;
        release(recs);
    }
}
