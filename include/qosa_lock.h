/** @file
 * The library's mutex and pass-through read-write locks. */
#ifndef QOSA_LOCK_H
#define QOSA_LOCK_H

#include <pthread.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/** A platform mutex followed by two marker words. A mutex holding
 * QOSA_MUTEX_INITIALIZER is brought to life by its first lock or try-lock
 * (once, also when threads race to it); the markers then read all ones. The
 * caller owns the storage. */
typedef struct QosaMutex {
    pthread_mutex_t mutex; /**< the platform mutex (for condition waits: &m.mutex) */
    u32 ulMagic1;          /**< QOSA_MUTEX_MAGIC1 until brought to life, then 0xFFFFFFFF */
    u32 ulMagic2;          /**< QOSA_MUTEX_MAGIC2 until brought to life, then 0xFFFFFFFF */
} QosaMutex;

#define QOSA_MUTEX_MAGIC1 0xABBABEEFu /**< First marker word of a statically initialised mutex. */
#define QOSA_MUTEX_MAGIC2 0xCDDCCDCFu /**< Second marker word of a statically initialised mutex. */
/** Static initial value of a QosaMutex; needs no init and is never destroyed. */
#define QOSA_MUTEX_INITIALIZER                                                                                         \
    { PTHREAD_MUTEX_INITIALIZER, QOSA_MUTEX_MAGIC1, QOSA_MUTEX_MAGIC2 }

/** Initialises a mutex (its marker words are left alone).
 * @param m the mutex
 * @param attr attributes, or NULL for the defaults
 * @return pthread_mutex_init's result; -1 for a null m */
QOSA_API int QOSA_MutexInit(QosaMutex* m, const pthread_mutexattr_t* attr);
/** Initialises a recursive mutex: the owner may lock it again and unlocks it
 * as often. @param m the mutex
 * @return pthread_mutex_init's result; -1 for a null m or when the attribute
 *         cannot be made */
QOSA_API int QOSA_MutexInitRecursive(QosaMutex* m);
/** Destroys a mutex. @param m the mutex
 * @return 0; -1 for a null m or when the platform refuses (a locked mutex) */
QOSA_API int QOSA_MutexDestroy(QosaMutex* m);
/** Locks a mutex, bringing a statically initialised one to life first.
 * @param m the mutex
 * @return pthread_mutex_lock's result (0 or an error number); -1 for a null m
 *         or when the first-lock initialisation fails (the next lock retries) */
QOSA_API int QOSA_MutexLock(QosaMutex* m);
/** As QOSA_MutexLock, without waiting. @param m the mutex
 * @return 0 when locked, EBUSY when held; -1 as for QOSA_MutexLock */
QOSA_API int QOSA_MutexTryLock(QosaMutex* m);
/** Unlocks a mutex. @param m the mutex
 * @return pthread_mutex_unlock's result; -1 for a null m */
QOSA_API int QOSA_MutexUnLock(QosaMutex* m);

/** @name Read-write locks
 * The platform's pthread_rwlock_t, passed through: each returns the pthread
 * call's own result (0 or an error number). NULL is not checked. */
/** @{ */
/** pthread_rwlock_init. @param rwlock the lock @param attr attributes, or NULL
 * @return 0 or an error number */
QOSA_API int ORV_Pthread_RWLock_Init(pthread_rwlock_t* rwlock, const pthread_rwlockattr_t* attr);
/** pthread_rwlock_destroy. @param rwlock the lock @return 0 or an error number */
QOSA_API int ORV_Pthread_RWLock_Destroy(pthread_rwlock_t* rwlock);
/** pthread_rwlock_rdlock. @param rwlock the lock @return 0 or an error number */
QOSA_API int ORV_Pthread_RWLock_RDLock(pthread_rwlock_t* rwlock);
/** pthread_rwlock_tryrdlock. @param rwlock the lock @return 0, EBUSY or an error number */
QOSA_API int ORV_Pthread_RWLock_TryRDLock(pthread_rwlock_t* rwlock);
/** pthread_rwlock_wrlock. @param rwlock the lock @return 0 or an error number */
QOSA_API int ORV_Pthread_RWLock_WRLock(pthread_rwlock_t* rwlock);
/** pthread_rwlock_trywrlock. @param rwlock the lock @return 0, EBUSY or an error number */
QOSA_API int ORV_Pthread_RWLock_TryWRLock(pthread_rwlock_t* rwlock);
/** pthread_rwlock_unlock. @param rwlock the lock @return 0 or an error number */
QOSA_API int ORV_Pthread_RWLock_UnLock(pthread_rwlock_t* rwlock);
/** @} */

QOSA_EXTERN_C_END

#endif /* QOSA_LOCK_H */
