// Absolute timers: callbacks matched against local wall-clock time, second by
// second. Callers check handles under absIndexLock and queue requests on
// _abstsklets; the timer thread carries them out at the start of its absolute
// pass (the tick hook of period 100, about once a second) and owns the active
// list, which therefore has no lock. The release of a QOSA_TIMER_ONCE_FREE
// timer after it fired goes in the request embedded in its record, so the
// timer thread never needs memory for it.
#define QOSA_UNIT_NAME "tmr_peabstm.c"

#include <cerrno>
#include <cstddef>
#include <ctime>

#include "internal/common.h"
#include "internal/timer_index.h"
#include "internal/timer_service.h"
#include "qosa_mem.h"
#include "qosa_time.h"
#include "qosa_timer.h"

namespace {

struct abstimer {
    abstimer* next; // active list; the record itself while inactive
    abstimer* prev;
    QOSA_TimerProc timeout_proc;
    u32 mode;
    struct tm when; // month 0-11, year from 1900, -1 = any
    void* arg;      // written on the timer thread, read by safeEx under the index lock
    s32 index;
    qosa::timer::OwnedTasklet own; // its release after firing (QOSA_TIMER_ONCE_FREE), queued once
};
static_assert(offsetof(abstimer, next) == 0 && offsetof(abstimer, prev) == sizeof(void*),
              "the list head shares the first two links of a record");

struct abstm_start_req {
    abstimer* timer;
    struct tm when;
    void* arg;
};

struct tm_stop_req {
    abstimer* timer;
    QOSA_TimerDoneProc done;
    void* doneArg;
};

// The index lock lives as long as the process: a caller holding a stale
// handle may test it at any time, also while the service is stopped, so the
// lock is never destroyed and re-initialised under its feet.
QosaMutex absIndexLock = QOSA_MUTEX_INITIALIZER;
qosa::timer::SlotIndex s_index{g_szAbsTimer, g_pAbsHead, g_pAbsTail};

tsklet_head _abstsklets;

// The active list: started timers, newest first. Only the head's links are used.
struct {
    abstimer* next;
    abstimer* prev;
} _activate_timers;
abstimer* active_head() { return reinterpret_cast<abstimer*>(&_activate_timers); }

s64 last_tv = -1; // last second examined (set again at every set-up)
s64 now = 0;      // second examined up to by the current pass

// Seconds one pass catches up at most; a larger step restarts at the current second.
constexpr s64 kMaxCatchUp = 60;

void* take(std::size_t size) { return QOSA_MemTypeMallocD(static_cast<u32>(size), QOSA_MEM_DYN, QOSA_HERE); }
void give_back(void* p) { QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, QOSA_HERE); }

// ---- The index (callers hold absIndexLock) ----

// The record a handle names, or NULL for a handle that is no live slot.
abstimer* live(void* h) { return static_cast<abstimer*>(s_index.live(h)); }

void** slot_of(const abstimer* t) { return s_index.slot_of(t->index, t); }

void count_down() { __atomic_fetch_sub(&g_abstmNum, 1, __ATOMIC_RELAXED); }

// ---- The active list (timer thread only) ----

bool is_active(const abstimer* t) { return t->next != t; }

void unlink(abstimer* t) {
    if (!is_active(t)) return;
    t->prev->next = t->next;
    t->next->prev = t->prev;
    t->next = t;
    t->prev = t;
}

void push_front(abstimer* t) {
    abstimer* head = active_head();
    t->next = head->next;
    t->prev = head;
    head->next->prev = t;
    head->next = t;
}

// ---- Tasklets (timer thread) ----

void _starttimer(void* p) {
    auto* req = static_cast<abstm_start_req*>(p);
    abstimer* t = req->timer;
    t->when = req->when;
    __atomic_store_n(&t->arg, req->arg, __ATOMIC_RELAXED);
    if (!is_active(t)) push_front(t);
    give_back(req);
}

void _stoptimer(void* p) {
    auto* req = static_cast<tm_stop_req*>(p);
    unlink(req->timer);
    if (req->done != nullptr) req->done(req->doneArg);
    give_back(req);
}

void _rmtimer(void* p) {
    auto* t = static_cast<abstimer*>(p);
    unlink(t);
    give_back(t);
    count_down();
}

