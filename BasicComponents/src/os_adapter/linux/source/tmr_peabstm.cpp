// Absolute timers: callbacks matched against local wall-clock time, second by
// second. The index, the requests and the count are those of every kind of
// timer (internal/timer_kind.h); the requests are carried out at the start of
// the absolute pass (the tick hook of period 100, about once a second) by the
// timer thread, which alone touches the active list. The release of a
// QOSA_TIMER_ONCE_FREE timer after it fired goes in the request embedded in
// its record, so the timer thread never needs memory for it.
#define QOSA_UNIT_NAME "tmr_peabstm.c"

#include <cerrno>
#include <ctime>
#include <new>

#include "internal/common.h"
#include "internal/clock.h"
#include "internal/ilist.h"
#include "internal/lock.h"
#include "internal/time.h"
#include "internal/timer_kind.h"
#include "qosa_timer.h"

extern "C" {
u32 ulMaxAbstmNum = 2000;
s32 g_abstmNum = 0; // changed through LiveCount only
void** g_szAbsTimer = nullptr;
void** g_pAbsHead = nullptr;
void** g_pAbsTail = nullptr;
}

namespace {

struct abstimer {
    qosa::ilist::Link link; // the active list
    QOSA_TimerProc timeout_proc;
    u32 mode;
    struct tm when; // month 0-11, year from 1900, -1 = any
    void* arg;      // written on the timer thread, read by safeEx under the index lock: atomic
    s32 index;
    qosa::timer::OwnedTasklet own; // its release after firing (QOSA_TIMER_ONCE_FREE), queued once
};

struct abstm_start_req {
    abstimer* timer;
    struct tm when;
    void* arg;
};

// The active list: started timers, newest first.
qosa::ilist::List<abstimer, &abstimer::link> _activate_timers;

s64 last_tv = -1; // last second examined (set again at every set-up)
s64 now = 0;      // second examined up to by the current pass

// Seconds one pass catches up at most; a larger step restarts at the current second.
constexpr s64 kMaxCatchUp = 60;

void unlink(abstimer* t) {
    if (t->link.linked()) _activate_timers.remove(t);
}

struct AbsTraits {
    using Record = abstimer;
    static constexpr void**& slots = g_szAbsTimer;
    static constexpr void**& head = g_pAbsHead;
    static constexpr void**& tail = g_pAbsTail;
    static qosa::timer::LiveCount count() { return qosa::timer::abstm_count(); }
    static constexpr bool kCountsWithSlot = false;
    static void take_off(abstimer* t) { unlink(t); }
};
using Abs = qosa::timer::Kind<AbsTraits>;

void _starttimer(void* p) {
    auto* req = static_cast<abstm_start_req*>(p);
    abstimer* t = req->timer;
    t->when = req->when;
    __atomic_store_n(&t->arg, req->arg, __ATOMIC_RELAXED);
    if (!t->link.linked()) _activate_timers.push_front(t);
    QOSA_RELEASE(req);
}

// ---- The pass ----

bool field_matches(int want, int have) { return want == -1 || want == have; }

bool matches(const struct tm& when, const struct tm& at) {
    return field_matches(when.tm_sec, at.tm_sec) && field_matches(when.tm_min, at.tm_min) &&
           field_matches(when.tm_hour, at.tm_hour) && field_matches(when.tm_mday, at.tm_mday) &&
           field_matches(when.tm_mon, at.tm_mon) && field_matches(when.tm_year, at.tm_year);
}

// After a match: false when no further second is to be examined for t.
bool after_firing(abstimer* t) {
    if ((t->mode & QOSA_TIMER_ONCE_FREE) != 0) {
        Abs::release_fired(t);
        return false;
    }
    if ((t->mode & QOSA_TIMER_ONCE) != 0) {
        unlink(t);
        return false;
    }
    return true;
}

void _abstm_trigger(s64 /*ticks*/) {
    qosa::timer::abs_drain();
    now = static_cast<s64>(qosa::clock::wall_sec());
    if (static_cast<u64>(now - last_tv) > static_cast<u64>(kMaxCatchUp)) last_tv = now - 1;
    if (_activate_timers.empty()) {
        last_tv = now;
        return;
    }
    // Each examined second is broken down once for all timers.
    struct tm at[kMaxCatchUp];
    bool known[kMaxCatchUp];
    const s64 seconds = now - last_tv;
    for (s64 i = 0; i < seconds; ++i) {
        time_t s = static_cast<time_t>(last_tv + 1 + i);
        known[i] = qosa::time::local_time(&at[i], &s) == 0;
    }
    for (abstimer& t : _activate_timers) {
        for (s64 i = 0; i < seconds; ++i) {
            if (!known[i] || !matches(t.when, at[i])) continue;
            // A timer freed by an earlier callback of this pass stays on the
            // list until its release runs, but does not fire.
            if (!Abs::may_fire(&t, [](abstimer*) {})) break;
            t.timeout_proc(__atomic_load_n(&t.arg, __ATOMIC_RELAXED));
            if (!after_firing(&t)) break;
        }
    }
    last_tv = now;
}

u32 start_list() {
    _activate_timers.clear();
    // The first pass examines the seconds since the set-up: a timer started
    // at once for the next second is not missed, and a restart does not
    // replay the seconds since the previous run's last pass.
    last_tv = static_cast<s64>(qosa::clock::wall_sec()) - 1;
    return 0;
}

} // namespace

