/* The timer service: one timer thread on a 10-ms tick running relative timers
 * (a 1024-bucket timing wheel), absolute timers (local-time patterns checked
 * once a second), deferred requests (tasklets) and relative timer groups.
 *
 * Handles are opaque: the address of a slot of the kind's index array. Every
 * change of the timer structures and every callback runs on the timer thread;
 * callers only check handles and queue requests. Results 12 and 22 are ENOMEM
 * and EINVAL. */
#ifndef QOSA_TIMER_H
#define QOSA_TIMER_H

#include <pthread.h>
#include <stdarg.h>
#include <time.h>

#include "qosa_lock.h"
#include "qosa_time.h"
#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* ---- Callback types and modes ---- */

typedef void (*QOSA_TimerProc)(void* arg);             /* expiry, on the timer thread */
typedef void (*QOSA_TimerDoneProc)(void* arg);         /* a safe stop has completed */
typedef void (*QOSA_TimerDebugProc)(const char* text); /* at most 511 characters */

#define QOSA_TIMER_LOOP 0u      /* periodic (absolute: every matching second) */
#define QOSA_TIMER_ONCE 1u      /* fire once, keep the timer (stopped / inactive) */
#define QOSA_TIMER_ONCE_FREE 2u /* fire once, then release it */

/* ---- Tasklets: deferred calls, run in order by the timer thread ---- */

typedef void (*tsklet_fn)(void* arg);

typedef struct tsklet {
    struct tsklet* next;
    struct tsklet* prev;
    tsklet_fn fn;
    void* arg;
} tsklet;

/* A queue: circular, doubly linked through the head; empty when next and
 * prev point to the head itself. */
typedef struct tsklet_head {
    tsklet* next;
    tsklet* prev;
    QosaMutex lock;
} tsklet_head;

QOSA_API s32 tsklet_init(tsklet_head* q);
QOSA_API u32 tsklet_invokelater(tsklet_head* q, tsklet_fn fn, void* arg); /* 0 or 12 */
QOSA_API u32 tsklet_invokefirst(tsklet_head* q, tsklet_fn fn, void* arg); /* 0 or 12 */
QOSA_API s32 tsklet_invokeall(tsklet_head* q);
QOSA_API u32 tsklet_delinit(tsklet_head* q);

/* ---- Tick hooks and service flags ---- */

typedef void (*petimer_tickhook_fn)(s64 ticks);

QOSA_API u32 petimer_register_tickhook(petimer_tickhook_fn hook, s64 period); /* 0, 12 or 22 */
QOSA_API u32 petimer_deregister_tickhook(petimer_tickhook_fn hook);           /* 0 or 22 */
QOSA_API u32 petimer_isQuiting(void);
QOSA_API pthread_t petimer_getTreadId(void);
QOSA_API void petimer_setTreadId(pthread_t tid);

/* ---- The timer thread ---- */

QOSA_API u32 petimer_start(pthread_t* outTid, const pthread_attr_t* attr);
QOSA_API s32 petimer_stop(pthread_t tid);
QOSA_API void* petimer_proc(void* unused);
QOSA_API void petimer_setQuitingFlag(u32 value, s32 withLocks);

/* ---- Relative timers ---- */

QOSA_API extern u32 ulMaxReltmNum; /* slots of the relative index, 2000 */
QOSA_API extern s32 g_reltmNum;    /* live relative timers */
QOSA_API extern void** g_szRelTimer;
QOSA_API extern void** g_pRelHead;
QOSA_API extern void** g_pRelTail;

QOSA_API u32 init_reltm(void);
QOSA_API u32 init_RelIndex(void);
QOSA_API u32 delinit_reltm(void);
QOSA_API void* petimer_create_reltimer(QOSA_TimerProc proc, u32 mode);
QOSA_API u32 petimer_start_reltimer(void* h, u32 intervalMs, void* arg);
QOSA_API u32 petimer_stop_reltimer_safe(void* h, QOSA_TimerDoneProc done, void* doneArg);
QOSA_API u32 petimer_stop_reltimer_safeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg);
QOSA_API u32 petimer_free_reltimer(void* h);
QOSA_API u32 petimer_free_reltimerarg_safe(void* block);
QOSA_API u32 petimer_start_reltimer_simple(u32 intervalMs, QOSA_TimerProc proc, void* arg);
QOSA_API s32 reltmr_post_tasklet(void);
QOSA_API s32 reltmr_idxLock(void);
QOSA_API s32 reltmr_idxUnLock(void);

/* ---- Absolute timers ---- */

QOSA_API extern u32 ulMaxAbstmNum; /* slots of the absolute index, 2000 */
QOSA_API extern s32 g_abstmNum;    /* live absolute timers */
QOSA_API extern void** g_szAbsTimer;
QOSA_API extern void** g_pAbsHead;
QOSA_API extern void** g_pAbsTail;