// Queues the release of a live timer's record and frees its slot (absIndexLock
// held). The request is queued first, so a failed queueing changes nothing;
// the drain that may run it at once never looks at the slot.
u32 release_timer(void** slot, abstimer* t) {
    u32 ret = tsklet_invokelater(&_abstsklets, _rmtimer, t);
    if (ret == 0) s_index.release(slot);
    return ret;
}

// ---- The pass ----

bool field_matches(int want, int have) { return want == -1 || want == have; }

bool matches(const struct tm& when, const struct tm& at) {
    return field_matches(when.tm_sec, at.tm_sec) && field_matches(when.tm_min, at.tm_min) &&
           field_matches(when.tm_hour, at.tm_hour) && field_matches(when.tm_mday, at.tm_mday) &&
           field_matches(when.tm_mon, at.tm_mon) && field_matches(when.tm_year, at.tm_year);
}

// Still owned by its handle: a timer freed by an earlier callback of this
// pass stays on the list until its release runs, but does not fire.
bool still_live(const abstimer* t) {
    MutexGuard lock(&absIndexLock);
    return slot_of(t) != nullptr;
}

// After a match: false when no further second is to be examined for t.
bool after_firing(abstimer* t) {
    if ((t->mode & QOSA_TIMER_ONCE_FREE) != 0) {
        MutexGuard lock(&absIndexLock);
        if (void** slot = slot_of(t); slot != nullptr) {
            qosa::timer::tsklet_post(&_abstsklets, &t->own, _rmtimer, t, qosa::timer::QueueAt::back);
            s_index.release(slot);
        }
        return false;
    }
    if ((t->mode & QOSA_TIMER_ONCE) != 0) {
        unlink(t);
        return false;
    }
    return true;
}

void _abstm_trigger(s64 /*ticks*/) {
    tsklet_invokeall(&_abstsklets);
    now = static_cast<s64>(QOSA_GetSysTimeSec());
    if (static_cast<u64>(now - last_tv) > static_cast<u64>(kMaxCatchUp)) last_tv = now - 1;
    abstimer* head = active_head();
    if (head->next == head) {
        last_tv = now;
        return;
    }
    // Each examined second is broken down once for all timers.
    struct tm at[kMaxCatchUp];
    bool known[kMaxCatchUp];
    const s64 seconds = now - last_tv;
    for (s64 i = 0; i < seconds; ++i) {
        time_t s = static_cast<time_t>(last_tv + 1 + i);
        known[i] = QOSA_LocalTime_S(&at[i], &s) == 0;
    }
    for (abstimer *t = head->next, *next = t->next; t != head; t = next, next = t->next) {
        for (s64 i = 0; i < seconds; ++i) {
            if (!known[i] || !matches(t->when, at[i])) continue;
            if (!still_live(t)) break;
            t->timeout_proc(t->arg);
            if (!after_firing(t)) break;
        }
    }
    last_tv = now;
}

} // namespace