namespace qosa::timer {

QosaMutex* abstm_index_lock() { return &Abs::lock; }

u32 abs_set_up() {
    return Abs::set_up(
        _abstm_trigger, 100, start_list, [] { _activate_timers.clear(); }, QOSA_HERE);
}

void abs_tear_down() {
    Abs::tear_down(
        _abstm_trigger,
        [](auto drop) {
            for (abstimer& t : _activate_timers)
                drop(&t);
            _activate_timers.clear();
        },
        QOSA_HERE);
}

s32 abs_drain() { return queue_drain(&Abs::queue); }

void* abs_create(QOSA_TimerProc proc, u32 mode) {
    // Without a free slot (the service down, too) the callback is not looked
    // at: NULL with errno untouched.
    if (!Abs::has_free_slot()) return nullptr;
    if (proc == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    auto* t = QOSA_ALLOC_OF(abstimer);
    if (t == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    new (t) abstimer{{}, proc, mode, {}, nullptr, -1, {}};
    return Abs::create(t);
}

u32 abs_start(void* h, const struct tm* when, void* arg) {
    if (h == nullptr || when == nullptr) return EINVAL;
    auto* req = QOSA_ALLOC_OF(abstm_start_req);
    return Abs::request(h, req, _starttimer, [=](abstimer* t) { *req = abstm_start_req{t, *when, arg}; });
}

u32 abs_stop(void* h, QOSA_TimerDoneProc done, void* doneArg) {
    if (h == nullptr) return EINVAL;
    return Abs::stop(h, done, doneArg, nullptr, QOSA_ALLOC_OF(tm_stop_req));
}

u32 abs_stop_ex(void* h, QOSA_TimerDoneProc done, void* doneArg, void** out) {
    if (h == nullptr || out == nullptr) return EINVAL;
    return Abs::stop(h, done, doneArg, out, QOSA_ALLOC_OF(tm_stop_req));
}

u32 abs_free(void* h) { return h == nullptr ? EINVAL : Abs::free(h); }

} // namespace qosa::timer

extern "C" {

s32 abstmr_indexLock(void) { return qosa::lock::lock(&Abs::lock); }
s32 abstmr_indexUnLock(void) { return qosa::lock::unlock(&Abs::lock); }

u32 init_AbsIndex(void) { return Abs::build_index(QOSA_HERE); }

s32 delinit_AbsIndex(void) { return static_cast<s32>(Abs::drop_index(QOSA_HERE)); }

u32 init_abstm(void) { return qosa::timer::abs_set_up(); }

u32 delinit_abstm(void) {
    qosa::timer::abs_tear_down();
    return 0;
}

void* petimer_create_abstimer(QOSA_TimerProc proc, u32 mode) { return qosa::timer::abs_create(proc, mode); }

u32 petimer_start_abstimer(void* h, const struct tm* when, void* arg) { return qosa::timer::abs_start(h, when, arg); }

u32 petimer_stop_abstimer_safeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg) {
    return qosa::timer::abs_stop_ex(h, done, doneArg, outArg);
}

u32 petimer_stop_abstimer_safe(void* h, QOSA_TimerDoneProc done, void* doneArg) {
    return qosa::timer::abs_stop(h, done, doneArg);
}

u32 petimer_free_abstimer(void* h) { return qosa::timer::abs_free(h); }

u32 petimer_relAbsIndex(void** slot) {
    // No slot of the array, or free already: EINVAL.
    return Abs::with_record(slot, [=](abstimer*) { Abs::index.release(slot); }) ? 0 : EINVAL;
}

s32 abstmr_post_tasklet(void) { return qosa::timer::abs_drain(); }

} // extern "C"
