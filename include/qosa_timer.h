/** @file
 * The timer service: one timer thread on a 10-ms tick running relative timers
 * (a 1024-bucket timing wheel), absolute timers (local-time patterns checked
 * once a second), deferred requests (tasklets) and relative timer groups.
 *
 * Handles are opaque: the address of a slot of the kind's index array. The
 * library owns a timer from its creation to its free; a freed handle is
 * refused (22) until its slot is reused. Every change of the timer structures
 * and every callback runs on the timer thread, with no lock held; callers
 * only check handles and queue requests, which the thread carries out at its
 * next pass (relative: within 10 ms, absolute: within about a second).
 * Results 12 and 22 are ENOMEM and EINVAL. The first timer created starts the
 * service; QOSA_StopTimerTask stops it and frees every timer. */
#ifndef QOSA_TIMER_H
#define QOSA_TIMER_H

#include <pthread.h>
#include <stdarg.h>
#include <time.h>

#include "qosa_lock.h"
#include "qosa_time.h"
#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/** @name Callback types and modes */
/** @{ */
/** Expiry of a timer, on the timer thread. It may call every timer
 * operation except QOSA_StopTimerTask. @param arg the argument of the last
 * start */
typedef void (*QOSA_TimerProc)(void* arg);
/** A safe stop has completed: the timer is off its list and its callback is
 * not running. On the timer thread. @param arg the stop's doneArg */
typedef void (*QOSA_TimerDoneProc)(void* arg);
/** Receives the service's diagnostic text. @param text at most 511
 * characters, NUL-terminated */
typedef void (*QOSA_TimerDebugProc)(const char* text);

#define QOSA_TIMER_LOOP 0u      /**< periodic (absolute: every matching second) */
#define QOSA_TIMER_ONCE 1u      /**< fire once, keep the timer (stopped / inactive) */
#define QOSA_TIMER_ONCE_FREE 2u /**< fire once, then release it */
/** @} */

/** @name Tasklets
 * Deferred calls, run in order by the timer thread. A drain takes the queued
 * batch under the queue's lock and runs it without the lock, so a tasklet
 * may queue again (to the next drain). */
/** @{ */
/** A tasklet function. @param arg its argument */
typedef void (*tsklet_fn)(void* arg);

/** One queued call, allocated by the queueing function and released by the
 * drain. */
typedef struct tsklet {
    struct tsklet* next; /**< next tasklet, or the head */
    struct tsklet* prev; /**< previous tasklet, or the head */
    tsklet_fn fn;        /**< what to run */
    void* arg;           /**< its argument (the queuer's; never looked into) */
} tsklet;

/** A queue: circular, doubly linked through the head; empty when next and
 * prev point to the head itself. */
typedef struct tsklet_head {
    tsklet* next;   /**< first tasklet, or the head */
    tsklet* prev;   /**< last tasklet, or the head */
    QosaMutex lock; /**< guards the links */
} tsklet_head;

/** Makes a queue empty and initialises its lock. @param q the queue
 * @return QOSA_MutexInit's result; -1 for NULL */
QOSA_API s32 tsklet_init(tsklet_head* q);
/** Queues fn(arg) at the end. @param q the queue @param fn the function
 * @param arg its argument @return 0; 12 (errno 12) when memory is short; 22
 * for a null q or fn */
QOSA_API u32 tsklet_invokelater(tsklet_head* q, tsklet_fn fn, void* arg);
/** Queues fn(arg) at the front, ahead of everything queued. @param q the
 * queue @param fn the function @param arg its argument
 * @return 0; 12 (errno 12) when memory is short; 22 for a null q or fn */
QOSA_API u32 tsklet_invokefirst(tsklet_head* q, tsklet_fn fn, void* arg);
/** Runs and removes every queued tasklet, first to last. @param q the queue
 * @return the result of unlocking q; -1 for NULL or when it cannot be locked */
QOSA_API s32 tsklet_invokeall(tsklet_head* q);
/** Removes and frees every queued tasklet without running it (their
 * arguments are not freed), then destroys the lock. @param q the queue
 * @return 0; 22 for NULL */
QOSA_API u32 tsklet_delinit(tsklet_head* q);
/** @} */

/** @name Tick hooks and service flags */
/** @{ */
/** A tick hook, run by the timer thread. @param ticks the 10-ms ticks
 * gathered since its last call */
