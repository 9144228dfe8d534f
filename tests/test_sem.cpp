// Unnamed and named semaphores (counts, time-outs, tags, wake order, signals), System V sets.

#include "internal/clock.h"
#include "internal/fifo_sem.h"
#include "support.h"

namespace {
using namespace qosa_test;
// Results as checked: what a call gave, or for -1 the reason in the last error (failed(reason)).
using Results = std::vector<int>;
constexpr int failed(int reason) { return -1000 - reason; }
int why(int r) { return r == -1 ? failed(errno) : r; }
// The wall-clock time ms from now, for the absolute deadlines.
timespec from_now(long long ms) { return qosa::clock::after(ms * qosa::clock::kNsPerMs, CLOCK_REALTIME); }
unsigned waiters(QOSA_SEM_S* rec) {
    return qosa::sync::fifo_waiters(reinterpret_cast<qosa::sync::FifoSem*>(rec->sem.aullStore));
}
} // namespace

// The same operations on an unnamed record and, by its tag, on a named one.
TEST(QOSA_SemWait, OperationsOnBothKinds) {
    const std::string name = "/qosa_sem_test_" + std::to_string(getpid());
    QOSA_SemUnLink(name.c_str());
    EXPECT_TRUE(QOSA_SemOpen(name.c_str(), 0, 0, 0) == nullptr && errno == ENOENT);
    QOSA_SEM_S* named = QOSA_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0600, 1);
    QOSA_SEM_S* again = QOSA_SemOpenWin(name.c_str(), 0, 0, 0);
    ASSERT_TRUE(named != nullptr && again != nullptr);
    EXPECT_TRUE(QOSA_SemWait(again) == 0 && QOSA_SemPost(again) == 0) << "both openings reach one semaphore";
    QOSA_SEM_S unnamed{};
    EXPECT_EQ(why(QOSA_SemInit(&unnamed, 1, static_cast<u32>(SEM_VALUE_MAX) + 1)), failed(EINVAL));
    ASSERT_EQ(QOSA_SemInit(&unnamed, 1, 1), 0);

    for (QOSA_SEM_S* s : {&unnamed, named}) {
        const bool isNamed = s == named;
        SCOPED_TRACE(isNamed ? "named" : "unnamed");
        EXPECT_EQ(s->tag, isNamed ? QOSA_SEM_TAG_NAMED : QOSA_SEM_TAG_UNNAMED);
        // A time-out of 0 takes the free unit.
        EXPECT_EQ(Results({QOSA_SemWaitTimeOut(s, 0), why(QOSA_SemTryWait(s))}), Results({0, failed(EAGAIN)}));
        auto t0 = Clock::now();
        EXPECT_EQ(why(QOSA_SemWaitTimeOut(s, isNamed ? 200 : 1500)), failed(ETIMEDOUT));
        EXPECT_TRUE(ms_since(t0) >= (isNamed ? 200 : 1500) && ms_since(t0) < 3000) << ms_since(t0);
        timespec soon = from_now(200);
        t0 = Clock::now();
        EXPECT_EQ(QOSA_SemTimedWait(s, &soon), -1);
        EXPECT_GE(ms_since(t0), 199);

        // Deadlines already past (also earlier in this second) are refused without taking the free unit; one
        // beyond the longest wait is waited for.
        timespec past = from_now(0), earlierThisSecond{past.tv_sec, 0}, bad = from_now(1000), far = past;
        past.tv_sec -= 1;
        bad.tv_nsec = 1000000000;
        far.tv_sec += 1000000000000;
        EXPECT_EQ(Results({QOSA_SemPostWin(s), why(QOSA_SemTimedWait(s, &past)),
                           why(QOSA_SemTimedWait(s, &earlierThisSecond)), why(QOSA_SemTimedWait(s, &bad)),
                           QOSA_SemTryWait(s), QOSA_SemPost(s), QOSA_SemTimedWait(s, &far), QOSA_SemDestroy(s)}),
                  Results({0, failed(ETIMEDOUT), failed(ETIMEDOUT), failed(EINVAL), 0, 0, 0, 0}));
        EXPECT_EQ(s->tag, QOSA_SEM_TAG_DESTROYED);
        EXPECT_EQ(
            Results({why(QOSA_SemPost(s)), why(QOSA_SemWait(s)), why(QOSA_SemTryWait(s)), why(QOSA_SemDestroy(s))}),
            Results(4, failed(EINVAL)))
            << "a destroyed record is refused";
    }
    // A destroyed unnamed record holds nothing to close; a semaphore past its maximum count is not posted.
    EXPECT_EQ(
        Results({QOSA_SemClose(&unnamed), QOSA_SemClose(again), QOSA_SemClose(named), QOSA_SemUnLink(name.c_str()),
                 QOSA_SemUnLink(name.c_str()), QOSA_SemInitWin(&unnamed, 0, SEM_VALUE_MAX), why(QOSA_SemPost(&unnamed)),
                 QOSA_SemDestroy(&unnamed)}),
        Results({-1, 0, 0, 0, -1, 0, failed(EOVERFLOW), 0}));
}

