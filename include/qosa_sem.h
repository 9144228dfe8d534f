/** @file
 * Semaphores: unnamed (FIFO wake order), named and System V.
 *
 * Failures give -1 with the reason in the last error unless a function says
 * otherwise. */
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

/** @name Record tags
 * What a semaphore record holds. */
/** @{ */
#define QOSA_SEM_TAG_UNNAMED 0x03213102u   /**< an unnamed semaphore, written by QOSA_SemInit */
#define QOSA_SEM_TAG_NAMED 0x20131230u     /**< a named semaphore, written by QOSA_SemOpen */
#define QOSA_SEM_TAG_DESTROYED 0xFFFFFFFFu /**< destroyed, written by QOSA_SemDestroy */
/** @} */

/** The semaphore held by a record. */
typedef union QOSA_SEM_U {
    sem_t* pNamed;    /**< named: the pointer that sem_open returned */
    u64 aullStore[4]; /**< unnamed: the library's own first-in first-out counting semaphore (opaque) */
} QOSA_SEM_U;

/** The semaphore record. Unnamed: the caller owns the storage and must not
 * move it while the semaphore lives. Named: allocated by QOSA_SemOpen,
 * released by QOSA_SemClose. */
typedef struct QOSA_SEM_S {
    u32 tag;        /**< QOSA_SEM_TAG_UNNAMED, QOSA_SEM_TAG_NAMED or QOSA_SEM_TAG_DESTROYED */
    QOSA_SEM_U sem; /**< the semaphore */
} QOSA_SEM_S;

/** The optional fourth argument of semctl. */
typedef union QOSA_SEMUN_U {
    int val;               /**< value for SETVAL */
    struct semid_ds* buf;  /**< buffer for IPC_STAT and IPC_SET */
    unsigned short* array; /**< array for GETALL and SETALL */
    void* pad;             /**< makes the union pointer-sized */
} QOSA_SEMUN_U;

/** @name Unnamed semaphores
 * A null record gives -1 and nothing is done. Waiters are released in the
 * order in which they began to wait; a post while someone waits hands its
 * unit straight to the longest waiter. Failures give -1 with the reason in
 * the last error (EINVAL for a value above SEM_VALUE_MAX, EOVERFLOW for a
 * post past it, ETIMEDOUT and EAGAIN for timed and trial waits that found no
 * unit, EBUSY for the destruction of a semaphore that has waiters).
 * QOSA_SemWait ends with -1 and EINTR when a signal handler interrupts it;
 * the timed waits go on waiting for the rest of their time. A record must not
 * be destroyed while another thread waits on it.
 *
 * On a record from QOSA_SemOpen (by its tag), wait, post, the timed waits,
 * the trial wait and QOSA_SemDestroy work on the named semaphore. A destroyed
 * named record refuses every operation (-1, EINVAL) except QOSA_SemClose,
 * which still closes it and releases the record. */
/** @{ */
/** Makes an unnamed semaphore in the caller's record.
 * @param rec the record @param shared ignored: the semaphore is always private
 * to the process @param value the initial count
 * @return 0; -1 (EINVAL for a value above SEM_VALUE_MAX) */
QOSA_API s32 QOSA_SemInit(QOSA_SEM_S* rec, s32 shared, u32 value);
/** The same as QOSA_SemInit. @param rec,shared,value as for QOSA_SemInit
 * @return as QOSA_SemInit */
QOSA_API s32 QOSA_SemInitWin(QOSA_SEM_S* rec, s32 shared, u32 value);
/** Destroys a semaphore; the tag becomes QOSA_SEM_TAG_DESTROYED.
 * @param rec the record
 * @return 0; -1 and the record unchanged when refused (EBUSY: it has
 *         waiters) */
QOSA_API s32 QOSA_SemDestroy(QOSA_SEM_S* rec);
/** Waits for a unit without limit. @param rec the record
 * @return 0 when a unit was taken; -1 (EINTR: a signal handler interrupted
 *         the wait) */