QOSA_API u32 init_abstm(void);
QOSA_API u32 init_AbsIndex(void);
QOSA_API u32 delinit_abstm(void);
QOSA_API s32 delinit_AbsIndex(void);
QOSA_API void* petimer_create_abstimer(QOSA_TimerProc proc, u32 mode);
/* when: the pattern in struct tm form (month 0-11, year from 1900, -1 = any) */
QOSA_API u32 petimer_start_abstimer(void* h, const struct tm* when, void* arg);
QOSA_API u32 petimer_stop_abstimer_safe(void* h, QOSA_TimerDoneProc done, void* doneArg);
QOSA_API u32 petimer_stop_abstimer_safeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg);
QOSA_API u32 petimer_free_abstimer(void* h);
QOSA_API u32 petimer_relAbsIndex(void** slot);
QOSA_API s32 abstmr_post_tasklet(void);
QOSA_API s32 abstmr_indexLock(void);
QOSA_API s32 abstmr_indexUnLock(void);

/* ---- The public timer interface ---- */

/* The system-control hook gets the name and the caller's further arguments. */
typedef int (*QOSA_SysCtrlRegTaskTidProc)(const char* name, va_list args);

QOSA_API extern QOSA_TimerDebugProc g_pfnTimerDebug;
QOSA_API extern QOSA_SysCtrlRegTaskTidProc g_pfnSysCtrlRegTaskTidFunc;

QOSA_API u32 QOSA_StartTimerTask(pthread_t* outTid, const pthread_attr_t* attr);
QOSA_API u32 QOSA_StopTimerTask(void);
QOSA_API void* QOSA_CreateAbsTimerM(QOSA_TimerProc proc, u32 mode);
QOSA_API void* QOSA_CreateRelTimerM(QOSA_TimerProc proc, u32 mode, u32 line, const char* file);
QOSA_API u32 QOSA_StartAbsTimer(void* h, const QOSA_SysTime* when, void* arg);
QOSA_API u32 QOSA_StartRelTimer(void* h, u32 intervalMs, void* arg);
QOSA_API u32 QOSA_StopAbsTimer_Safe(void* h, QOSA_TimerDoneProc done, void* doneArg);
QOSA_API u32 QOSA_StopRelTimer_Safe(void* h, QOSA_TimerDoneProc done, void* doneArg);
QOSA_API u32 QOSA_StopAbsTimer_SafeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg);
QOSA_API u32 QOSA_StopRelTimer_SafeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg);
QOSA_API u32 QOSA_FreeAbsTimer(void* h);
QOSA_API u32 QOSA_FreeRelTimer(void* h);
QOSA_API u32 QOSA_StartRelTimer_Simple(u32 intervalMs, QOSA_TimerProc proc, void* arg);
QOSA_API u32 QOSA_FreeRelTimerArg_safe(void* block);
QOSA_API void QOSA_TMRSetMaxAbstmNum(u32 n);
QOSA_API void QOSA_TMRSetMaxReltmNum(u32 n);
QOSA_API void QOSA_TimerRegDebugTrace(QOSA_TimerDebugProc fn);
QOSA_API void qosa_timer_debug(const char* fmt, ...);
QOSA_API u32 QOSA_SYSCTRL_RegSysCtrlRegTaskTid(QOSA_SysCtrlRegTaskTidProc fn);
QOSA_API int QOSA_SysCtrlRegTaskTid(const char* name, ...);

/* ---- Relative timer groups ---- */

typedef void (*QOSA_GrpTimeoutProc)(u32 index, u32 userValue);

typedef struct QOSA_RelTimerGrpEntry {
    u32 userValue;
    u32 index;
    u32 mode;
    u32 interval;
    QOSA_GrpTimeoutProc proc;
    void* timer;
    u32 started;
} QOSA_RelTimerGrpEntry;

typedef struct QOSA_RelTimerGrp {
    u32 count;
    u32 valid;
    QOSA_GrpTimeoutProc proc;
    QOSA_RelTimerGrpEntry* entries;
} QOSA_RelTimerGrp;

QOSA_API u32 QOSA_InitReltimerGrp(QOSA_RelTimerGrp** out, u32 count, QOSA_GrpTimeoutProc proc);
QOSA_API u32 QOSA_StartRelTimerofGrp(QOSA_RelTimerGrp* grp, u32 index, u32 intervalMs, u32 userValue, u8 mode);
QOSA_API u32 QOSA_StopRelTimerofGrp(QOSA_RelTimerGrp* grp, u32 index);
QOSA_API u32 QOSA_FreeRelTimerGrp(QOSA_RelTimerGrp* grp);
QOSA_API void QOSA_TimeoutFuncOfGrp(void* member); /* a QOSA_RelTimerGrpEntry* */

QOSA_EXTERN_C_END

#endif /* QOSA_TIMER_H */