typedef void (*petimer_tickhook_fn)(s64 ticks);

/** Adds a hook at the front of the list (only while no timer thread runs).
 * @param hook the hook @param period ticks to gather between calls, at least 1
 * @return 0; 12 (errno 12) when memory is short; 22 for a null hook or a
 *         period below 1 */
QOSA_API u32 petimer_register_tickhook(petimer_tickhook_fn hook, s64 period);
/** Removes the first record of a hook (an unknown hook is no error).
 * @param hook the hook @return 0; 22 for NULL */
QOSA_API u32 petimer_deregister_tickhook(petimer_tickhook_fn hook);
/** The quitting flag. @return 1 while a stop of the service is under way,
 * else 0 */
QOSA_API u32 petimer_isQuiting(void);
/** The recorded timer thread. @return its id; 0 when there is none */
QOSA_API pthread_t petimer_getTreadId(void);
/** Records the timer thread's id. @param tid the id */
QOSA_API void petimer_setTreadId(pthread_t tid);
/** @} */

/** @name The timer thread */
/** @{ */
/** Sets the service up and starts the timer thread, if not done yet.
 * @param outTid receives the thread's id (not written when already running),
 *        or NULL
 * @param attr thread attributes, or NULL
 * @return 0 when the service runs afterwards; 1 when an index lock cannot be
 *         taken, 12 when memory is short, the thread creation's error
 *         number (the finished steps are undone); 0xFFFFFFFF while a stop
 *         winds down */
QOSA_API u32 petimer_start(pthread_t* outTid, const pthread_attr_t* attr);
/** Waits for the timer thread to end and marks the service stopped.
 * @param tid the thread @return the join's result */
QOSA_API s32 petimer_stop(pthread_t tid);
/** The timer thread's body: ticks every 10 ms until the quitting flag is set,
 * then runs what is queued and frees every timer. @param unused not read
 * @return NULL */
QOSA_API void* petimer_proc(void* unused);
/** Sets the quitting flag. @param value 1 to stop, 0 afterwards
 * @param withLocks non-zero: set it holding both index locks */
QOSA_API void petimer_setQuitingFlag(u32 value, s32 withLocks);
/** @} */

/** @name Relative timers
 * The internal operations behind the QOSA_ relative-timer calls. A handle
 * passes the test when it is a slot of the index array holding a live timer
 * and the service is set up and not quitting. */
/** @{ */
QOSA_API extern u32 ulMaxReltmNum;   /**< slots of the relative index, 2000 (QOSA_TMRSetMaxReltmNum) */
QOSA_API extern s32 g_reltmNum;      /**< live relative timers */
QOSA_API extern void** g_szRelTimer; /**< the relative index: a timer's address, or a link to the next free slot */
QOSA_API extern void** g_pRelHead;   /**< first free slot of the relative index, NULL when none */
QOSA_API extern void** g_pRelTail;   /**< last free slot of the relative index, NULL when none */

/** Sets the relative timers up: tick hook, tasklet queue, index, wheel.
 * @return 0; the failing step's code (1 index lock, 12 memory, 22), with the
 *         finished steps undone */
QOSA_API u32 init_reltm(void);
/** Builds the relative index of ulMaxReltmNum slots, all free.
 * @return 0; 1 when the index lock cannot be taken; 12 when memory is short */
QOSA_API u32 init_RelIndex(void);
/** Tears the relative timers down (on the timer thread, at its end): frees
 * every timer and the index, removes the hook. @return 0 */
QOSA_API u32 delinit_reltm(void);
/** Creates a stopped relative timer in a free slot; the caller counts it.
 * @param proc the callback @param mode QOSA_TIMER_... (low 8 bits kept)
 * @return the handle; NULL with errno 22 for a null proc, 12 when memory is
 *         short; NULL (errno unchanged) when no slot is free or the service
 *         is not accepting */
QOSA_API void* petimer_create_reltimer(QOSA_TimerProc proc, u32 mode);
/** Queues a start: a running timer restarts its countdown.
 * @param h the handle @param intervalMs the interval, rounded to 10-ms ticks
 *        (at least one) @param arg the callback's argument
 * @return 0; 12 when memory is short; 22 for a bad handle */
QOSA_API u32 petimer_start_reltimer(void* h, u32 intervalMs, void* arg);
/** Queues a stop; the timer stays allocated and can be started again.
 * @param h the handle @param done called on the timer thread once the timer
 *        is off the wheel, or NULL @param doneArg its argument
 * @return 0; 12 when memory is short; 22 for a bad handle */
