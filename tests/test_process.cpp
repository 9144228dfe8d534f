// Signal sets, signals, mappings, the last error and its texts, the fixed-result entry points and child
// processes. Signals only go to this process or to children it started.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "qosa_error.h"
#include "qosa_process.h"
#include "support.h"

constexpr s32 kCapacity = static_cast<s32>(sizeof(sigset_t) * CHAR_BIT);

TEST(QOSA_SigAddSet, BitsCapacityAndThePlatformLayout) {
    sigset_t set;
    auto bytes = reinterpret_cast<const unsigned char*>(&set);
    std::memset(&set, 0x5A, sizeof set);
    ASSERT_EQ(QOSA_SigEmptySet(&set), 0);
    EXPECT_EQ(QOSA_SigAddSet(&set, 2), 0);
    EXPECT_EQ(bytes[0], 0x02) << "signal 2 is bit 1";
    EXPECT_TRUE(QOSA_SigIsMember(&set, 2) == 1 && QOSA_SigIsMember(&set, 3) == 0);
    EXPECT_EQ(QOSA_SigAddSet(&set, kCapacity), 0);
    EXPECT_EQ(bytes[sizeof set - 1], 0x80) << "the last signal is the last bit";

    sigset_t before = set;
    for (s32 sig : {kCapacity + 1, 0, -1, INT32_MIN})
        EXPECT_EQ(QOSA_SigAddSet(&set, sig) | QOSA_SigDelSet(&set, sig) | QOSA_SigIsMember(&set, sig), 0) << sig;
    EXPECT_EQ(std::memcmp(&set, &before, sizeof set), 0) << "numbers outside the set change nothing";

    ASSERT_TRUE(QOSA_SigFillSet(&set) == 0 && QOSA_SigDelSet(&set, 1) == 0);
    EXPECT_EQ(bytes[0], 0xFE);
    for (size_t i = 1; i < sizeof set; ++i)
        ASSERT_EQ(bytes[i], 0xFF) << "byte " << i;
}

TEST(QOSA_SigWait, BlockedSignalIsPendingUntilTaken) {
    sigset_t usr2, old, pending;
    s32 got = 0;
    ASSERT_TRUE(QOSA_SigEmptySet(&usr2) == 0 && QOSA_SigAddSet(&usr2, SIGUSR2) == 0);
    ASSERT_EQ(QOSA_PthreadSigmask(SIG_BLOCK, &usr2, &old), 0);
    EXPECT_EQ(QOSA_PthreadKill(pthread_self(), SIGUSR2), 0);
    EXPECT_TRUE(QOSA_SigPending(&pending) == 0 && QOSA_SigIsMember(&pending, SIGUSR2) == 1);
    EXPECT_TRUE(QOSA_SigWait(&usr2, &got) == 0 && got == SIGUSR2) << got;
    ASSERT_EQ(QOSA_SigProcmask(SIG_SETMASK, &old, nullptr), 0);
    struct sigaction act {
    }, before{};
    act.sa_handler = SIG_IGN;
    ASSERT_EQ(QOSA_SigAction(SIGUSR2, &act, &before), 0);
    EXPECT_EQ(QOSA_Kill(QOSA_GetPID(), SIGUSR2), 0) << "ignored";
    EXPECT_EQ(QOSA_SigAction(SIGUSR2, &before, nullptr), 0);
}

TEST(QOSA_SetLastErr, IsPerThreadAndTextsFitOrAreRefused) {
    u32 other = 0;
    char buf[128], tiny[4];
    QOSA_SetLastErr(1234);
    std::thread([&] {
        QOSA_SetLastErr(99);
        other = QOSA_GetLastErr();
    }).join();
    EXPECT_TRUE(QOSA_GetLastSocketErr() == 1234u && other == 99u) << other;
    EXPECT_EQ(QOSA_StrError_S(buf, sizeof buf, ENOENT), 0);
    EXPECT_STREQ(buf, std::strerror(ENOENT));
    EXPECT_STREQ(QOSA_StrError(ENOENT), buf);
    EXPECT_EQ(QOSA_StrError_S(tiny, sizeof tiny, ENOENT), ERANGE);
}

static std::atomic<int> s_caught{0};

TEST(QOSA_ShmGet, StubsKeepTheLastErrorAndMappingOffsetsKeepTheirSign) {
    sigset_t set{};
    siginfo_t info{};
    EXPECT_TRUE(QOSA_SigWaitInfo(&set, &info) == 0 && QOSA_SigTimedWait(&set, &info, nullptr) == 0) << "at once";
    QOSA_Signal(SIGUSR1, [](int) { ++s_caught; });
    EXPECT_EQ(QOSA_SigQueue(QOSA_GetPID(), SIGUSR1, sigval{}), -1);
    EXPECT_EQ(s_caught, 0) << "nothing is sent";
    QOSA_Signal(SIGUSR1, SIG_DFL);

    QOSA_SetLastErr(1234);
    EXPECT_TRUE(QOSA_ShmGet(IPC_PRIVATE, 4096, IPC_CREAT | 0600) == -1 && QOSA_ShmAt(0, nullptr, 0) == nullptr);
    EXPECT_TRUE(QOSA_ShmDt(nullptr) == -1 && QOSA_ShmCtl(0, IPC_RMID, nullptr) == -1);
    EXPECT_EQ(QOSA_CreateProcess("/bin/true", nullptr), 0);
    EXPECT_EQ(QOSA_GetLastErr(), 1234u) << "the stubs leave the last error alone";
    EXPECT_TRUE(QOSA_ShmOpen("/qosa-test", O_RDWR | O_CREAT, 0600) == -1 && QOSA_GetLastErr() == ENOSYS);
    QOSA_SetLastErr(0);
    EXPECT_TRUE(QOSA_ShmUnLink("/qosa-test") == -1 && QOSA_GetLastErr() == ENOSYS);

    // Widened without its sign, offset -4096 would map 4 GiB into the file.
    char path[] = "/tmp/qosa_mmap_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    unlink(path);
    ASSERT_EQ(ftruncate(fd, 4096), 0);
    EXPECT_EQ(QOSA_MMap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, -4096), MAP_FAILED);
    void* p = QOSA_MMapWin(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    EXPECT_TRUE(p != MAP_FAILED && QOSA_MUnMapWin(p, 4096) == 0);
    close(fd);
}

TEST(QOSA_Fork, WaitKillAndImmediateExit) {
    std::fflush(nullptr);
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    s64 child = QOSA_Fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::fputs("buffered", fdopen(out[1], "w"));
        const bool refused = QOSA_Reboot(1) == -1; // 1 is no reboot command (EINVAL; EPERM without privilege)
        qosa_test::write_counters();
        QOSA_Exit(refused ? 42 : 43); // no stdio flush
    }
    close(out[1]);
    s32 status = 0;
    char buf[16];
    EXPECT_EQ(QOSA_Wait(&status), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << status;
    EXPECT_EQ(read(out[0], buf, sizeof buf), 0) << "the buffered text never reached the pipe";
    close(out[0]);

    child = QOSA_Fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        for (;;)
            pause();
    auto pid = static_cast<pid_t>(child);
    EXPECT_EQ(QOSA_Waitpid(pid, &status, WNOHANG), 0);
    EXPECT_EQ(QOSA_Kill(pid, SIGTERM), 0);
    EXPECT_EQ(QOSA_Waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
}
