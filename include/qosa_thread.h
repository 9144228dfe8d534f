/** @file
 * Threads, condition variables, scheduling and sleeps.
 *
 * Pass-through wrappers: each returns the platform call's own result (0 or an
 * error number for the pthread family). Pointer arguments that a wrapper
 * guards give -1 when null, and nothing is called; where the platform would
 * crash on a null it does not guard, the wrapper returns EINVAL instead. The
 * mutex of the condition waits is the platform mutex (for a QosaMutex m:
 * &m.mutex). Objects are the platform's own and belong to the caller. */
#ifndef QOSA_THREAD_H
#define QOSA_THREAD_H

#include <pthread.h>
#include <sched.h>
#include <stddef.h>
#include <sys/resource.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/** Start routine of a thread. @param arg the argument given at creation
 * @return the thread's result, for QOSA_PthreadJoin */
typedef void* (*QOSA_ThreadProc)(void* arg);

/** @name Condition variables and their attributes */
/** @{ */
/** pthread_condattr_init. @param attr the attribute object
 * @return 0 or an error number; EINVAL for NULL */
QOSA_API s32 QOSA_PthreadCondInitAttr(pthread_condattr_t* attr);
/** pthread_condattr_destroy. @param attr the attribute object
 * @return 0 or an error number */
QOSA_API s32 QOSA_PthreadCondAttr_Destroy(pthread_condattr_t* attr);
/** Condition variables made from attr time their waits on CLOCK_MONOTONIC,
 * as QOSA_PthreadCondTimedWait_Clock needs. @param attr the attribute
 * object; NULL does nothing @return 0 */
QOSA_API s32 QOSA_PthreadCondAttr_SetClockMonotic(pthread_condattr_t* attr);
/** pthread_cond_init. @param cond the condition variable
 * @param attr attributes, or NULL for the defaults
 * @return 0; -1 for a null cond, or when the platform refused (last error
 *         then set to 0) */
QOSA_API s32 QOSA_PthreadCondInit(pthread_cond_t* cond, const pthread_condattr_t* attr);
/** pthread_cond_destroy. @param cond the condition variable
 * @return 0; 1 when the platform refused (waiters remain); -1 for NULL */
QOSA_API s32 QOSA_PthreadCondDestroy(pthread_cond_t* cond);
/** pthread_cond_signal: wakes one waiter. @param cond the condition variable
 * @return 0 or an error number; -1 for NULL */
QOSA_API s32 QOSA_PthreadCondSignal(pthread_cond_t* cond);
/** pthread_cond_broadcast: wakes every waiter. @param cond the condition
 * variable @return 0 or an error number; -1 for NULL */
QOSA_API s32 QOSA_PthreadCondBroadcast(pthread_cond_t* cond);
/** pthread_cond_wait. @param cond the condition variable
 * @param mutex the platform mutex, held by the caller
 * @return 0 or an error number; -1 when either is NULL */
QOSA_API s32 QOSA_PthreadCondWait(pthread_cond_t* cond, pthread_mutex_t* mutex);
/** Timed wait against the wall clock (a condition variable with default
 * attributes). A wake is not a guarantee: check the predicate.
 * @param cond the condition variable
 * @param mutex the platform mutex, held by the caller
 * @param timeoutUs relative timeout in microseconds, above 0
 * @return 0 when woken (signalled or spuriously); ETIMEDOUT at the deadline;
 *         -1 for a null argument, a timeout of 0 or below, or any other
 *         failure */
QOSA_API s32 QOSA_PthreadCondTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex, s32 timeoutUs);
/** Timed wait against the monotonic clock (a condition variable made with an
 * attribute passed through QOSA_PthreadCondAttr_SetClockMonotic); setting
 * the wall clock does not move the deadline.
 * @param cond the condition variable
 * @param mutex the platform mutex, held by the caller
 * @param timeoutUs relative timeout in microseconds, above 0
 * @return as QOSA_PthreadCondTimedWait */
QOSA_API s32 QOSA_PthreadCondTimedWait_Clock(pthread_cond_t* cond, pthread_mutex_t* mutex, u32 timeoutUs);
/** @} */

/** @name Threads */
/** @{ */
/** pthread_create. @param thread receives the handle
 * @param attr attributes, or NULL for the defaults
 * @param start the start routine @param arg its argument
 * @return 0 or an error number (EINVAL for a null start); -1 for a null
 *         thread */