extern "C" {

u32 ulMaxAbstmNum = 2000;
s32 g_abstmNum = 0;
void** g_szAbsTimer = nullptr;
void** g_pAbsHead = nullptr;
void** g_pAbsTail = nullptr;

s32 abstmr_indexLock(void) { return QOSA_MutexLock(&absIndexLock); }
s32 abstmr_indexUnLock(void) { return QOSA_MutexUnLock(&absIndexLock); }

u32 init_AbsIndex(void) {
    MutexGuard lock(&absIndexLock);
    if (!lock.locked()) return 1;
    return s_index.build(__atomic_load_n(&ulMaxAbstmNum, __ATOMIC_RELAXED), QOSA_HERE);
}

s32 delinit_AbsIndex(void) {
    MutexGuard lock(&absIndexLock);
    s_index.drop(QOSA_HERE);
    return 0;
}

u32 init_abstm(void) {
    _activate_timers.next = _activate_timers.prev = active_head();
    // The first pass examines the seconds since the set-up: a timer started
    // at once for the next second is not missed, and a restart does not
    // replay the seconds since the previous run's last pass.
    last_tv = static_cast<s64>(QOSA_GetSysTimeSec()) - 1;
    u32 ret = static_cast<u32>(tsklet_init(&_abstsklets));
    if (ret != 0) return ret;
    ret = init_AbsIndex();
    if (ret == 0) ret = petimer_register_tickhook(_abstm_trigger, 100);
    if (ret != 0) { // leave nothing behind
        tsklet_delinit(&_abstsklets);
        delinit_AbsIndex();
    }
    return ret;
}

u32 delinit_abstm(void) {
    {
        // Held throughout, so no caller's handle test falls in the middle.
        MutexGuard lock(&absIndexLock);
        tsklet_delinit(&_abstsklets);
        abstimer* head = active_head();
        for (abstimer* t = head->next; t != nullptr && t != head;) {
            abstimer* next = t->next;
            if (void** slot = slot_of(t)) s_index.release(slot);
            give_back(t);
            count_down();
            t = next;
        }
        _activate_timers.next = _activate_timers.prev = head;
        s_index.each_record([](void** slot, void* t) { // inactive timers
            give_back(t);
            count_down();
            s_index.release(slot);
        });
        s_index.drop(QOSA_HERE);
    }
    petimer_deregister_tickhook(_abstm_trigger);
    return 0;
}

void* petimer_create_abstimer(QOSA_TimerProc proc, u32 mode) {
    {
        MutexGuard lock(&absIndexLock);
        if (g_pAbsHead == nullptr) return nullptr;
    }
    if (proc == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    auto* t = static_cast<abstimer*>(take(sizeof(abstimer)));
    if (t == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    memset_s(t, sizeof *t, 0, sizeof *t);
    t->next = t->prev = t;
    t->timeout_proc = proc;
    t->mode = mode;
    MutexGuard lock(&absIndexLock);
    void** slot = petimer_isQuiting() != 0 ? nullptr : s_index.take();
    if (slot == nullptr) {
        give_back(t);
        return nullptr;
    }
    *slot = t;
    t->index = static_cast<s32>(slot - g_szAbsTimer);
    return slot;
}

u32 petimer_start_abstimer(void* h, const struct tm* when, void* arg) {
    if (h == nullptr || when == nullptr) return EINVAL;
    auto* req = static_cast<abstm_start_req*>(take(sizeof(abstm_start_req)));
    if (req == nullptr) {
        errno = ENOMEM;
        return ENOMEM;
    }
    req->when = *when;
    req->arg = arg;
    u32 ret = EINVAL;
    {
        MutexGuard lock(&absIndexLock);
        req->timer = live(h);
        if (req->timer != nullptr && petimer_isQuiting() == 0) ret = tsklet_invokelater(&_abstsklets, _starttimer, req);
    }
    if (ret != 0) give_back(req);
    return ret;
}

u32 petimer_stop_abstimer_safeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg) {
    if (h == nullptr || outArg == nullptr) return EINVAL;
    auto* req = static_cast<tm_stop_req*>(take(sizeof(tm_stop_req)));
    if (req == nullptr) {
        errno = ENOMEM;
        return ENOMEM;
    }
    req->done = done;
    req->doneArg = doneArg;
    u32 ret = EINVAL;
    {
        MutexGuard lock(&absIndexLock);
        req->timer = live(h);
        if (req->timer != nullptr && petimer_isQuiting() == 0) {
            // Read first: once queued, the request may be carried out and gone.
            void* current = __atomic_load_n(&req->timer->arg, __ATOMIC_RELAXED);
            ret = tsklet_invokelater(&_abstsklets, _stoptimer, req);
            if (ret == 0) *outArg = current;
        }
    }
    if (ret != 0) give_back(req);
    return ret;
}

u32 petimer_stop_abstimer_safe(void* h, QOSA_TimerDoneProc done, void* doneArg) {
    void* unused = nullptr;
    return petimer_stop_abstimer_safeEx(h, done, doneArg, &unused);
}

u32 petimer_free_abstimer(void* h) {
    if (h == nullptr) return EINVAL;
    MutexGuard lock(&absIndexLock);
    abstimer* t = live(h);
    if (t == nullptr || petimer_isQuiting() != 0) return EINVAL;
    return release_timer(static_cast<void**>(h), t);
}

u32 petimer_relAbsIndex(void** slot) {
    MutexGuard lock(&absIndexLock);
    if (live(slot) == nullptr) return EINVAL; // no slot of the array, or free already
    s_index.release(slot);
    return 0;
}

s32 abstmr_post_tasklet(void) { return tsklet_invokeall(&_abstsklets); }

} // extern "C"
