// The library's mutex and the read-write lock pass-throughs.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "qosa_lock.h"
#include "sanitizers.h"

TEST(Mutex, StaticInitializerComesToLifeOnFirstLock) {
    QosaMutex m = QOSA_MUTEX_INITIALIZER;
    static const pthread_mutex_t zero{};
    EXPECT_EQ(std::memcmp(&m.mutex, &zero, sizeof zero), 0) << "the platform mutex starts all zero";
    EXPECT_EQ(m.ulMagic1, 0xABBABEEFu);
    EXPECT_EQ(m.ulMagic2, 0xCDDCCDCFu);
    ASSERT_EQ(QOSA_MutexLock(&m), 0);
    EXPECT_EQ(m.ulMagic1, 0xFFFFFFFFu);
    EXPECT_EQ(m.ulMagic2, 0xFFFFFFFFu);
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
    EXPECT_EQ(QOSA_MutexTryLock(&m), 0);
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);

    QosaMutex t = QOSA_MUTEX_INITIALIZER;
    EXPECT_EQ(QOSA_MutexTryLock(&t), 0) << "a try-lock also brings it to life";
    EXPECT_EQ(t.ulMagic1, 0xFFFFFFFFu);
    EXPECT_EQ(QOSA_MutexUnLock(&t), 0);
}

TEST(Mutex, RacingFirstLockersInitialiseOnce) {
    // Many rounds of a fresh static mutex taken by several threads at once;
    // a double initialisation would let two threads into the critical
    // section (and TSan would see the init race).
    for (int round = 0; round < 200; ++round) {
        QosaMutex m = QOSA_MUTEX_INITIALIZER;
        std::atomic<int> inside{0}, maxInside{0}, go{0};
        int counter = 0;
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                while (!go.load()) {
                }
                for (int i = 0; i < 50; ++i) {
                    ASSERT_EQ(QOSA_MutexLock(&m), 0);
                    int now = ++inside;
                    if (now > maxInside) maxInside = now;
                    ++counter;
                    --inside;
                    ASSERT_EQ(QOSA_MutexUnLock(&m), 0);
                }
            });
        go = 1;
        for (auto& th : threads)
            th.join();
        ASSERT_EQ(maxInside.load(), 1);
        ASSERT_EQ(counter, 200);
    }
}

TEST(Mutex, TryLockOnAMutexHeldElsewhereIsBusy) {
    QosaMutex m{};
    ASSERT_EQ(QOSA_MutexInit(&m, nullptr), 0);
    ASSERT_EQ(QOSA_MutexLock(&m), 0);
    int r = 0;
    std::thread([&] { r = QOSA_MutexTryLock(&m); }).join();
    EXPECT_EQ(r, EBUSY);
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
    EXPECT_EQ(QOSA_MutexDestroy(&m), 0);
}

TEST(Mutex, DestroyingALockedMutexGivesMinusOne) {
    if (qosa_test::kUnderTsan) GTEST_SKIP() << "TSan reports the destroy itself";
    QosaMutex m{};
    ASSERT_EQ(QOSA_MutexInit(&m, nullptr), 0);
    ASSERT_EQ(QOSA_MutexLock(&m), 0);
    EXPECT_EQ(QOSA_MutexDestroy(&m), -1) << "the platform's EBUSY is folded into -1";
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
    EXPECT_EQ(QOSA_MutexDestroy(&m), 0);
}

TEST(Mutex, RecursiveNeedsAsManyUnlocks) {
    QosaMutex m{};
    ASSERT_EQ(QOSA_MutexInitRecursive(&m), 0);
    ASSERT_EQ(QOSA_MutexLock(&m), 0);
    ASSERT_EQ(QOSA_MutexLock(&m), 0);
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
    int r = 0;
    std::thread([&] { r = QOSA_MutexTryLock(&m); }).join();
    EXPECT_EQ(r, EBUSY) << "still held after one unlock";
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
    std::thread([&] {
        r = QOSA_MutexTryLock(&m);
        if (r == 0) QOSA_MutexUnLock(&m);
    }).join();
    EXPECT_EQ(r, 0);
    EXPECT_EQ(QOSA_MutexDestroy(&m), 0);
}

TEST(Mutex, ExplicitInitLeavesMarkersAlone) {
    QosaMutex m{};
    m.ulMagic1 = 1;
    m.ulMagic2 = 2;
    ASSERT_EQ(QOSA_MutexInit(&m, nullptr), 0);
    ASSERT_EQ(QOSA_MutexLock(&m), 0);
    EXPECT_EQ(m.ulMagic1, 1u);
    EXPECT_EQ(m.ulMagic2, 2u);
    QOSA_MutexUnLock(&m);
    QOSA_MutexDestroy(&m);
}

TEST(RWLock, PassesThrough) {
    pthread_rwlock_t rw;
    ASSERT_EQ(ORV_Pthread_RWLock_Init(&rw, nullptr), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_RDLock(&rw), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_TryRDLock(&rw), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_TryWRLock(&rw), EBUSY);
    EXPECT_EQ(ORV_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_WRLock(&rw), 0);
    int r = 0;
    std::thread([&] { r = ORV_Pthread_RWLock_TryRDLock(&rw); }).join();
    EXPECT_EQ(r, EBUSY);
    EXPECT_EQ(ORV_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_Destroy(&rw), 0);
}
