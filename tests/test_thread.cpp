// Timed condition waits, thread creation and handles, sleeps.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

#include "internal/clock.h"
#include "qosa_lock.h"
#include "qosa_thread.h"

namespace {
using Clock = std::chrono::steady_clock;
std::int64_t us_since(Clock::time_point t0) {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0).count();
}
// Its argument back when every name gives the calling thread's own handle.
void* same_self(void* arg) {
    pthread_t self = pthread_self(), copied = 0;
    bool same = QOSA_PthreadSelf() == self && orv_PthreadSelf() == self && ORV_GetPthreadSelf(&copied) == self;
    return same && copied == self && ORV_GetPthreadSelf(nullptr) == self ? arg : nullptr;
}
} // namespace

TEST(CondWait, DeadlinesCarryAndSaturate) {
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

TEST(CondWait, TimeoutsAndSignalsOnEitherClock) {
    constexpr std::int64_t kTimeoutUs = 150000;
    for (bool monotonic : {false, true}) {
        SCOPED_TRACE(monotonic ? "monotonic" : "wall clock");
        pthread_condattr_t attr;
        pthread_cond_t cond{};
        QosaMutex m{};
        ASSERT_EQ(QOSA_PthreadCondInitAttr(&attr), 0);
        if (monotonic) QOSA_PthreadCondAttr_SetClockMonotic(&attr);
        ASSERT_EQ(QOSA_PthreadCondInit(&cond, &attr), 0);
        QOSA_PthreadCondAttr_Destroy(&attr);
        ASSERT_EQ(QOSA_MutexInit(&m, nullptr), 0);
        auto wait = [&](s32 us) {
            return monotonic ? QOSA_PthreadCondTimedWait_Clock(&cond, &m.mutex, us)
                             : QOSA_PthreadCondTimedWait(&cond, &m.mutex, us);
        };

        ASSERT_EQ(QOSA_MutexLock(&m), 0);
        auto t0 = Clock::now();
        EXPECT_EQ(wait(kTimeoutUs), ETIMEDOUT);
        // The wall deadline is read at microsecond resolution on a clock that may be slewed.
        EXPECT_GE(us_since(t0), monotonic ? kTimeoutUs - 1 : kTimeoutUs - 1000);
        EXPECT_LT(us_since(t0), 10 * kTimeoutUs);
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
}

TEST(Thread, CreateWithAttributesJoinAndSelf) {
    pthread_attr_t attr;
    size_t stack = 0;
    ASSERT_EQ(QOSA_PthreadAttrInit(&attr), 0);
    ASSERT_EQ(QOSA_PthreadAttrSetStacksize(&attr, 1u << 20), 0);
    EXPECT_EQ(QOSA_PthreadAttrGetStacksize(&attr, &stack), 0);
    EXPECT_EQ(stack, 1u << 20);
    const sched_param param{0};
    EXPECT_EQ(QOSA_PthreadAttrSetSchedparam(&attr, &param), 0);
    pthread_t t{};
    int token = 0;
    void* ret = nullptr;
    ASSERT_EQ(QOSA_PthreadCreateID(&t, 1234, &attr, same_self, &token), 0);
    ASSERT_EQ(QOSA_PthreadJoin(t, &ret), 0);
    EXPECT_EQ(ret, &token) << "a handle name gave another thread's handle";
    ASSERT_EQ(QOSA_PthreadCreate(&t, &attr, same_self, &token), 0);
    EXPECT_EQ(QOSA_PthreadDetach(t), 0);
    EXPECT_EQ(QOSA_PthreadAttrDestroy(&attr), 0);
    EXPECT_EQ(QOSA_PthreadSetName("qosa-named"), 0);
    EXPECT_EQ(QOSA_PthreadCondAttr_SetClockMonotic(nullptr), 0);
}

TEST(Priority, PassesThrough) {
    const int nice = getpriority(PRIO_PROCESS, 0);
    EXPECT_EQ(QOSA_GetPriority(PRIO_PROCESS, 0), nice);
    EXPECT_EQ(ORV_GetPriority(PRIO_PGRP, 0), getpriority(PRIO_PGRP, 0));
    EXPECT_EQ(QOSA_SetPriority(PRIO_PROCESS, 0, nice), 0);
    EXPECT_EQ(ORV_SetPriority(PRIO_PROCESS, -1, nice), -1) << "no such process";
    EXPECT_EQ(QOSA_SchedGetPriorityMax(SCHED_FIFO), sched_get_priority_max(SCHED_FIFO));
    EXPECT_EQ(QOSA_SchedGetPriorityMin(SCHED_RR), sched_get_priority_min(SCHED_RR));
}

TEST(Sleep, MillisecondsWrapIn32Bits) {
    auto t0 = Clock::now();
    EXPECT_EQ(QOSA_SleepMs(4294968), 0); // 704 us once the product wraps
    EXPECT_GE(us_since(t0), 704);
    EXPECT_LT(us_since(t0), 1000000);
    t0 = Clock::now();
    EXPECT_EQ(QOSA_USleep(3000), 0);
    EXPECT_GE(us_since(t0), 3000);
}