QOSA_API u32 petimer_stop_reltimer_safe(void* h, QOSA_TimerDoneProc done, void* doneArg);
/** As petimer_stop_reltimer_safe, and stores the timer's current argument.
 * @param h the handle @param done completion callback, or NULL
 * @param doneArg its argument @param outArg receives the argument
 * @return 0; 12 when memory is short; 22 for a bad handle or a null outArg */
QOSA_API u32 petimer_stop_reltimer_safeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg);
/** Frees a timer: the handle is invalid at once, the record is released on
 * the timer thread. @param h the handle
 * @return 0; 12 when memory is short (the handle stays valid); 22 for a bad
 *         or already freed handle */
QOSA_API u32 petimer_free_reltimer(void* h);
/** Releases a tracked block on the timer thread, after every request queued
 * before: the way to free a callback argument after freeing its timers.
 * @param block a block of the tracked allocator
 * @return 0; 12 when memory is short; 22 while the service is not accepting */
QOSA_API u32 petimer_free_reltimerarg_safe(void* block);
/** Starts a counted one-shot timer that is released after it fired; the
 * caller gets no handle. @param intervalMs the interval
 * @param proc the callback @param arg its argument
 * @return 0; 12 when it cannot be created (also for a null proc); 22 when
 *         the service is not accepting */
QOSA_API u32 petimer_start_reltimer_simple(u32 intervalMs, QOSA_TimerProc proc, void* arg);
/** Drains the relative timers' tasklet queue (timer thread).
 * @return tsklet_invokeall's result */
QOSA_API s32 reltmr_post_tasklet(void);
/** Locks the relative index. @return QOSA_MutexLock's result */
QOSA_API s32 reltmr_idxLock(void);
/** Unlocks the relative index. @return QOSA_MutexUnLock's result */
QOSA_API s32 reltmr_idxUnLock(void);
/** @} */

/** @name Absolute timers
 * The internal operations behind the QOSA_ absolute-timer calls; the handle
 * test is the one of the relative timers, on the absolute index. */
/** @{ */
QOSA_API extern u32 ulMaxAbstmNum;   /**< slots of the absolute index, 2000 (QOSA_TMRSetMaxAbstmNum) */
QOSA_API extern s32 g_abstmNum;      /**< live absolute timers */
QOSA_API extern void** g_szAbsTimer; /**< the absolute index: a timer's address, or a link to the next free slot */
QOSA_API extern void** g_pAbsHead;   /**< first free slot of the absolute index, NULL when none */
QOSA_API extern void** g_pAbsTail;   /**< last free slot of the absolute index, NULL when none */

/** Sets the absolute timers up: active list, tasklet queue, index, tick hook
 * (period 100). @return 0; the failing step's code (1 index lock, 12 memory,
 * 22), with the finished steps undone */
QOSA_API u32 init_abstm(void);
/** Builds the absolute index of ulMaxAbstmNum slots, all free.
 * @return 0; 1 when the index lock cannot be taken; 12 when memory is short */
QOSA_API u32 init_AbsIndex(void);
/** Tears the absolute timers down (on the timer thread, at its end): frees
 * every timer and the index, removes the hook. @return 0 */
QOSA_API u32 delinit_abstm(void);
/** Zeroes and frees the absolute index. @return 0 */
QOSA_API s32 delinit_AbsIndex(void);
/** Creates an inactive absolute timer in a free slot; the caller counts it.
 * @param proc the callback @param mode QOSA_TIMER_...
 * @return the handle; NULL with errno 22 for a null proc, 12 when memory is
 *         short; NULL (errno unchanged) when no slot is free or the service
 *         is quitting */
QOSA_API void* petimer_create_abstimer(QOSA_TimerProc proc, u32 mode);
/** Queues a start: the timer fires at every local-time second that matches
 * the pattern; starting an active timer replaces its pattern and argument.
 * @param h the handle
 * @param when the pattern in struct tm form (month 0-11, year from 1900, -1 =
 *        any)
 * @param arg the callback's argument
 * @return 0; 12 when memory is short; 22 for a bad handle or a null when */