QOSA_API s32 QOSA_PthreadCreate(pthread_t* thread, const pthread_attr_t* attr, QOSA_ThreadProc start, void* arg);
/** As QOSA_PthreadCreate; id is accepted and ignored.
 * @param thread receives the handle @param id not read
 * @param attr attributes, or NULL @param start the start routine
 * @param arg its argument @return as QOSA_PthreadCreate */
QOSA_API s32 QOSA_PthreadCreateID(pthread_t* thread, u32 id, const pthread_attr_t* attr, QOSA_ThreadProc start,
                                  void* arg);
/** pthread_join. @param thread the thread
 * @param retval receives its result, or NULL @return 0 or an error number */
QOSA_API s32 QOSA_PthreadJoin(pthread_t thread, void** retval);
/** pthread_detach. @param thread the thread @return 0 or an error number */
QOSA_API s32 QOSA_PthreadDetach(pthread_t thread);
/** pthread_self. @return the calling thread's handle */
QOSA_API pthread_t QOSA_PthreadSelf(void);
/** The same as QOSA_PthreadSelf. @return the calling thread's handle */
QOSA_API pthread_t orv_PthreadSelf(void);
/** The calling thread's handle, also copied (8 bytes) into *out.
 * @param out receives the handle, or NULL
 * @return the handle; 0 if the copy fails */
QOSA_API pthread_t ORV_GetPthreadSelf(pthread_t* out);
/** Names the calling thread (the platform's length limit applies).
 * @param name the name @return 0 or an error number (ERANGE for a name too
 * long, EINVAL for NULL) */
QOSA_API s32 QOSA_PthreadSetName(const char* name);
/** pthread_setcancelstate. @param state PTHREAD_CANCEL_ENABLE or _DISABLE
 * @param oldstate receives the previous state
 * @return 0 or an error number; -1 for a null oldstate */
QOSA_API s32 QOSA_PthreadSetCancelState(s32 state, s32* oldstate);
/** pthread_setcanceltype. @param type PTHREAD_CANCEL_DEFERRED or
 * _ASYNCHRONOUS @param oldtype receives the previous type
 * @return 0 or an error number; -1 for a null oldtype */
QOSA_API s32 QOSA_PthreadSetCancelType(s32 type, s32* oldtype);
/** @} */

/** @name Thread attributes
 * Each returns the pthread_attr_ call's result (0 or an error number), -1
 * for a null attr or out pointer. */
/** @{ */
/** pthread_attr_init. @param attr the attribute object @return 0 or an error
 * number; -1 for NULL */
QOSA_API s32 QOSA_PthreadAttrInit(pthread_attr_t* attr);
/** pthread_attr_destroy. @param attr the attribute object @return 0 or an
 * error number; -1 for NULL */
QOSA_API s32 QOSA_PthreadAttrDestroy(pthread_attr_t* attr);
/** pthread_attr_setdetachstate. @param attr the attribute object
 * @param state PTHREAD_CREATE_JOINABLE or _DETACHED
 * @return 0 or an error number; -1 for a null attr */
QOSA_API s32 QOSA_PthreadAttrSetdetachstate(pthread_attr_t* attr, s32 state);
/** pthread_attr_getinheritsched. @param attr the attribute object
 * @param out receives the setting @return 0 or an error number; -1 for NULL */
QOSA_API s32 QOSA_PthreadAttrGetInheritsched(const pthread_attr_t* attr, s32* out);
/** pthread_attr_setinheritsched. @param attr the attribute object
 * @param value PTHREAD_INHERIT_SCHED or _EXPLICIT_SCHED
 * @return 0 or an error number; -1 for a null attr */
QOSA_API s32 QOSA_PthreadAttrSetInheritsched(pthread_attr_t* attr, s32 value);
/** pthread_attr_getschedpolicy. @param attr the attribute object
 * @param out receives the policy @return 0 or an error number; -1 for NULL */
QOSA_API s32 QOSA_PthreadAttrGetSchedpolicy(const pthread_attr_t* attr, s32* out);
/** pthread_attr_setschedpolicy. @param attr the attribute object
 * @param policy SCHED_OTHER, SCHED_FIFO, SCHED_RR ...
 * @return 0 or an error number; -1 for a null attr */
QOSA_API s32 QOSA_PthreadAttrSetSchedpolicy(pthread_attr_t* attr, s32 policy);
/** pthread_attr_getschedparam. @param attr the attribute object
 * @param out receives the parameters @return 0 or an error number; -1 for
 * NULL */
