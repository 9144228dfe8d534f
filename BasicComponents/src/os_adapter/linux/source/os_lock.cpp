// The library's mutex and the pass-through read-write locks.
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "internal/common.h"
#include "internal/lock.h"
#include "qosa_lock.h"

static_assert(offsetof(QosaMutex, mutex) == 0, "the platform mutex comes first");
static_assert(offsetof(QosaMutex, ulMagic1) == sizeof(pthread_mutex_t), "marker words follow the platform mutex");
static_assert(offsetof(QosaMutex, ulMagic2) == offsetof(QosaMutex, ulMagic1) + 4);
static_assert(offsetof(QosaMutex, ulMagic1) % 8 == 0 && alignof(QosaMutex) >= 8,
              "the marker pair is read and written as one aligned 64-bit word");
static_assert(sizeof(QosaMutex) == sizeof(pthread_mutex_t) + 8);

namespace {

// The two marker words as one 64-bit value, in memory order.
constexpr std::uint64_t pair(std::uint32_t first, std::uint32_t second) {
    if constexpr (std::endian::native == std::endian::little) return (std::uint64_t{second} << 32) | first;
    return (std::uint64_t{first} << 32) | second;
}
constexpr std::uint64_t kStatic = pair(QOSA_MUTEX_MAGIC1, QOSA_MUTEX_MAGIC2);
constexpr std::uint64_t kLive = ~std::uint64_t{0};

std::uint64_t* markers(QosaMutex* m) { return reinterpret_cast<std::uint64_t*>(&m->ulMagic1); }

// First-lock initialisation of statically initialised mutexes: the marker
// test and the init run under one of a few striped locks, so racing first
// lockers initialise a mutex exactly once. Mutexes already live take the
// lock-free fast path (one acquire load).
pthread_mutex_t s_initStripes[16] = {
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
};

[[gnu::noinline, gnu::cold]] int init_static(QosaMutex* m) {
    auto stripe = (reinterpret_cast<std::uintptr_t>(m) >> 6) % std::size(s_initStripes);
    pthread_mutex_lock(&s_initStripes[stripe]);
    int ret = 0;
    if (__atomic_load_n(markers(m), __ATOMIC_RELAXED) == kStatic) {
        // GCOVR_EXCL_BR_START: glibc initialises a mutex of default attributes without fail
        if (pthread_mutex_init(&m->mutex, nullptr) != 0)
            ret = -1; // GCOVR_EXCL_LINE: as above; the markers stay, the next lock tries again
        // GCOVR_EXCL_BR_STOP
        else
            __atomic_store_n(markers(m), kLive, __ATOMIC_RELEASE);
    }
    pthread_mutex_unlock(&s_initStripes[stripe]);
    return ret;
}

// 0 once m is live: one acquire load when it is (the path every lock but
// the first takes, inlined so that the lock goes straight on to the
// platform's), else the first-lock initialisation.
inline int bring_to_life(QosaMutex* m) {
    return __atomic_load_n(markers(m), __ATOMIC_ACQUIRE) != kStatic ? 0 : init_static(m);
}

} // namespace

namespace qosa::lock {

int init(QosaMutex* m, const pthread_mutexattr_t* attr) {
    return guarded(-1, need(m), [=] { return pthread_mutex_init(&m->mutex, attr); });
}

int destroy(QosaMutex* m) {
    return guarded(-1, need(m), [=] { return pthread_mutex_destroy(&m->mutex) == 0 ? 0 : -1; });
}

// GCOVR_EXCL_BR_START: bring_to_life fails only where the platform's mutex init can
int lock(QosaMutex* m) {
    return guarded(-1, need(m), [=] { return bring_to_life(m) != 0 ? -1 : pthread_mutex_lock(&m->mutex); });
}
// GCOVR_EXCL_BR_STOP

int unlock(QosaMutex* m) {
    return guarded(-1, need(m), [=] { return pthread_mutex_unlock(&m->mutex); });
}

} // namespace qosa::lock

extern "C" {

int QOSA_MutexInit(QosaMutex* m, const pthread_mutexattr_t* attr) { return qosa::lock::init(m, attr); }

int QOSA_MutexInitRecursive(QosaMutex* m) {
    pthread_mutexattr_t attr;
    // GCOVR_EXCL_BR_START: glibc sets up mutex attributes of a valid type without fail
    if (pthread_mutexattr_init(&attr) != 0) return -1;
    if (pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) != 0) return -1;
    // GCOVR_EXCL_BR_STOP
    return guarded(-1, need(m), [&] { return pthread_mutex_init(&m->mutex, &attr); });
}

int QOSA_MutexDestroy(QosaMutex* m) { return qosa::lock::destroy(m); }
int QOSA_MutexLock(QosaMutex* m) { return qosa::lock::lock(m); }

// GCOVR_EXCL_BR_START: bring_to_life fails only where the platform's mutex init can
int QOSA_MutexTryLock(QosaMutex* m) {
    return guarded(-1, need(m), [=] { return bring_to_life(m) != 0 ? -1 : pthread_mutex_trylock(&m->mutex); });
}
// GCOVR_EXCL_BR_STOP

int QOSA_MutexUnLock(QosaMutex* m) { return qosa::lock::unlock(m); }

int ORV_Pthread_RWLock_Init(pthread_rwlock_t* rwlock, const pthread_rwlockattr_t* attr) {
    return pthread_rwlock_init(rwlock, attr);
}
int ORV_Pthread_RWLock_Destroy(pthread_rwlock_t* rwlock) { return pthread_rwlock_destroy(rwlock); }
int ORV_Pthread_RWLock_RDLock(pthread_rwlock_t* rwlock) { return pthread_rwlock_rdlock(rwlock); }
int ORV_Pthread_RWLock_TryRDLock(pthread_rwlock_t* rwlock) { return pthread_rwlock_tryrdlock(rwlock); }
int ORV_Pthread_RWLock_WRLock(pthread_rwlock_t* rwlock) { return pthread_rwlock_wrlock(rwlock); }
int ORV_Pthread_RWLock_TryWRLock(pthread_rwlock_t* rwlock) { return pthread_rwlock_trywrlock(rwlock); }
int ORV_Pthread_RWLock_UnLock(pthread_rwlock_t* rwlock) { return pthread_rwlock_unlock(rwlock); }

} // extern "C"
