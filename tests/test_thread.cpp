// The library's mutex, timed condition waits, thread handles, sleeps.

#include <sched.h>
#include <sys/resource.h>

#include "internal/clock.h"
#include "support.h"

namespace {
using qosa_test::Clock;
using qosa_test::ms_since;
int try_elsewhere(QosaMutex* m) {
    int r = -2;
    std::thread([&] {
        r = QOSA_MutexTryLock(m);
        if (r == 0) QOSA_MutexUnLock(m);
    }).join();
    return r;
}
// Its argument back when every name gives the calling thread's own handle.
void* same_self(void* arg) {
    pthread_t self = pthread_self(), copied = 0;
    bool same = QOSA_PthreadSelf() == self && orv_PthreadSelf() == self && ORV_GetPthreadSelf(&copied) == self;
    return same && copied == self && ORV_GetPthreadSelf(nullptr) == self ? arg : nullptr;
}
} // namespace

TEST(QOSA_MutexLock, StaticInitializerComesToLifeOnFirstLockOnly) {
    QosaMutex m = QOSA_MUTEX_INITIALIZER, t = QOSA_MUTEX_INITIALIZER, e{{}, 1, 2};
    ASSERT_EQ(QOSA_MutexLock(&m), 0);
    EXPECT_TRUE(m.ulMagic1 == 0xFFFFFFFFu && m.ulMagic2 == 0xFFFFFFFFu) << "marked live, never set up again";
    EXPECT_EQ(try_elsewhere(&m), EBUSY);
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
    EXPECT_TRUE(QOSA_MutexTryLock(&t) == 0 && t.ulMagic1 == 0xFFFFFFFFu) << "a try-lock also brings it to life";
    EXPECT_EQ(QOSA_MutexUnLock(&t), 0);
    ASSERT_TRUE(QOSA_MutexInit(&e, nullptr) == 0 && QOSA_MutexLock(&e) == 0);
    EXPECT_TRUE(e.ulMagic1 == 1 && e.ulMagic2 == 2) << "only the static markers call for a set-up";
    EXPECT_EQ(QOSA_MutexUnLock(&e), 0);
}

TEST(QOSA_MutexLock, RacingFirstLockersInitialiseOnce) {
    // A double set-up would let two threads into the critical section (and TSan see the race).
    for (int round = 0; round < 200; ++round) {
        QosaMutex m = QOSA_MUTEX_INITIALIZER;
        std::atomic<int> inside{0}, clashes{0}, go{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                while (!go.load())
                    std::this_thread::yield();
                for (int i = 0; i < 50; ++i) {
                    EXPECT_EQ(QOSA_MutexLock(&m), 0);
                    clashes += ++inside != 1;
                    --inside;
                    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
                }
            });
        go = 1;
        for (auto& th : threads)
            th.join();
        ASSERT_EQ(clashes.load(), 0);
    }
}

TEST(QOSA_MutexInitRecursive, NeedsAsManyUnlocksAndALockedOneIsNotDestroyed) {
    QosaMutex m{};
    ASSERT_TRUE(QOSA_MutexInitRecursive(&m) == 0 && QOSA_MutexLock(&m) == 0 && QOSA_MutexLock(&m) == 0);
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
    EXPECT_EQ(try_elsewhere(&m), EBUSY) << "still held after one unlock";
    // TSan reports the destroy itself.
    EXPECT_EQ(qosa_test::kUnderTsan ? -1 : QOSA_MutexDestroy(&m), -1) << "the platform's EBUSY is folded into -1";
    EXPECT_TRUE(QOSA_MutexUnLock(&m) == 0 && try_elsewhere(&m) == 0 && QOSA_MutexDestroy(&m) == 0);
}

TEST(QOSA_PthreadCondTimedWait, DeadlinesCarryAndSaturate) {
    auto expect_at = [](timespec at, long sec, long nsec) {
        EXPECT_TRUE(at.tv_sec == sec && at.tv_nsec == nsec) << at.tv_sec << '.' << at.tv_nsec;
    };
    using qosa::clock::after;
    expect_at(after({1000, 600000000}, 1500000000), 1002, 100000000);
    expect_at(after({1000, 500000000}, 500000000), 1001, 0);
    expect_at(after({50, 999999999}, std::int64_t{UINT32_MAX} * 1000), 50 + 4294 + 1, 967294999);
    bool forever = false;
    after({1000, 0}, INT64_MAX - 999, &forever);
    EXPECT_TRUE(forever) << "a sum past the count is no limit";
}

