// What the timer units share beyond the exported interface.
//
// Set-up and teardown: init_abstm / init_reltm leave nothing behind when they
// fail (no hook, no queue, no index); delinit_abstm / delinit_reltm undo a
// completed set-up and are also called by petimer_start when a later step
// fails, before any timer thread exists.
#pragma once

#include "qosa_lock.h"
#include "qosa_timer.h"
#include "qosa_types.h"

namespace qosa::timer {

// 1 while the service is set up and its thread was created (tmr_petimer).
u8 service_set_up();

// Stores the quitting flag, with both index locks held (relative first) when
// withLocks; false (nothing stored) when a lock cannot be taken.
bool set_quitting(u32 value, bool withLocks);
QosaMutex* reltm_index_lock();
QosaMutex* abstm_index_lock();

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
