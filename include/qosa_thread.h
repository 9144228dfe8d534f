/* Threads, condition variables, scheduling and sleeps. */
#ifndef QOSA_THREAD_H
#define QOSA_THREAD_H

#include <pthread.h>
#include <sched.h>
#include <stddef.h>
#include <sys/resource.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* Start routine of a thread. */
typedef void* (*QOSA_ThreadProc)(void* arg);

/* Pass-through wrappers: each returns the platform call's own result (0 or an
 * error number for the pthread family). Pointer arguments that a wrapper
 * guards give -1 when null, and nothing is called. The mutex of the condition
 * waits is the platform mutex (for a QosaMutex m: &m.mutex). */

/* Condition variables and their attributes. */
QOSA_API s32 QOSA_PthreadCondInitAttr(pthread_condattr_t* attr);
QOSA_API s32 QOSA_PthreadCondAttr_Destroy(pthread_condattr_t* attr);
/* Condition variables made from attr time their waits on CLOCK_MONOTONIC,
 * as QOSA_PthreadCondTimedWait_Clock needs. Always 0. */
QOSA_API s32 QOSA_PthreadCondAttr_SetClockMonotic(pthread_condattr_t* attr);
/* 0, or -1 (null cond, or the platform refused: last error set to 0). */
QOSA_API s32 QOSA_PthreadCondInit(pthread_cond_t* cond, const pthread_condattr_t* attr);
/* 0, 1 when the platform refused, -1 for a null cond. */
QOSA_API s32 QOSA_PthreadCondDestroy(pthread_cond_t* cond);
QOSA_API s32 QOSA_PthreadCondSignal(pthread_cond_t* cond);
QOSA_API s32 QOSA_PthreadCondBroadcast(pthread_cond_t* cond);
QOSA_API s32 QOSA_PthreadCondWait(pthread_cond_t* cond, pthread_mutex_t* mutex);
/* Timed waits, relative timeouts in microseconds: 0 when woken (signalled or
 * spuriously: check the predicate), ETIMEDOUT at the deadline, -1 for a null
 * argument, a timeout of 0 (or below), or any other failure. The first times
 * against the wall clock (a condition variable with default attributes), the
 * second against the monotonic clock (one made with an attribute passed
 * through QOSA_PthreadCondAttr_SetClockMonotic). */
QOSA_API s32 QOSA_PthreadCondTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex, s32 timeoutUs);
QOSA_API s32 QOSA_PthreadCondTimedWait_Clock(pthread_cond_t* cond, pthread_mutex_t* mutex, u32 timeoutUs);

/* Threads. */
QOSA_API s32 QOSA_PthreadCreate(pthread_t* thread, const pthread_attr_t* attr, QOSA_ThreadProc start, void* arg);
/* As QOSA_PthreadCreate; id is accepted and ignored. */
QOSA_API s32 QOSA_PthreadCreateID(pthread_t* thread, u32 id, const pthread_attr_t* attr, QOSA_ThreadProc start,
                                  void* arg);
QOSA_API s32 QOSA_PthreadJoin(pthread_t thread, void** retval);
QOSA_API s32 QOSA_PthreadDetach(pthread_t thread);
QOSA_API pthread_t QOSA_PthreadSelf(void);
QOSA_API pthread_t orv_PthreadSelf(void);
/* The calling thread's handle, also copied (8 bytes) into *out when out is not
 * null; 0 if that copy fails. */
QOSA_API pthread_t ORV_GetPthreadSelf(pthread_t* out);
/* Names the calling thread (the platform's length limit applies). */
QOSA_API s32 QOSA_PthreadSetName(const char* name);
QOSA_API s32 QOSA_PthreadSetCancelState(s32 state, s32* oldstate);
QOSA_API s32 QOSA_PthreadSetCancelType(s32 type, s32* oldtype);

/* Thread attributes. */
QOSA_API s32 QOSA_PthreadAttrInit(pthread_attr_t* attr);
QOSA_API s32 QOSA_PthreadAttrDestroy(pthread_attr_t* attr);
QOSA_API s32 QOSA_PthreadAttrSetdetachstate(pthread_attr_t* attr, s32 state);
QOSA_API s32 QOSA_PthreadAttrGetInheritsched(const pthread_attr_t* attr, s32* out);
QOSA_API s32 QOSA_PthreadAttrSetInheritsched(pthread_attr_t* attr, s32 value);
QOSA_API s32 QOSA_PthreadAttrGetSchedpolicy(const pthread_attr_t* attr, s32* out);
QOSA_API s32 QOSA_PthreadAttrSetSchedpolicy(pthread_attr_t* attr, s32 policy);
QOSA_API s32 QOSA_PthreadAttrGetSchedparam(const pthread_attr_t* attr, struct sched_param* out);
QOSA_API s32 QOSA_PthreadAttrSetSchedparam(pthread_attr_t* attr, const struct sched_param* param);
QOSA_API s32 QOSA_PthreadAttrGetscope(const pthread_attr_t* attr, s32* out);
QOSA_API s32 QOSA_PthreadAttrSetscope(pthread_attr_t* attr, s32 scope);
QOSA_API s32 QOSA_PthreadAttrGetStacksize(const pthread_attr_t* attr, size_t* out);
QOSA_API s32 QOSA_PthreadAttrSetStacksize(pthread_attr_t* attr, u32 size);
QOSA_API s32 QOSA_PthreadAttrGetStackAddr(const pthread_attr_t* attr, void** out);
/* Refuses (-1) a null addr as well as a null attr. */
QOSA_API s32 QOSA_PthreadAttrSetStackAddr(pthread_attr_t* attr, void* addr);

/* Scheduling and process priorities (ORV_ names are the same operations). */
QOSA_API s32 QOSA_SchedGetPriorityMax(s32 policy);
QOSA_API s32 QOSA_SchedGetPriorityMin(s32 policy);
QOSA_API s32 QOSA_GetPriority(s32 which, s32 who);
QOSA_API s32 ORV_GetPriority(s32 which, s32 who);
QOSA_API s32 QOSA_SetPriority(s32 which, s32 who, s32 prio);
QOSA_API s32 ORV_SetPriority(s32 which, s32 who, s32 prio);

/* Sleeps. QOSA_Sleep returns the seconds not slept. QOSA_SleepMs multiplies
 * in 32 bits: stay at or below 4294967 ms. */
QOSA_API u32 QOSA_Sleep(u32 seconds);
QOSA_API s32 QOSA_SleepMs(u32 milliseconds);
QOSA_API s32 QOSA_USleep(u32 microseconds);

QOSA_EXTERN_C_END

#endif /* QOSA_THREAD_H */
