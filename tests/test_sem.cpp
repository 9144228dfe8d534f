// Unnamed semaphores (wake order, timed waits, tags), named and System V ones.
#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "internal/fifo_sem.h"
#include "qosa_sem.h"

namespace {
using Clock = std::chrono::steady_clock;
std::int64_t ms_since(Clock::time_point t0) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}
qosa::sync::FifoSem* inner(QOSA_SEM_S* rec) { return reinterpret_cast<qosa::sync::FifoSem*>(rec->sem.aullStore); }
// The wall-clock time ms from now, for the absolute deadlines.
timespec from_now(long ms) {
    timeval now{};
    gettimeofday(&now, nullptr);
    long ns = now.tv_usec * 1000L + ms % 1000 * 1000000L;
    if (ns < 0) return {now.tv_sec + ms / 1000 - 1, ns + 1000000000L};
    return {now.tv_sec + ms / 1000 + ns / 1000000000L, ns % 1000000000L};
}
void wait_for_waiters(QOSA_SEM_S* rec, std::uint32_t n) {
    while (qosa::sync::fifo_waiters(inner(rec)) != n)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}
} // namespace

TEST(Sem, TagsCountsAndRefusals) {
    QOSA_SEM_S s{};
    EXPECT_EQ(QOSA_SemInit(&s, 1, static_cast<u32>(SEM_VALUE_MAX) + 1), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(QOSA_SemInit(&s, 1, 1), 0);
    EXPECT_EQ(s.tag, QOSA_SEM_TAG_UNNAMED);
    EXPECT_EQ(QOSA_SemWaitTimeOut(&s, 0), 0) << "a free unit is taken";
    EXPECT_NE(QOSA_SemWaitTimeOut(&s, 0), 0) << "0 only tries";
    EXPECT_EQ(QOSA_SemTryWait(&s), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(QOSA_SemPost(&s), 0);
    EXPECT_EQ(QOSA_SemPostWin(&s), 0);
    EXPECT_EQ(QOSA_SemWait(&s), 0);
    EXPECT_EQ(QOSA_SemTryWait(&s), 0);
    EXPECT_EQ(QOSA_SemTryWait(&s), -1);

    ASSERT_EQ(QOSA_SemInitWin(&s, 0, SEM_VALUE_MAX), 0);
    EXPECT_EQ(QOSA_SemPost(&s), -1);
    EXPECT_EQ(errno, EOVERFLOW);

    ASSERT_EQ(QOSA_SemDestroy(&s), 0);
    EXPECT_EQ(s.tag, QOSA_SEM_TAG_DESTROYED);
    EXPECT_EQ(QOSA_SemPost(&s), -1) << "a destroyed semaphore is refused";
    EXPECT_EQ(QOSA_SemDestroy(&s), -1);
    EXPECT_EQ(s.tag, QOSA_SEM_TAG_DESTROYED);
}

TEST(Sem, WaitersAreReleasedInTheOrderTheyCame) {
    constexpr int kWaiters = 5;
    QOSA_SEM_S s{};
    ASSERT_EQ(QOSA_SemInit(&s, 0, 0), 0);
    std::atomic<int> wokenCount{0};
    std::vector<int> order(kWaiters, -1);
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back([&, i] {
            EXPECT_EQ(QOSA_SemWait(&s), 0);
            order[static_cast<std::size_t>(wokenCount.load())] = i;
            wokenCount.fetch_add(1);
        });
        wait_for_waiters(&s, static_cast<std::uint32_t>(i + 1));
    }
    // A thread that arrives now finds no unit: the units go to the queue.
    EXPECT_NE(QOSA_SemWaitTimeOut(&s, 0), 0);
    for (int i = 0; i < kWaiters; ++i) {
        ASSERT_EQ(QOSA_SemPost(&s), 0);
        while (wokenCount.load() == i)
            std::this_thread::yield();
    }
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(qosa::sync::fifo_count(inner(&s)), 0u);
    QOSA_SemDestroy(&s);
}

// Destroy is refused while someone waits; an untimed wait ends with EINTR
// when a signal handler interrupts it, and the unit stays for the next taker.
TEST(Sem, DestroyWhileWaitingAndSignalsInterruptingTheWait) {
    struct sigaction sa {};
    sa.sa_handler = [](int) {};
    sigemptyset(&sa.sa_mask);
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0); // no SA_RESTART
    QOSA_SEM_S sem{};
    ASSERT_EQ(QOSA_SemInit(&sem, 0, 0), 0);
    std::atomic<int> result{1}, err{0};
    std::thread waiter([&] {
        result = QOSA_SemWait(&sem);
        err = errno;
    });
    wait_for_waiters(&sem, 1);
    EXPECT_EQ(QOSA_SemDestroy(&sem), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(sem.tag, QOSA_SEM_TAG_UNNAMED);
    for (int i = 0; i < 200 && result == 1; ++i) { // the signal may come before it sleeps
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    waiter.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(err, EINTR);
    ASSERT_EQ(QOSA_SemPost(&sem), 0);
    EXPECT_EQ(QOSA_SemTryWait(&sem), 0) << "the unit is still there";
    EXPECT_EQ(QOSA_SemDestroy(&sem), 0);
    sigaction(SIGUSR1, &old, nullptr);
}

TEST(Sem, TimedWaits) {
    QOSA_SEM_S s{};
    ASSERT_EQ(QOSA_SemInit(&s, 0, 0), 0);

    auto t0 = Clock::now();
    EXPECT_NE(QOSA_SemWaitTimeOut(&s, 1500), 0);
    EXPECT_GE(ms_since(t0), 1500);
    EXPECT_LT(ms_since(t0), 3000);

    // A post during a timed wait ends it with the unit.
    std::thread poster([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        QOSA_SemPost(&s);
    });
    t0 = Clock::now();
    EXPECT_EQ(QOSA_SemWaitTimeOut(&s, 5000), 0);
    EXPECT_LT(ms_since(t0), 2500);
    poster.join();

    // A deadline in the past (also earlier in this second) is refused without
    // taking the free unit.
    ASSERT_EQ(QOSA_SemPost(&s), 0);
    timespec past = from_now(-1000), earlierThisSecond{from_now(0).tv_sec, 0};
    EXPECT_EQ(QOSA_SemTimedWait(&s, &past), -1);
    EXPECT_EQ(QOSA_SemTimedWait(&s, &earlierThisSecond), -1);
    EXPECT_EQ(QOSA_SemTryWait(&s), 0) << "the unit is still there";

    // A deadline 300 ms ahead, maybe in the next second with fewer nanoseconds.
    timespec ahead = from_now(300);
    t0 = Clock::now();
    EXPECT_NE(QOSA_SemTimedWait(&s, &ahead), 0);
    EXPECT_GE(ms_since(t0), 299);
    EXPECT_LT(ms_since(t0), 1500);
    QOSA_SemDestroy(&s);
}

TEST(Sem, NamedSemaphores) {
    std::string name = "/qosa_sem_test_" + std::to_string(getpid());
    QOSA_SemUnLink(name.c_str());
    EXPECT_EQ(QOSA_SemOpen(name.c_str(), 0, 0, 0), nullptr) << "no such semaphore, no create flag";
    EXPECT_EQ(errno, ENOENT);

    QOSA_SEM_S* s = QOSA_SemOpen(name.c_str(), O_CREAT | O_EXCL, 0600, 1);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->tag, QOSA_SEM_TAG_NAMED);
    QOSA_SEM_S* again = QOSA_SemOpenWin(name.c_str(), 0, 0, 0);
    ASSERT_NE(again, nullptr);

    // Every operation of a named record works on the named semaphore.
    EXPECT_EQ(QOSA_SemTryWait(again), 0) << "the unit of the first opening is seen by the second";
    EXPECT_EQ(QOSA_SemTryWait(s), -1);
    EXPECT_EQ(QOSA_SemPost(s), 0);
    EXPECT_EQ(QOSA_SemWait(again), 0);
    auto t0 = Clock::now();
    EXPECT_NE(QOSA_SemWaitTimeOut(s, 100), 0);
    EXPECT_GE(ms_since(t0), 99);
    timespec ahead = from_now(1000);
    QOSA_SemPostWin(again);
    EXPECT_EQ(QOSA_SemTimedWait(s, &ahead), 0);
    EXPECT_EQ(QOSA_SemDestroy(s), 0);
    EXPECT_EQ(s->tag, QOSA_SEM_TAG_DESTROYED);
    EXPECT_EQ(QOSA_SemPost(s), -1) << "a destroyed named record is refused";
    EXPECT_EQ(QOSA_SemTryWait(s), -1);

    EXPECT_EQ(QOSA_SemClose(again), 0);
    EXPECT_EQ(QOSA_SemClose(s), 0);
    EXPECT_EQ(QOSA_SemUnLink(name.c_str()), 0);
    EXPECT_EQ(QOSA_SemUnLink(name.c_str()), -1);
    EXPECT_EQ(QOSA_SemUnLink(""), -1);

    QOSA_SEM_S unnamed{};
    QOSA_SemInit(&unnamed, 0, 0);
    EXPECT_EQ(QOSA_SemClose(&unnamed), -1) << "an unnamed record holds nothing to close";
    QOSA_SemDestroy(&unnamed);
    EXPECT_EQ(QOSA_SemClose(&unnamed), -1) << "nor does a destroyed one";
}

TEST(Sem, SystemVSet) {
    s32 id = QOSA_SemGet(IPC_PRIVATE, 2, IPC_CREAT | 0600);
    ASSERT_GE(id, 0) << errno;
    QOSA_SEMUN_U arg{};
    arg.val = 3;
    EXPECT_EQ(QOSA_SemCtl(id, 1, SETVAL, arg), 0);
    EXPECT_EQ(QOSA_SemCtl(id, 1, GETVAL, arg), 3);
    sembuf ops[2] = {{1, -2, IPC_NOWAIT}, {0, 1, 0}};
    EXPECT_EQ(QOSA_SemOp(id, ops, 2), 0);
    EXPECT_EQ(QOSA_SemCtl(id, 1, GETVAL, arg), 1);
    EXPECT_EQ(QOSA_SemCtl(id, 0, GETVAL, arg), 1);
    sembuf tooMuch{1, -2, IPC_NOWAIT};
    EXPECT_EQ(QOSA_SemOp(id, &tooMuch, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(QOSA_SemCtl(id, 0, IPC_RMID, arg), 0);
    EXPECT_EQ(QOSA_SemCtl(id, 0, GETVAL, arg), -1);
}