QOSA_API s32 QOSA_SemWait(QOSA_SEM_S* rec);
/** Adds one unit, handed to the longest waiter if there is one.
 * @param rec the record @return 0; -1 (EOVERFLOW past SEM_VALUE_MAX) */
QOSA_API s32 QOSA_SemPost(QOSA_SEM_S* rec);
/** The same as QOSA_SemPost. @param rec the record @return as QOSA_SemPost */
QOSA_API s32 QOSA_SemPostWin(QOSA_SEM_S* rec);
/** Waits at most timeoutMs milliseconds, an interval that setting the wall
 * clock neither shortens nor lengthens. @param rec the record
 * @param timeoutMs the most milliseconds to wait; 0 only tries
 * @return 0 when a unit was taken; -1 (ETIMEDOUT, EAGAIN for a try) */
QOSA_API s32 QOSA_SemWaitTimeOut(QOSA_SEM_S* rec, u32 timeoutMs);
/** Waits until a wall-clock deadline (the clock gettimeofday reads); the time
 * that remains is waited as an interval, as QOSA_SemWaitTimeOut does.
 * @param rec the record @param deadline seconds and nanoseconds since 1970
 * @return 0 when a unit was taken; -1 for a null argument, and with
 *         ETIMEDOUT for a deadline already past (the semaphore is not tried)
 *         or when the time ran out */
QOSA_API s32 QOSA_SemTimedWait(QOSA_SEM_S* rec, const struct timespec* deadline);
/** Takes a unit if one is free, without waiting. @param rec the record
 * @return 0; -1 (EAGAIN: no unit) */
QOSA_API s32 QOSA_SemTryWait(QOSA_SEM_S* rec);
/** @} */

/** @name Named semaphores */
/** @{ */
/** sem_open with all four arguments, into a record the library allocates.
 * @param name the semaphore's name @param oflag O_CREAT, O_EXCL or 0
 * @param mode permissions when created @param value initial count when created
 * @return the record, released with QOSA_SemClose; NULL when the name is
 *         null, memory is short or sem_open fails */
QOSA_API QOSA_SEM_S* QOSA_SemOpen(const char* name, s32 oflag, mode_t mode, u32 value);
/** The same as QOSA_SemOpen. @param name,oflag,mode,value as for QOSA_SemOpen
 * @return as QOSA_SemOpen */
QOSA_API QOSA_SEM_S* QOSA_SemOpenWin(const char* name, s32 oflag, mode_t mode, u32 value);
/** sem_close, then releases the record. @param rec a record of QOSA_SemOpen
 * @return 0; -1 for a null record or one that holds no named semaphore, and
 *         when sem_close fails (the record stays usable) */
QOSA_API s32 QOSA_SemClose(QOSA_SEM_S* rec);
/** sem_unlink. @param name the semaphore's name
 * @return 0; -1 for a null or empty name, or with errno */
QOSA_API s32 QOSA_SemUnLink(const char* name);
/** @} */

/** @name System V semaphore sets
 * The platform calls' results (-1 with errno on failure). */
/** @{ */
/** semget. @param key the IPC key @param nsems semaphores in the set
 * @param flags IPC_CREAT, IPC_EXCL and permissions
 * @return the set's id; -1 with errno */
QOSA_API s32 QOSA_SemGet(key_t key, s32 nsems, s32 flags);
/** semctl. @param semid the set @param semnum the semaphore in it
 * @param cmd the command @param arg its argument
 * @return the command's result; -1 with errno */
QOSA_API s32 QOSA_SemCtl(s32 semid, s32 semnum, s32 cmd, QOSA_SEMUN_U arg);
/** semop. @param semid the set @param ops the operations
 * @param nops how many @return 0; -1 with errno, or for null ops */
QOSA_API s32 QOSA_SemOp(s32 semid, struct sembuf* ops, u32 nops);
/** @} */

QOSA_EXTERN_C_END

#endif /* QOSA_SEM_H */