// Waiters are released in arrival order, block destruction, and a signal handler ends an untimed wait.
TEST(QOSA_SemPost, WaitersInArrivalOrderAndSignals) {
    QOSA_SEM_S s{};
    ASSERT_EQ(QOSA_SemInit(&s, 0, 0), 0);
    std::atomic<int> woken{0};
    std::vector<int> order(5, -1);
    std::vector<std::thread> threads;
    for (int i = 0; i < 5; ++i) {
        threads.emplace_back([&, i] {
            EXPECT_EQ(QOSA_SemWait(&s), 0);
            order[static_cast<std::size_t>(woken.fetch_add(1))] = i;
        });
        wait_until([&] { return waiters(&s) == unsigned(i + 1); });
    }
    EXPECT_TRUE(QOSA_SemDestroy(&s) == -1 && errno == EBUSY && s.tag == QOSA_SEM_TAG_UNNAMED);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(QOSA_SemPost(&s), 0);
        while (woken.load() == i)
            std::this_thread::yield();
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));

    struct sigaction sa {};
    sa.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &sa, nullptr), 0); // no SA_RESTART
    std::atomic<int> result{1};
    int err = 0;
    std::thread waiter([&] {
        result = QOSA_SemWait(&s);
        err = errno;
    });
    wait_until([&] { return waiters(&s) == 1; });
    for (int i = 0; i < 200 && result == 1; ++i) { // the signal may come before it sleeps
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    waiter.join();
    EXPECT_TRUE(result == -1 && err == EINTR) << result << ' ' << err;
    ASSERT_EQ(QOSA_SemPost(&s), 0);
    EXPECT_EQ(QOSA_SemTryWait(&s), 0) << "the posted unit is not lost to the interrupted waiter";
    EXPECT_EQ(QOSA_SemDestroy(&s), 0);
}

// Units are neither lost nor made twice when posts and waits of every kind
// race, with and without waiters queued: the waiters take as many units as
// the posters make, and the first three are left.
TEST(QOSA_SemPost, RacingPostsAndWaitsKeepEveryUnit) {
    QOSA_SEM_S s{};
    ASSERT_EQ(QOSA_SemInit(&s, 0, 3), 0);
    constexpr int kEach = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                if (t % 2 == 0) {
                    EXPECT_EQ(QOSA_SemPost(&s), 0);
                    if (i % 16 == 0) std::this_thread::yield(); // lets the waiters find it empty now and then
                    continue;
                }
                while ((i % 3 == 0   ? QOSA_SemTryWait(&s)
                        : i % 3 == 1 ? QOSA_SemWaitTimeOut(&s, 1)
                                     : QOSA_SemWait(&s)) != 0) {
                }
            }
        });
    for (auto& t : threads)
        t.join();
    int left = 0;
    while (QOSA_SemTryWait(&s) == 0)
        ++left;
    EXPECT_EQ(left, 3);
    EXPECT_EQ(QOSA_SemDestroy(&s), 0);
}

// A waiter that got its unit no longer touches the semaphore, whether it was
// still spinning, asleep, or in a signal handler that interrupted its wait:
// the poster may destroy and free it at once.
TEST(QOSA_SemPost, PosterMayFreeTheSemaphoreRightAfterItsPost) {
    struct sigaction sa {};
    sa.sa_handler = [](int) { std::this_thread::sleep_for(std::chrono::milliseconds(30)); };
    ASSERT_EQ(sigaction(SIGUSR2, &sa, nullptr), 0); // no SA_RESTART
    for (int i = 0; i <= 2000; ++i) {
        auto* s = new QOSA_SEM_S{};
        ASSERT_EQ(QOSA_SemInit(s, 0, 0), 0);
        std::thread waiter([s] { EXPECT_EQ(QOSA_SemWait(s), 0); });
        // Yields rather than sleeps: the post must often find the waiter still spinning.
        while (waiters(s) == 0)
            std::this_thread::yield();
        const bool inHandler = i == 2000; // last: the post comes while the handler runs
        if (inHandler) pthread_kill(waiter.native_handle(), SIGUSR2);
        if (inHandler || i % 2 == 1) std::this_thread::sleep_for(std::chrono::microseconds(inHandler ? 10000 : 200));
        ASSERT_TRUE(QOSA_SemPost(s) == 0 && QOSA_SemDestroy(s) == 0);
        delete s;
        waiter.join();
    }
}

TEST(QOSA_SemOp, SystemVSetPassesThrough) {
    s32 id = QOSA_SemGet(IPC_PRIVATE, 2, IPC_CREAT | 0600);
    ASSERT_GE(id, 0) << errno;
    QOSA_SEMUN_U arg{};
    arg.val = 3;
    sembuf ops[2] = {{1, -2, IPC_NOWAIT}, {0, 1, 0}};
    EXPECT_TRUE(QOSA_SemCtl(id, 1, SETVAL, arg) == 0 && QOSA_SemOp(id, ops, 2) == 0);
    EXPECT_TRUE(QOSA_SemCtl(id, 1, GETVAL, arg) == 1 && QOSA_SemCtl(id, 0, GETVAL, arg) == 1) << "both operations done";
    EXPECT_EQ(QOSA_SemOp(id, ops, 1), -1) << "2 asked, 1 left";
    EXPECT_TRUE(QOSA_SemCtl(id, 0, IPC_RMID, arg) == 0 && QOSA_SemCtl(id, 0, GETVAL, arg) == -1) << "the set is gone";
}