QOSA_API s32 QOSA_PthreadAttrGetSchedparam(const pthread_attr_t* attr, struct sched_param* out);
/** pthread_attr_setschedparam. @param attr the attribute object
 * @param param the parameters @return 0 or an error number (EINVAL for a null
 * param); -1 for a null attr */
QOSA_API s32 QOSA_PthreadAttrSetSchedparam(pthread_attr_t* attr, const struct sched_param* param);
/** pthread_attr_getscope. @param attr the attribute object
 * @param out receives the scope @return 0 or an error number; -1 for NULL */
QOSA_API s32 QOSA_PthreadAttrGetscope(const pthread_attr_t* attr, s32* out);
/** pthread_attr_setscope. @param attr the attribute object
 * @param scope PTHREAD_SCOPE_SYSTEM or _PROCESS
 * @return 0 or an error number; -1 for a null attr */
QOSA_API s32 QOSA_PthreadAttrSetscope(pthread_attr_t* attr, s32 scope);
/** pthread_attr_getstacksize. @param attr the attribute object
 * @param out receives the size in bytes @return 0 or an error number; -1 for
 * NULL */
QOSA_API s32 QOSA_PthreadAttrGetStacksize(const pthread_attr_t* attr, size_t* out);
/** pthread_attr_setstacksize. @param attr the attribute object
 * @param size the stack size in bytes @return 0 or an error number; -1 for a
 * null attr */
QOSA_API s32 QOSA_PthreadAttrSetStacksize(pthread_attr_t* attr, u32 size);
/** pthread_attr_getstackaddr. @param attr the attribute object
 * @param out receives the address @return 0 or an error number; -1 for NULL */
QOSA_API s32 QOSA_PthreadAttrGetStackAddr(const pthread_attr_t* attr, void** out);
/** pthread_attr_setstackaddr. @param attr the attribute object
 * @param addr the stack address @return 0 or an error number; -1 for a null
 * attr or a null addr */
QOSA_API s32 QOSA_PthreadAttrSetStackAddr(pthread_attr_t* attr, void* addr);
/** @} */

/** @name Scheduling and process priorities
 * ORV_ names are the same operations as their QOSA_ twins. */
/** @{ */
/** sched_get_priority_max. @param policy the scheduling policy
 * @return the highest priority; -1 with errno */
QOSA_API s32 QOSA_SchedGetPriorityMax(s32 policy);
/** sched_get_priority_min. @param policy the scheduling policy
 * @return the lowest priority; -1 with errno */
QOSA_API s32 QOSA_SchedGetPriorityMin(s32 policy);
/** getpriority. @param which PRIO_PROCESS, PRIO_PGRP or PRIO_USER
 * @param who the id (0: the caller's) @return the nice value; -1 with errno
 * (-1 is also a valid value: clear errno first) */
QOSA_API s32 QOSA_GetPriority(s32 which, s32 who);
/** The same as QOSA_GetPriority. @param which,who as for QOSA_GetPriority
 * @return as QOSA_GetPriority */
QOSA_API s32 ORV_GetPriority(s32 which, s32 who);
/** setpriority. @param which PRIO_PROCESS, PRIO_PGRP or PRIO_USER
 * @param who the id (0: the caller's) @param prio the nice value
 * @return 0; -1 with errno */
QOSA_API s32 QOSA_SetPriority(s32 which, s32 who, s32 prio);
/** The same as QOSA_SetPriority. @param which,who,prio as for
 * QOSA_SetPriority @return as QOSA_SetPriority */
QOSA_API s32 ORV_SetPriority(s32 which, s32 who, s32 prio);
/** @} */

/** @name Sleeps */
/** @{ */
/** sleep. @param seconds how long @return the seconds not slept (a signal
 * ended the sleep early) */
QOSA_API u32 QOSA_Sleep(u32 seconds);
/** usleep of milliseconds * 1000, multiplied in 32 bits: stay at or below
 * 4294967 ms. @param milliseconds how long @return 0; -1 with errno */
QOSA_API s32 QOSA_SleepMs(u32 milliseconds);
/** usleep. @param microseconds how long @return 0; -1 with errno */
QOSA_API s32 QOSA_USleep(u32 microseconds);
/** @} */

QOSA_EXTERN_C_END

#endif /* QOSA_THREAD_H */