QOSA_API u32 petimer_start_abstimer(void* h, const struct tm* when, void* arg);
/** Queues a stop; the timer stays allocated and can be started again.
 * @param h the handle @param done completion callback, or NULL
 * @param doneArg its argument @return 0; 12 when memory is short; 22 for a
 * bad handle */
QOSA_API u32 petimer_stop_abstimer_safe(void* h, QOSA_TimerDoneProc done, void* doneArg);
/** As petimer_stop_abstimer_safe, and stores the timer's current argument.
 * @param h the handle @param done completion callback, or NULL
 * @param doneArg its argument @param outArg receives the argument
 * @return 0; 12 when memory is short; 22 for a bad handle or a null outArg */
QOSA_API u32 petimer_stop_abstimer_safeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg);
/** Frees a timer: the handle is invalid at once, the record is released at
 * the next absolute pass. @param h the handle
 * @return 0; 12 when memory is short; 22 for a bad or already freed handle */
QOSA_API u32 petimer_free_abstimer(void* h);
/** Returns a live slot to the end of the free list (its content NULL).
 * @param slot the slot @return 0; 22 when it is no live slot */
QOSA_API u32 petimer_relAbsIndex(void** slot);
/** Drains the absolute timers' tasklet queue (timer thread).
 * @return tsklet_invokeall's result */
QOSA_API s32 abstmr_post_tasklet(void);
/** Locks the absolute index. @return QOSA_MutexLock's result */
QOSA_API s32 abstmr_indexLock(void);
/** Unlocks the absolute index. @return QOSA_MutexUnLock's result */
QOSA_API s32 abstmr_indexUnLock(void);
/** @} */

/** @name The public timer interface */
/** @{ */
/** The system-control hook, registered with QOSA_SYSCTRL_RegSysCtrlRegTaskTid.
 * @param name the task's name @param args the caller's further arguments
 * @return passed back to the caller of QOSA_SysCtrlRegTaskTid */
typedef int (*QOSA_SysCtrlRegTaskTidProc)(const char* name, va_list args);

QOSA_API extern QOSA_TimerDebugProc g_pfnTimerDebug;                   /**< the debug trace receiver, or NULL */
QOSA_API extern QOSA_SysCtrlRegTaskTidProc g_pfnSysCtrlRegTaskTidFunc; /**< the system-control hook, or NULL */

/** Starts the timer service (timer creation does it too).
 * @param outTid receives the timer thread's id, or NULL
 * @param attr thread attributes, or NULL
 * @return 0 when it runs; 0xFFFFFFFF while a stop is under way; else as
 *         petimer_start */
QOSA_API u32 QOSA_StartTimerTask(pthread_t* outTid, const pthread_attr_t* attr);
/** Stops the timer service: returns once the thread has run every queued
 * request, freed every timer and ended; the service can start again. Not on
 * the timer thread. @return 0; 0xFFFFFFFF when no timer thread runs, a stop
 * is under way, or called on the timer thread */
QOSA_API u32 QOSA_StopTimerTask(void);
/** Creates an absolute timer (inactive until started), starting the service
 * if needed. At most 2000 live, fewer when QOSA_TMRSetMaxAbstmNum set less.
 * @param proc the callback @param mode QOSA_TIMER_...
 * @return the handle, freed with QOSA_FreeAbsTimer; NULL when quitting, the
 *         service cannot start, the limit is reached, memory is short, or
 *         proc is NULL (errno 22) */
QOSA_API void* QOSA_CreateAbsTimerM(QOSA_TimerProc proc, u32 mode);
/** Creates a relative timer (stopped until started), starting the service if
 * needed. At most 2000 live, fewer when QOSA_TMRSetMaxReltmNum set less.
 * @param proc the callback @param mode QOSA_TIMER_...
 * @param line,file where it was made, named by the long-callback warning
 *        (file is kept, not copied: it must outlive the timer)
 * @return the handle, freed with QOSA_FreeRelTimer; NULL as for
 *         QOSA_CreateAbsTimerM */
QOSA_API void* QOSA_CreateRelTimerM(QOSA_TimerProc proc, u32 mode, u32 line, const char* file);
/** Starts an absolute timer: it fires at every local-time second that
 * matches when. @param h the handle
 * @param when the pattern (read only during the call; -1 = any)
 * @param arg the callback's argument
 * @return 0; 12 when memory is short; 22 for a bad handle or a null or
 *         invalid when (ZAL_IsSysTimeValid) */
