// The library's mutex and the read-write lock pass-throughs.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "qosa_lock.h"
#include "support.h"

namespace {
int try_elsewhere(QosaMutex* m) {
    int r = -2;
    std::thread([&] {
        r = QOSA_MutexTryLock(m);
        if (r == 0) QOSA_MutexUnLock(m);
    }).join();
    return r;
}
} // namespace

TEST(Mutex, StaticInitializerComesToLifeOnFirstLockOnly) {
    QosaMutex m = QOSA_MUTEX_INITIALIZER, t = QOSA_MUTEX_INITIALIZER, e{{}, 1, 2};
    ASSERT_EQ(QOSA_MutexLock(&m), 0);
    EXPECT_TRUE(m.ulMagic1 == 0xFFFFFFFFu && m.ulMagic2 == 0xFFFFFFFFu) << "marked live, never set up again";
    EXPECT_EQ(try_elsewhere(&m), EBUSY);
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
    EXPECT_EQ(QOSA_MutexTryLock(&t), 0) << "a try-lock also brings it to life";
    EXPECT_EQ(t.ulMagic1, 0xFFFFFFFFu);
    EXPECT_EQ(QOSA_MutexUnLock(&t), 0);
    ASSERT_EQ(QOSA_MutexInit(&e, nullptr), 0);
    ASSERT_EQ(QOSA_MutexLock(&e), 0);
    EXPECT_TRUE(e.ulMagic1 == 1 && e.ulMagic2 == 2) << "only the static markers call for a set-up";
    EXPECT_EQ(QOSA_MutexUnLock(&e), 0);
}

TEST(Mutex, RacingFirstLockersInitialiseOnce) {
    // A double set-up would let two threads into the critical section (and TSan see the race).
    for (int round = 0; round < 200; ++round) {
        QosaMutex m = QOSA_MUTEX_INITIALIZER;
        std::atomic<int> inside{0}, clashes{0}, go{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                while (!go.load()) {
                }
                for (int i = 0; i < 50; ++i) {
                    EXPECT_EQ(QOSA_MutexLock(&m), 0);
                    if (++inside != 1) ++clashes;
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

TEST(Mutex, RecursiveNeedsAsManyUnlocksAndALockedOneIsNotDestroyed) {
    QosaMutex m{};
    ASSERT_EQ(QOSA_MutexInitRecursive(&m), 0);
    ASSERT_EQ(QOSA_MutexLock(&m), 0);
    ASSERT_EQ(QOSA_MutexLock(&m), 0);
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
    EXPECT_EQ(try_elsewhere(&m), EBUSY) << "still held after one unlock";
    if (!qosa_test::kUnderTsan) { // TSan reports the destroy itself
        EXPECT_EQ(QOSA_MutexDestroy(&m), -1) << "the platform's EBUSY is folded into -1";
    }
    EXPECT_EQ(QOSA_MutexUnLock(&m), 0);
    EXPECT_EQ(try_elsewhere(&m), 0);
    EXPECT_EQ(QOSA_MutexDestroy(&m), 0);
}

TEST(RWLock, PassesThrough) {
    pthread_rwlock_t rw;
    ASSERT_EQ(ORV_Pthread_RWLock_Init(&rw, nullptr), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_RDLock(&rw), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_TryRDLock(&rw), 0) << "readers share";
    EXPECT_EQ(ORV_Pthread_RWLock_TryWRLock(&rw), EBUSY);
    EXPECT_EQ(ORV_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_WRLock(&rw), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_TryRDLock(&rw), EBUSY) << "a writer excludes readers";
    EXPECT_EQ(ORV_Pthread_RWLock_UnLock(&rw), 0);
    EXPECT_EQ(ORV_Pthread_RWLock_Destroy(&rw), 0);
}
