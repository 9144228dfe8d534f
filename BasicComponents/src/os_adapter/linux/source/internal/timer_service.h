// What the timer units share beyond the exported interface: the calls they
// make of one another (each exported timer function is a shell over one of
// these, so the library's own calls bind inside it) and the pieces of the
// mechanism that more than one unit needs.
//
// The units, bottom up: tmr_tsklet (the request queues), tmr_petimer (the
// tick loop, the tick hooks, the service flags, the debug trace), the kinds
// tmr_pereltm and tmr_peabstm, tmr_interface (the service's start and stop,
// which sets the kinds up and down, and the public calls), tmr_group.
//
// Set-up and teardown: rel_set_up / abs_set_up leave nothing behind when they
// fail (no hook, no queue, no index); rel_tear_down / abs_tear_down undo a
// completed set-up and are also called by the start when a later step fails,
// before any timer thread exists.
#pragma once

#include <pthread.h>

#include <cstdarg>
#include <ctime>

#include "qosa_lock.h"
#include "qosa_timer.h"
#include "qosa_types.h"

namespace qosa::timer {

// ---- Request queues (tmr_tsklet): the tsklet_* calls ----

s32 queue_init(tsklet_head* q);                           // tsklet_init
u32 queue_later(tsklet_head* q, tsklet_fn fn, void* arg); // tsklet_invokelater
u32 queue_first(tsklet_head* q, tsklet_fn fn, void* arg); // tsklet_invokefirst
s32 queue_drain(tsklet_head* q);                          // tsklet_invokeall
u32 queue_discard(tsklet_head* q);                        // tsklet_delinit

// ---- The tick loop, the hooks and the flags (tmr_petimer) ----

u32 register_tickhook(petimer_tickhook_fn hook, s64 period); // petimer_register_tickhook
u32 deregister_tickhook(petimer_tickhook_fn hook);           // petimer_deregister_tickhook
u32 quitting();                                              // petimer_isQuiting
void store_quitting(u32 value);                              // the flag alone, no lock taken
pthread_t thread_id();                                       // petimer_getTreadId
void set_thread_id(pthread_t tid);                           // petimer_setTreadId
// Hands the ticks of every 10-ms cycle to the hooks until the quitting flag is set.
void tick_until_quitting();
// The debug trace (qosa_timer_debug): the text goes to the registered
// receiver, when there is one and the text fits in 511 bytes.
void vdebug(const char* fmt, va_list args);
void debug(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// ---- Relative timers (tmr_pereltm): the petimer_*reltimer* calls ----

u32 rel_set_up();                                                             // init_reltm
void rel_tear_down();                                                         // delinit_reltm
s32 rel_drain();                                                              // reltmr_post_tasklet
void* rel_create(QOSA_TimerProc proc, u32 mode);                              // petimer_create_reltimer
u32 rel_start(void* h, u32 intervalMs, void* arg);                            // petimer_start_reltimer
u32 rel_stop(void* h, QOSA_TimerDoneProc done, void* doneArg);                // petimer_stop_reltimer_safe
u32 rel_stop_ex(void* h, QOSA_TimerDoneProc done, void* doneArg, void** out); // petimer_stop_reltimer_safeEx
u32 rel_free(void* h);                                                        // petimer_free_reltimer
u32 rel_free_arg(void* block);                                                // petimer_free_reltimerarg_safe
u32 rel_start_simple(u32 intervalMs, QOSA_TimerProc proc, void* arg);         // petimer_start_reltimer_simple
QosaMutex* reltm_index_lock();

// ---- Absolute timers (tmr_peabstm): the petimer_*abstimer* calls ----

u32 abs_set_up();                                                             // init_abstm
void abs_tear_down();                                                         // delinit_abstm
s32 abs_drain();                                                              // abstmr_post_tasklet
void* abs_create(QOSA_TimerProc proc, u32 mode);                              // petimer_create_abstimer
u32 abs_start(void* h, const struct tm* when, void* arg);                     // petimer_start_abstimer
u32 abs_stop(void* h, QOSA_TimerDoneProc done, void* doneArg);                // petimer_stop_abstimer_safe
u32 abs_stop_ex(void* h, QOSA_TimerDoneProc done, void* doneArg, void** out); // petimer_stop_abstimer_safeEx
u32 abs_free(void* h);                                                        // petimer_free_abstimer
QosaMutex* abstm_index_lock();

// ---- The service (tmr_interface) ----

u32 service_start(pthread_t* outTid, const pthread_attr_t* attr); // petimer_start
s32 service_stop(pthread_t tid);                                  // petimer_stop
// 1 while the service is set up and its thread was created.
u8 service_set_up();
// Stores the quitting flag, with both index locks held (relative first) when
// withLocks; false (nothing stored) when a lock cannot be taken.
bool set_quitting(u32 value, bool withLocks);
// QOSA_CreateRelTimerM: starts the service and counts the timer in.
void* create_rel_timer(QOSA_TimerProc proc, u32 mode, u32 line, const char* file);

// ---- The live counts ----

// The live count of a kind of timer, changed only here: a create reserves a
// unit before the timer exists (so concurrent creates never pass the limit)
// and gives it back when that fails; the kind lowers it when a timer goes.
struct LiveCount {
    static constexpr s32 kHardLimit = 2000; // whatever the maximum says

    s32& n;
    u32& max;

    bool reserve() const {
        const s32 limit = static_cast<s32>(__atomic_load_n(&max, __ATOMIC_RELAXED));
        s32 cur = __atomic_load_n(&n, __ATOMIC_ACQUIRE);
        do {
            if (cur >= kHardLimit || cur >= limit) return false;
        } while (!__atomic_compare_exchange_n(&n, &cur, cur + 1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE));
        return true;
    }
    void add() const { __atomic_fetch_add(&n, 1, __ATOMIC_ACQ_REL); }
    void sub() const { __atomic_fetch_sub(&n, 1, __ATOMIC_ACQ_REL); }
};
inline LiveCount reltm_count() { return {g_reltmNum, ulMaxReltmNum}; }
inline LiveCount abstm_count() { return {g_abstmNum, ulMaxAbstmNum}; }

// ---- Requests in storage reserved beforehand ----

// A tasklet whose storage its owner reserved (inside a timer record, say), so
// queueing it needs no memory and cannot fail. The drain runs fn(arg) and
// leaves the storage alone (fn may free it); tsklet_delinit discards it
// likewise. Queue it again only once it has run. false when the queue's lock
// cannot be taken (nothing queued).
struct OwnedTasklet {
    tsklet node; // what the queue links; its call forwards to fn(arg)
    tsklet_fn fn;
    void* arg;
};
enum class QueueAt { front, back };
bool tsklet_post(tsklet_head* q, OwnedTasklet* t, tsklet_fn fn, void* arg, QueueAt at);

// Queues fn(arg) at the end of the relative requests in t: what
// QOSA_FreeRelTimerArg_safe does for a release, without memory, and also
// while the service stops (its teardown runs it then). false when the
// relative timers are not set up: nothing queued would run, and no relative
// callback can run either.
bool reltm_post_release(OwnedTasklet* t, tsklet_fn fn, void* arg);

// Records the source position of a fresh relative timer (named by the
// long-callback warning). Ignored for a handle that fails the handle test.
void reltimer_set_origin(void* h, u32 line, const char* file);

// ---- The tick accounting of one cycle of the timer thread ----

inline constexpr s64 kMaxTicksPerCycle = 1024; // a burst is handed over in slices of this

// Microseconds to sleep so that the wake-up falls on the next 10-ms boundary
// counted from the previous wake-up; passedMs is the time since then.
u32 sleep_us(u32 passedMs);

struct CycleTicks {
    s64 ticks; // count handed to the hooks this cycle; 0: no hook is called
    s64 carry; // planned minus real sleeping, in ms, still to be settled
    bool operator==(const CycleTicks&) const = default;
};
// passedMs: clock difference from the previous wake-up to the start of the
// sleep; plannedUs: what sleep_us asked for; sleptMs: clock difference over
// the sleep (both taken modulo 2^32; a difference of 2^31 or more counts as
// a step back of the clock).
CycleTicks cycle_ticks(u32 passedMs, u32 plannedUs, u32 sleptMs, s64 carry);

// Number of registered tick hooks.
int tickhook_count();

// ---- The relative timers' wheel, for driving it by hand ----

// The relative pass (the tick hook of period 1): drains the relative
// requests, then processes n ticks.
void reltm_trigger(s64 n);
// Number of the next tick the pass processes.
u32 reltm_tick_last();

} // namespace qosa::timer
