/* Semaphores: unnamed (FIFO wake order), named and System V. */
#ifndef QOSA_SEM_H
#define QOSA_SEM_H

#include <fcntl.h>
#include <semaphore.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/types.h>
#include <time.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* What a semaphore record holds. */
#define QOSA_SEM_TAG_UNNAMED 0x03213102u /* written by QOSA_SemInit */
#define QOSA_SEM_TAG_NAMED 0x20131230u   /* written by QOSA_SemOpen */
#define QOSA_SEM_TAG_DESTROYED 0xFFFFFFFFu

/* The semaphore held by a record: for an unnamed semaphore the library's own
 * first-in first-out counting semaphore (opaque, kept inside the record), for
 * a named one the pointer that sem_open returned. */
typedef union QOSA_SEM_U {
    sem_t* pNamed;
    u64 aullStore[4];
} QOSA_SEM_U;

/* The semaphore record. Unnamed: the caller owns the storage and must not
 * move it while the semaphore lives. Named: allocated by QOSA_SemOpen,
 * released by QOSA_SemClose. */
typedef struct QOSA_SEM_S {
    u32 tag;
    QOSA_SEM_U sem;
} QOSA_SEM_S;

/* The optional fourth argument of semctl. */
typedef union QOSA_SEMUN_U {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
    void* pad;
} QOSA_SEMUN_U;

/* Unnamed semaphores. A null record gives -1 and nothing is done. Waiters are
 * released in the order in which they began to wait; a post while someone
 * waits hands its unit straight to the longest waiter. The argument shared is
 * ignored: the semaphore is always private to the process. Failures give -1
 * with the reason in the last error (EINVAL for a value above SEM_VALUE_MAX,
 * EOVERFLOW for a post past it, ETIMEDOUT and EAGAIN for timed and trial
 * waits that found no unit, EBUSY for the destruction of a semaphore that
 * has waiters). QOSA_SemWait ends with -1 and EINTR when a signal handler
 * interrupts it; the timed waits go on waiting for the rest of their time.
 *
 * On a record from QOSA_SemOpen (by its tag), wait, post, the timed waits,
 * the trial wait and QOSA_SemDestroy work on the named semaphore. A destroyed
 * named record refuses every operation (-1, EINVAL) except QOSA_SemClose,
 * which still closes it and releases the record. */
QOSA_API s32 QOSA_SemInit(QOSA_SEM_S* rec, s32 shared, u32 value);
QOSA_API s32 QOSA_SemInitWin(QOSA_SEM_S* rec, s32 shared, u32 value);
/* 0 and the tag set to QOSA_SEM_TAG_DESTROYED; -1 and the record unchanged
 * when refused. */
QOSA_API s32 QOSA_SemDestroy(QOSA_SEM_S* rec);
QOSA_API s32 QOSA_SemWait(QOSA_SEM_S* rec);
QOSA_API s32 QOSA_SemPost(QOSA_SEM_S* rec);
QOSA_API s32 QOSA_SemPostWin(QOSA_SEM_S* rec);
/* Waits at most timeoutMs milliseconds, an interval that setting the wall
 * clock neither shortens nor lengthens; 0 only tries. */
QOSA_API s32 QOSA_SemWaitTimeOut(QOSA_SEM_S* rec, u32 timeoutMs);
/* Waits until the wall-clock deadline (the clock gettimeofday reads). A
 * deadline already past gives -1 without trying the semaphore; otherwise the
 * time that remains is waited as an interval, as QOSA_SemWaitTimeOut does. */
QOSA_API s32 QOSA_SemTimedWait(QOSA_SEM_S* rec, const struct timespec* deadline);
QOSA_API s32 QOSA_SemTryWait(QOSA_SEM_S* rec);

/* Named semaphores: sem_open with all four arguments. NULL when the name is
 * null, the record cannot be allocated or sem_open fails. */
QOSA_API QOSA_SEM_S* QOSA_SemOpen(const char* name, s32 oflag, mode_t mode, u32 value);
QOSA_API QOSA_SEM_S* QOSA_SemOpenWin(const char* name, s32 oflag, mode_t mode, u32 value);
/* -1 for a null record or one that holds no named semaphore, and when
 * sem_close fails (the record stays usable); 0 and the record released. */
QOSA_API s32 QOSA_SemClose(QOSA_SEM_S* rec);
/* -1 for a null or empty name, else sem_unlink's result. */
QOSA_API s32 QOSA_SemUnLink(const char* name);

/* System V semaphore sets: the platform calls' results. */
QOSA_API s32 QOSA_SemGet(key_t key, s32 nsems, s32 flags);
QOSA_API s32 QOSA_SemCtl(s32 semid, s32 semnum, s32 cmd, QOSA_SEMUN_U arg);
/* -1 for null ops. */
QOSA_API s32 QOSA_SemOp(s32 semid, struct sembuf* ops, u32 nops);

QOSA_EXTERN_C_END

#endif /* QOSA_SEM_H */