QOSA_API u32 QOSA_StartAbsTimer(void* h, const QOSA_SysTime* when, void* arg);
/** Starts (or restarts) a relative timer. @param h the handle
 * @param intervalMs the interval: (intervalMs + 5) / 10 ticks of 10 ms, at
 *        least one; a periodic timer fires every interval plus one tick
 * @param arg the callback's argument
 * @return 0; 12 when memory is short; 22 for a bad handle */
QOSA_API u32 QOSA_StartRelTimer(void* h, u32 intervalMs, void* arg);
/** Stops an absolute timer safely; it stays allocated. @param h the handle
 * @param done called on the timer thread once it is off its list, or NULL
 * @param doneArg its argument @return 0; 12 when memory is short; 22 for a
 * bad handle or while quitting */
QOSA_API u32 QOSA_StopAbsTimer_Safe(void* h, QOSA_TimerDoneProc done, void* doneArg);
/** Stops a relative timer safely; it stays allocated. @param h the handle
 * @param done called on the timer thread once it is off the wheel, or NULL
 * @param doneArg its argument @return 0; 12 when memory is short; 22 for a
 * bad handle or while quitting */
QOSA_API u32 QOSA_StopRelTimer_Safe(void* h, QOSA_TimerDoneProc done, void* doneArg);
/** As QOSA_StopAbsTimer_Safe, and stores the timer's current argument.
 * @param h the handle @param done completion callback, or NULL
 * @param doneArg its argument @param outArg receives the argument
 * @return 0; 12 when memory is short; 22 for a bad handle or a null outArg */
QOSA_API u32 QOSA_StopAbsTimer_SafeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg);
/** As QOSA_StopRelTimer_Safe, and stores the timer's current argument.
 * @param h the handle @param done completion callback, or NULL
 * @param doneArg its argument @param outArg receives the argument
 * @return 0; 12 when memory is short; 22 for a bad handle or a null outArg */
QOSA_API u32 QOSA_StopRelTimer_SafeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg);
/** Frees an absolute timer; the handle is invalid at once. @param h the
 * handle @return 0; 12 when memory is short; 22 for a bad or freed handle */
QOSA_API u32 QOSA_FreeAbsTimer(void* h);
/** Frees a relative timer; the handle is invalid at once and the timer never
 * fires again. @param h the handle
 * @return 0; 12 when memory is short (the handle stays valid); 22 for a bad
 *         or freed handle */
QOSA_API u32 QOSA_FreeRelTimer(void* h);
/** A one-shot relative timer that is released after it fired; the caller
 * gets no handle and cannot stop it. @param intervalMs the interval
 * @param proc the callback @param arg its argument
 * @return 0; 12 when it cannot be made (also for a null proc, errno 22); 22
 *         when the service is not accepting; 0xFFFFFFFF while quitting; else
 *         as petimer_start */
QOSA_API u32 QOSA_StartRelTimer_Simple(u32 intervalMs, QOSA_TimerProc proc, void* arg);
/** Releases a tracked block on the timer thread after every request queued
 * before it: free a callback argument this way after freeing its timers.
 * @param block a block of the tracked allocator
 * @return 0; 12 when memory is short; 22 while the service is stopped or
 *         stopping (the block is not released) */
QOSA_API u32 QOSA_FreeRelTimerArg_safe(void* block);
/** Sets the absolute-timer limit; ignored while the service is set up.
 * @param n the most live absolute timers (2000 at most count) */
QOSA_API void QOSA_TMRSetMaxAbstmNum(u32 n);
/** Sets the relative-timer limit; ignored while the service is set up.
 * @param n the most live relative timers (2000 at most count) */
QOSA_API void QOSA_TMRSetMaxReltmNum(u32 n);
/** Registers the debug trace: "Timer initialize success.\n" when the service
 * starts, and a warning naming a timer whose callback took over 100 ms.
 * @param fn the receiver; NULL switches the trace off */
QOSA_API void QOSA_TimerRegDebugTrace(QOSA_TimerDebugProc fn);
/** Formats a text and sends it to the debug trace; nothing is sent without a
 * receiver or when the text exceeds 511 characters.
 * @param fmt printf format, then its arguments */
QOSA_API void qosa_timer_debug(const char* fmt, ...);
/** Registers the system-control hook. @param fn the hook, or NULL
 * @return 0 */
