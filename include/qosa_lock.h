/* The library's mutex and pass-through read-write locks. */
#ifndef QOSA_LOCK_H
#define QOSA_LOCK_H

#include <pthread.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* A platform mutex followed by two marker words. A mutex holding
 * QOSA_MUTEX_INITIALIZER is brought to life by its first lock or try-lock. */
typedef struct QosaMutex {
    pthread_mutex_t mutex;
    u32 ulMagic1;
    u32 ulMagic2;
} QosaMutex;

#define QOSA_MUTEX_MAGIC1 0xABBABEEFu
#define QOSA_MUTEX_MAGIC2 0xCDDCCDCFu
#define QOSA_MUTEX_INITIALIZER                                                                                         \
    { PTHREAD_MUTEX_INITIALIZER, QOSA_MUTEX_MAGIC1, QOSA_MUTEX_MAGIC2 }

QOSA_API int QOSA_MutexInit(QosaMutex* m, const pthread_mutexattr_t* attr);
QOSA_API int QOSA_MutexInitRecursive(QosaMutex* m);
QOSA_API int QOSA_MutexDestroy(QosaMutex* m);
QOSA_API int QOSA_MutexLock(QosaMutex* m);
QOSA_API int QOSA_MutexTryLock(QosaMutex* m);
QOSA_API int QOSA_MutexUnLock(QosaMutex* m);

QOSA_API int ORV_Pthread_RWLock_Init(pthread_rwlock_t* rwlock, const pthread_rwlockattr_t* attr);
QOSA_API int ORV_Pthread_RWLock_Destroy(pthread_rwlock_t* rwlock);
QOSA_API int ORV_Pthread_RWLock_RDLock(pthread_rwlock_t* rwlock);
QOSA_API int ORV_Pthread_RWLock_TryRDLock(pthread_rwlock_t* rwlock);
QOSA_API int ORV_Pthread_RWLock_WRLock(pthread_rwlock_t* rwlock);
QOSA_API int ORV_Pthread_RWLock_TryWRLock(pthread_rwlock_t* rwlock);
QOSA_API int ORV_Pthread_RWLock_UnLock(pthread_rwlock_t* rwlock);

QOSA_EXTERN_C_END

#endif /* QOSA_LOCK_H */
