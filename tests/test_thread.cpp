// Timed condition waits, thread handles, attributes and sleeps.
#include <gtest/gtest.h>

#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

#include "qosa_lock.h"
#include "qosa_thread.h"

namespace qosa::thread {
timespec wall_deadline(const timeval& now, s32 timeoutUs);
timespec mono_deadline(const timespec& now, u32 timeoutUs);
} // namespace qosa::thread

namespace {
using Clock = std::chrono::steady_clock;
std::int64_t us_since(Clock::time_point t0) {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0).count();
}
} // namespace

TEST(CondWait, DeadlinesAreNormalised) {
    using namespace qosa::thread;
    auto expect_at = [](timespec at, long sec, long nsec) {
        EXPECT_TRUE(at.tv_sec == sec && at.tv_nsec == nsec) << at.tv_sec << '.' << at.tv_nsec;
    };
    expect_at(wall_deadline({1000, 600000}, 1500000), 1002, 100000000);
    expect_at(wall_deadline({1000, 500000}, 500000), 1001, 0);
    expect_at(wall_deadline({1000, 999999}, 999999), 1001, 999998000);
    expect_at(wall_deadline({1000, 0}, INT32_MAX), 1000 + 2147, 483647000);
    // The monotonic clock's nanoseconds are cut to whole microseconds.
    expect_at(mono_deadline({50, 600000999}, 1500000), 52, 100000000);
    expect_at(mono_deadline({50, 500000000}, 500000), 51, 0);
    expect_at(mono_deadline({50, 999999999}, UINT32_MAX), 50 + 4294 + 1, 967294000);
}

TEST(CondWait, TimeoutsAndSignalsOnEitherClock) {
    constexpr std::int64_t kTimeoutUs = 150000;
    for (bool monotonic : {false, true}) {
        SCOPED_TRACE(monotonic ? "monotonic" : "wall clock");
        pthread_condattr_t attr;
        pthread_cond_t cond{};
        QosaMutex m{};
        ASSERT_EQ(QOSA_PthreadCondInitAttr(&attr), 0);
        if (monotonic) {
            ASSERT_EQ(QOSA_PthreadCondAttr_SetClockMonotic(&attr), 0);
        }
        ASSERT_EQ(QOSA_PthreadCondInit(&cond, &attr), 0);
        QOSA_PthreadCondAttr_Destroy(&attr);
        QOSA_MutexInit(&m, nullptr);
        auto wait = [&](s32 us) {
            return monotonic ? QOSA_PthreadCondTimedWait_Clock(&cond, &m.mutex, us)
                             : QOSA_PthreadCondTimedWait(&cond, &m.mutex, us);
        };

        ASSERT_EQ(QOSA_MutexLock(&m), 0);
        auto t0 = Clock::now();
        EXPECT_EQ(QOSA_PthreadCondTimedWait(&cond, &m.mutex, 0), -1);
        EXPECT_EQ(QOSA_PthreadCondTimedWait(&cond, &m.mutex, -5), -1);
        EXPECT_EQ(QOSA_PthreadCondTimedWait_Clock(&cond, &m.mutex, 0), -1);
        EXPECT_LT(us_since(t0), 50000) << "no timeout, no wait";
        t0 = Clock::now();
        EXPECT_EQ(wait(kTimeoutUs), ETIMEDOUT);
        // The wall deadline is read at microsecond resolution on a clock that may be slewed.
        EXPECT_GE(us_since(t0), monotonic ? kTimeoutUs - 1 : kTimeoutUs - 1000);
        EXPECT_LT(us_since(t0), 10 * kTimeoutUs);
        EXPECT_EQ(QOSA_MutexTryLock(&m), EBUSY) << "the mutex is held again on return";
        QOSA_MutexUnLock(&m);

        bool ready = false;
        s32 r = -2;
        std::thread waiter([&] {
            QOSA_MutexLock(&m);
            do
                r = wait(10000000);
            while (r == 0 && !ready);
            QOSA_MutexUnLock(&m);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        QOSA_MutexLock(&m);
        ready = true;
        EXPECT_EQ(QOSA_PthreadCondSignal(&cond), 0);
        QOSA_MutexUnLock(&m);
        waiter.join();
        EXPECT_EQ(r, 0) << "a signalled wait returns 0";
        EXPECT_EQ(QOSA_PthreadCondDestroy(&cond), 0);
        QOSA_MutexDestroy(&m);
    }
}

TEST(Thread, HandlesJoinNamesAndUnguardedNulls) {
    pthread_t t{};
    int token = 0;
    void* ret = nullptr;
    ASSERT_EQ(QOSA_PthreadCreateID(
                  &t, 1234, nullptr, [](void* a) { return a; }, &token),
              0);
    ASSERT_EQ(QOSA_PthreadJoin(t, &ret), 0);
    EXPECT_EQ(ret, &token);

    // Every name gives the calling thread's own handle.
    pthread_t seen[4] = {}, copied = 0;
    char name[32] = {};
    s32 ok = -1, tooLong = -1;
    std::thread([&] {
        seen[0] = pthread_self();
        seen[1] = QOSA_PthreadSelf();
        seen[2] = orv_PthreadSelf();
        seen[3] = ORV_GetPthreadSelf(&copied);
        ok = QOSA_PthreadSetName("qosa-worker");
        pthread_getname_np(pthread_self(), name, sizeof name);
        tooLong = QOSA_PthreadSetName("sixteen-chars-ab");
    }).join();
    for (pthread_t h : {seen[1], seen[2], seen[3], copied})
        EXPECT_EQ(h, seen[0]);
    EXPECT_EQ(ORV_GetPthreadSelf(nullptr), pthread_self());
    EXPECT_NE(QOSA_PthreadSelf(), seen[0]);
    EXPECT_EQ(ok, 0);
    EXPECT_STREQ(name, "qosa-worker");
    EXPECT_EQ(tooLong, ERANGE);

    // Nulls the platform would fault on are invalid arguments, not refusals.
    pthread_attr_t attr;
    ASSERT_EQ(QOSA_PthreadAttrInit(&attr), 0);
    EXPECT_EQ(QOSA_PthreadAttrSetSchedparam(&attr, nullptr), EINVAL);
    EXPECT_EQ(QOSA_PthreadCondInitAttr(nullptr), EINVAL);
    EXPECT_EQ(QOSA_PthreadSetName(nullptr), EINVAL);
    EXPECT_EQ(QOSA_PthreadCreate(&t, nullptr, nullptr, nullptr), EINVAL);
    EXPECT_EQ(QOSA_PthreadAttrDestroy(&attr), 0);
}

TEST(Sleep, MillisecondsWrapIn32Bits) {
    auto t0 = Clock::now();
    EXPECT_EQ(QOSA_SleepMs(30), 0);
    EXPECT_GE(us_since(t0), 30000);
    t0 = Clock::now();
    EXPECT_EQ(QOSA_SleepMs(4294968), 0); // 704 us once the product wraps
    EXPECT_GE(us_since(t0), 704);
    EXPECT_LT(us_since(t0), 1000000);
    EXPECT_EQ(QOSA_Sleep(0), 0u);
}
