// Signal sets, mappings, the last error and its texts, the fixed-result entry points and a child process.
// Signals only go to this process.

#include <fcntl.h>
#include <sys/wait.h>

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

// The signal and child-process pass-throughs, each where a call forwarded to the wrong platform call answers
// differently.
TEST(QOSA_SigWait, PassThroughsReachTheirOwnCalls) {
    using R = std::vector<long>;
    sigset_t usr2, old, pending;
    s32 got = 0, status = 0;
    struct sigaction ignore {
    }, before{};
    ignore.sa_handler = SIG_IGN;
    QOSA_SigEmptySet(&usr2), QOSA_SigAddSet(&usr2, SIGUSR2);
    EXPECT_EQ(R({QOSA_PthreadSigmask(SIG_BLOCK, &usr2, &old), QOSA_PthreadKill(pthread_self(), SIGUSR2),
                 QOSA_SigPending(&pending), QOSA_SigIsMember(&pending, SIGUSR2), QOSA_SigWait(&usr2, &got), got,
                 QOSA_SigProcmask(SIG_SETMASK, &old, nullptr), QOSA_SigAction(SIGUSR2, &ignore, &before),
                 QOSA_Kill(QOSA_GetPID(), SIGUSR2), QOSA_SigAction(SIGUSR2, &before, nullptr)}),
              R({0, 0, 0, 1, 0, SIGUSR2, 0, 0, 0, 0}));
    const s64 child = QOSA_Fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        for (;;)
            pause();
    const auto pid = static_cast<pid_t>(child);
    EXPECT_EQ(R({QOSA_Waitpid(pid, &status, WNOHANG), QOSA_Kill(pid, SIGTERM), QOSA_Waitpid(pid, &status, 0),
                 WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM}),
              R({0, 0, pid, 1}));
}

static std::atomic<int> s_caught{0};

// The stubs give their fixed results and leave the last error alone (the shared-memory names set ENOSYS); the
// error texts come from the XSI strerror_r, which refuses a buffer too small for the text.
TEST(QOSA_ShmGet, StubsKeepTheLastErrorAndMappingOffsetsKeepTheirSign) {
    sigset_t set{};
    siginfo_t info{};
    char buf[128], tiny[4];
    QOSA_Signal(SIGUSR1, [](int) { ++s_caught; });
    QOSA_SetLastErr(1234);
    EXPECT_EQ((std::vector<long>{QOSA_SigWaitInfo(&set, &info), QOSA_SigTimedWait(&set, &info, nullptr),
                                 QOSA_SigQueue(QOSA_GetPID(), SIGUSR1, sigval{}),
                                 QOSA_ShmGet(IPC_PRIVATE, 4096, IPC_CREAT | 0600), QOSA_ShmAt(0, nullptr, 0) != nullptr,
                                 QOSA_ShmDt(nullptr), QOSA_ShmCtl(0, IPC_RMID, nullptr),
                                 QOSA_CreateProcess("/bin/true", nullptr)}),
              (std::vector<long>{0, 0, -1, -1, 0, -1, -1, 0}));
    EXPECT_TRUE(QOSA_GetLastErr() == 1234u && QOSA_GetLastSocketErr() == 1234u) << "left alone";
    EXPECT_EQ(s_caught, 0) << "nothing is sent";
    QOSA_Signal(SIGUSR1, SIG_DFL);
    EXPECT_TRUE(QOSA_ShmOpen("/qosa-test", O_RDWR | O_CREAT, 0600) == -1 && QOSA_GetLastErr() == ENOSYS);
    QOSA_SetLastErr(0);
    EXPECT_TRUE(QOSA_ShmUnLink("/qosa-test") == -1 && QOSA_GetLastErr() == ENOSYS);
    EXPECT_EQ(QOSA_StrError_S(buf, sizeof buf, ENOENT), 0);
    EXPECT_TRUE(std::strcmp(buf, std::strerror(ENOENT)) == 0 && std::strcmp(QOSA_StrError(ENOENT), buf) == 0) << buf;
    EXPECT_EQ(QOSA_StrError_S(tiny, sizeof tiny, ENOENT), ERANGE);

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

// QOSA_Exit ends the child at once: what it left in a stdio buffer is never written.
TEST(QOSA_Exit, BufferedOutputIsNotWritten) {
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
}