TEST(QOSA_PthreadCondTimedWait, TimeoutsAndSignalsOnEitherClock) {
    constexpr double kTimeoutMs = 150;
    for (bool monotonic : {false, true}) {
        SCOPED_TRACE(monotonic ? "monotonic" : "wall clock");
        pthread_condattr_t attr;
        pthread_cond_t cond{};
        QosaMutex m{};
        ASSERT_EQ(QOSA_PthreadCondInitAttr(&attr), 0);
        EXPECT_EQ(monotonic ? QOSA_PthreadCondAttr_SetClockMonotic(&attr) : 0, 0);
        ASSERT_EQ(QOSA_PthreadCondInit(&cond, &attr), 0);
        QOSA_PthreadCondAttr_Destroy(&attr);
        ASSERT_TRUE(QOSA_MutexInit(&m, nullptr) == 0 && QOSA_MutexLock(&m) == 0);
        auto wait = [&](s32 us) {
            return monotonic ? QOSA_PthreadCondTimedWait_Clock(&cond, &m.mutex, us)
                             : QOSA_PthreadCondTimedWait(&cond, &m.mutex, us);
        };
        auto t0 = Clock::now();
        EXPECT_EQ(wait(s32(kTimeoutMs * 1000)), ETIMEDOUT);
        // The wall deadline is read at microsecond resolution on a clock that may be slewed.
        EXPECT_GE(ms_since(t0), monotonic ? kTimeoutMs - 0.001 : kTimeoutMs - 1);
        EXPECT_LT(ms_since(t0), 10 * kTimeoutMs);
        EXPECT_EQ(QOSA_MutexTryLock(&m), EBUSY) << "the mutex is held again on return";

        // The signaller gets the mutex only once the wait has released it.
        bool ready = false;
        std::thread signaller([&] {
            QOSA_MutexLock(&m);
            ready = true;
            EXPECT_EQ(QOSA_PthreadCondSignal(&cond), 0);
            QOSA_MutexUnLock(&m);
        });
        s32 r = 0;
        do
            r = wait(10000000);
        while (r == 0 && !ready);
        QOSA_MutexUnLock(&m);
        signaller.join();
        EXPECT_EQ(r, 0) << "a signalled wait returns 0";
        EXPECT_EQ(QOSA_PthreadCondDestroy(&cond), 0);
    }
    EXPECT_EQ(QOSA_PthreadCondAttr_SetClockMonotic(nullptr), 0) << "nothing to set is no failure";
}

// The id is only a label; the new thread sees its own handle under every name.
TEST(QOSA_PthreadCreateID, HandleNamesGiveTheCallingThreadsOwn) {
    pthread_t t{};
    int token = 0;
    void* ret = nullptr;
    ASSERT_TRUE(QOSA_PthreadCreateID(&t, 1234, nullptr, same_self, &token) == 0 && QOSA_PthreadJoin(t, &ret) == 0);
    EXPECT_EQ(ret, &token) << "a handle name gave another thread's handle";
}

// Each pass-through in a state where a call forwarded to the wrong platform call, or a result folded the wrong
// way, answers differently.
TEST(ORV_Pthread_RWLock, PassThroughsReachTheirOwnCalls) {
    using R = std::vector<long>;
    pthread_rwlock_t rw;
    EXPECT_EQ(R({ORV_Pthread_RWLock_Init(&rw, nullptr), ORV_Pthread_RWLock_RDLock(&rw),
                 ORV_Pthread_RWLock_TryRDLock(&rw), ORV_Pthread_RWLock_TryWRLock(&rw), ORV_Pthread_RWLock_UnLock(&rw),
                 ORV_Pthread_RWLock_UnLock(&rw), ORV_Pthread_RWLock_WRLock(&rw), ORV_Pthread_RWLock_TryRDLock(&rw),
                 ORV_Pthread_RWLock_UnLock(&rw), ORV_Pthread_RWLock_Destroy(&rw)}),
              R({0, 0, 0, EBUSY, 0, 0, 0, EBUSY, 0, 0}));
    const int nice = getpriority(PRIO_PROCESS, 0);
    EXPECT_EQ(R({QOSA_GetPriority(PRIO_PROCESS, 0), ORV_GetPriority(PRIO_PGRP, 0),
                 QOSA_SetPriority(PRIO_PROCESS, 0, nice), ORV_SetPriority(PRIO_PROCESS, -1, nice),
                 QOSA_SchedGetPriorityMax(SCHED_FIFO), QOSA_SchedGetPriorityMin(SCHED_RR)}),
              R({nice, getpriority(PRIO_PGRP, 0), 0, -1, sched_get_priority_max(SCHED_FIFO),
                 sched_get_priority_min(SCHED_RR)}));
    pthread_attr_t attr;
    size_t stack = 0;
    const sched_param param{0};
    pthread_t t{};
    EXPECT_EQ(R({QOSA_PthreadAttrInit(&attr), QOSA_PthreadAttrSetStacksize(&attr, 1u << 20),
                 QOSA_PthreadAttrGetStacksize(&attr, &stack), long(stack), QOSA_PthreadAttrSetSchedparam(&attr, &param),
                 QOSA_PthreadCreate(&t, &attr, same_self, nullptr), QOSA_PthreadDetach(t),
                 QOSA_PthreadAttrDestroy(&attr), QOSA_PthreadSetName("qosa-named")}),
              R({0, 0, 0, 1 << 20, 0, 0, 0, 0, 0}));
}

TEST(QOSA_SleepMs, MillisecondsWrapIn32Bits) {
    auto t0 = Clock::now();
    EXPECT_EQ(QOSA_SleepMs(4294968), 0); // 704 us once the product wraps
    EXPECT_TRUE(ms_since(t0) >= 0.704 && ms_since(t0) < 1000) << ms_since(t0);
    t0 = Clock::now();
    EXPECT_EQ(QOSA_USleep(3000), 0);
    EXPECT_GE(ms_since(t0), 3);
}