QOSA_API u32 QOSA_SYSCTRL_RegSysCtrlRegTaskTid(QOSA_SysCtrlRegTaskTidProc fn);
/** Passes a task registration to the system-control hook; without one,
 * prints "QOSA_SysCtrlRegTaskTid <name>" on standard output.
 * @param name the task's name, then further arguments for the hook
 * @return the hook's result, or printf's */
QOSA_API int QOSA_SysCtrlRegTaskTid(const char* name, ...);
/** @} */

/** @name Relative timer groups
 * A fixed-size set of periodic relative timers sharing one callback; members
 * are numbered 0 to count - 1. A group has no lock: a caller that starts or
 * stops members from several threads serialises those calls. */
/** @{ */
/** A group's callback, on the timer thread. @param index the member that
 * expired @param userValue its value from the last start */
typedef void (*QOSA_GrpTimeoutProc)(u32 index, u32 userValue);

/** One member of a group. */
typedef struct QOSA_RelTimerGrpEntry {
    u32 userValue;            /**< the caller's value from the last start */
    u32 index;                /**< the member's own number */
    u32 mode;                 /**< 0 or 1, from the last start (stored, changes nothing) */
    u32 interval;             /**< interval in milliseconds, from the last start */
    QOSA_GrpTimeoutProc proc; /**< the group's callback */
    void* timer;              /**< the member's relative timer while it exists, else NULL */
    u32 started;              /**< 1 while the member's timer runs */
} QOSA_RelTimerGrpEntry;

/** A relative timer group, allocated by QOSA_InitReltimerGrp. */
typedef struct QOSA_RelTimerGrp {
    u32 count;                      /**< number of members */
    u32 valid;                      /**< 1 for a live group */
    QOSA_GrpTimeoutProc proc;       /**< the shared callback */
    QOSA_RelTimerGrpEntry* entries; /**< the members */
} QOSA_RelTimerGrp;

/** Creates a group with every member stopped. Checks out, then proc, then
 * count. @param out receives the group, freed with QOSA_FreeRelTimerGrp
 * @param count number of members, 1 to ulMaxReltmNum
 * @param proc the shared callback
 * @retval 0 created
 * @retval 0x20160032 out is NULL
 * @retval 0x20160037 proc is NULL
 * @retval 0x20160034 count is above ulMaxReltmNum
 * @retval 0x20160036 memory is short (also for count 0) */
QOSA_API u32 QOSA_InitReltimerGrp(QOSA_RelTimerGrp** out, u32 count, QOSA_GrpTimeoutProc proc);
/** Starts a member's periodic timer; a running member is left as it is.
 * @param grp the group @param index the member
 * @param intervalMs the interval @param userValue handed to the callback
 * @param mode 0 or 1
 * @retval 0 started, or already running
 * @retval 0x20160039 grp is NULL or not valid
 * @retval 0x2016003B index is not below count
 * @retval 0x2016003C mode is above 1
 * @retval 0x2016003D the member's timer could not be created or started */
QOSA_API u32 QOSA_StartRelTimerofGrp(QOSA_RelTimerGrp* grp, u32 index, u32 intervalMs, u32 userValue, u8 mode);
/** Stops a member and frees its timer; it can be started again at once.
 * @param grp the group @param index the member
 * @retval 0 stopped
 * @retval 0x20160040 grp is NULL
 * @retval 0x20160041 grp is not valid
 * @retval 0x20160042 index is not below count
 * @retval 0x20160044 the member is not started
 * @retval 0x20160043 stopping or freeing its timer failed */
QOSA_API u32 QOSA_StopRelTimerofGrp(QOSA_RelTimerGrp* grp, u32 index);
/** Frees every member timer, then the group's memory on the timer thread
 * behind them: no callback arrives afterwards. Do not use the group after 0.
 * @param grp the group
 * @retval 0 freed
 * @retval 0x20160046 grp is NULL
 * @retval 0x20160047 grp is not valid
 * @retval 0x20160048 freeing a member's timer failed (the group stays valid) */
QOSA_API u32 QOSA_FreeRelTimerGrp(QOSA_RelTimerGrp* grp);
/** The timeout function of every member's timer: calls the group's callback
 * with the member's number and value. @param member a QOSA_RelTimerGrpEntry*;
 * NULL does nothing */
QOSA_API void QOSA_TimeoutFuncOfGrp(void* member);
/** @} */

QOSA_EXTERN_C_END

#endif /* QOSA_TIMER_H */
