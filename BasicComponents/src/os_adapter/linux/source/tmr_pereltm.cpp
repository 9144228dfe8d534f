// Relative timers: the 1024-bucket timing wheel and the pass that the timer
// thread runs every tick; the index, the requests and the count are those of
// every kind of timer (internal/timer_kind.h). The timer thread drains the
// requests at the start of every pass and alone touches the wheel. What it
// queues for a timer itself (a re-arm, a release after firing) goes in the
// request embedded in the record, so it never needs memory.
#define QOSA_UNIT_NAME "tmr_pereltm.c"

#include <cerrno>
#include <initializer_list>
#include <new>

#include "internal/common.h"
#include "internal/ilist.h"
#include "internal/lock.h"
#include "internal/time.h"
#include "internal/timer_kind.h"
#include "qosa_timer.h"

extern "C" {
u32 ulMaxReltmNum = 2000;
s32 g_reltmNum = 0; // changed through LiveCount only
void** g_szRelTimer = nullptr;
void** g_pRelHead = nullptr;
void** g_pRelTail = nullptr;
}

namespace {

using qosa::timer::QueueAt;
using qosa::timer::tsklet_post;

struct reltimer {
    qosa::ilist::Link link; // the wheel list
    u32 interval;
    u32 expire; // bits 0-9 the bucket, bits 10-28 revolutions (delta-coded in far lists)
    QOSA_TimerProc timeout_proc;
    void* arg; // written by the timer thread, read by the SafeEx stop: atomic
    u32 mode;
    u32 in_far;
    s32 index;
    u32 line;         // atomic: set by the creator, read by the warning
    const char* file; // atomic, likewise
    // The timer thread's own request for this timer: the re-arm of a periodic
    // one or the release of a QOSA_TIMER_ONCE_FREE one. Queued only when the
    // timer fires, which it cannot do again before the request ran (it is off
    // the wheel until then), so one suffices.
    qosa::timer::OwnedTasklet own;
};

using WheelList = qosa::ilist::List<reltimer, &reltimer::link>;
struct Bucket {
    WheelList near; // expire the next time the bucket is reached
    WheelList far;  // one or more revolutions away, sorted, delta-coded
};

constexpr u32 kBuckets = 1024;
constexpr u32 kBucketMask = kBuckets - 1;
constexpr u32 kRevMask = 0x1FFFFC00u;
constexpr u32 kLongCallbackMs = 101;

struct reltm_start_req {
    reltimer* t;
    u32 interval;
    void* arg;
};

// The wheel: the timer thread's alone.
Bucket* _tm_hash = nullptr;
u32 _tick_last = 0;

// A far record's revolutions are counted from its predecessor, so the
// successor of a record leaving a far list inherits them.
void unlink(reltimer* t) {
    if (!t->link.linked()) return;
    if (t->in_far != 0)
        if (reltimer* succ = _tm_hash[t->expire & kBucketMask].far.next(t); succ != nullptr)
            succ->expire += t->expire & ~kBucketMask;
    WheelList::remove(t);
}

struct RelTraits {
    using Record = reltimer;
    static constexpr void**& slots = g_szRelTimer;
    static constexpr void**& head = g_pRelHead;
    static constexpr void**& tail = g_pRelTail;
    static qosa::timer::LiveCount count() { return qosa::timer::reltm_count(); }
    static constexpr bool kCountsWithSlot = true;
    static void take_off(reltimer* t) { unlink(t); }
};
using Rel = qosa::timer::Kind<RelTraits>;

// ---- the wheel (timer thread) ----

u32 ticks_of(u32 intervalMs) {
    u32 rounded = intervalMs + 5;
    return rounded < 10 ? 1 : rounded / 10;
}

void place(reltimer* t, u32 ticks) {
    t->expire = (ticks & kRevMask) | ((_tick_last + ticks) & kBucketMask);
    Bucket& b = _tm_hash[t->expire & kBucketMask];
    if (ticks < kBuckets) {
        t->in_far = 0;
        b.near.push_back(t);
        return;
    }
    reltimer* at = b.far.front();
    for (; at != nullptr; at = b.far.next(at)) {
        if (at->expire > t->expire) break;
        t->expire -= at->expire & ~kBucketMask;
    }
    t->in_far = 1;
    if (at == nullptr) {
        b.far.push_back(t);
        return;
    }
    b.far.insert_before(at, t);
    at->expire -= t->expire & ~kBucketMask;
}

// ---- requests, carried out on the timer thread ----

void _do_start_tm(void* p) {
    auto* req = static_cast<reltm_start_req*>(p);
    reltimer* t = req->t;
    unlink(t);
    t->interval = req->interval;
    __atomic_store_n(&t->arg, req->arg, __ATOMIC_RELAXED);
    place(t, ticks_of(req->interval));
    QOSA_RELEASE(req);
}

void _do_restart_tm(void* p) {
    auto* t = static_cast<reltimer*>(p);
    unlink(t);
    place(t, ticks_of(t->interval));
}

void _do_free_tm_arg(void* p) { QOSA_RELEASE(p); }

// ---- the pass ----

void _trigger_a_reltimer(reltimer* t) {
    WheelList::remove(t); // in a near list, or first in a far list with no revolutions left
    const u32 mode = t->mode & 3u;
    // A periodic timer is re-armed at the front, ahead of any stop or free
    // that its callback or another thread queues while it runs.
    if (!Rel::may_fire(t, [mode](reltimer* r) {
            if (mode == QOSA_TIMER_LOOP) tsklet_post(&Rel::queue, &r->own, _do_restart_tm, r, QueueAt::front);
        }))
        return;
    u32 start = qosa::time::run_ms();
    t->timeout_proc(__atomic_load_n(&t->arg, __ATOMIC_RELAXED));
    u32 took = qosa::time::run_ms() - start;
    if (took >= kLongCallbackMs) {
        const char* file = __atomic_load_n(&t->file, __ATOMIC_RELAXED);
        u32 line = file != nullptr ? __atomic_load_n(&t->line, __ATOMIC_RELAXED) : 0;
        qosa::timer::debug("warning: timer_timeout_proc execution time is too long! timer[%s:%d] takes time %d\n",
                           file != nullptr ? file : "unknown", static_cast<int>(line), static_cast<int>(took));
    }
    if ((mode & QOSA_TIMER_ONCE_FREE) != 0) Rel::release_fired(t);
}

void _reltm_trigger(s64 n) {
    qosa::timer::rel_drain();
    if (_tm_hash == nullptr) return;
    for (; n > 0; --n) {
        Bucket& b = _tm_hash[_tick_last & kBucketMask];
        for (reltimer& t : b.near)
            _trigger_a_reltimer(&t);
        while (reltimer* first = b.far.front()) {
            if (first->expire > kBucketMask) {
                first->expire -= kBuckets; // one revolution has passed
                break;
            }
            _trigger_a_reltimer(first);
        }
        ++_tick_last;
    }
}

u32 make_wheel() {
    _tick_last = 0;
    _tm_hash = static_cast<Bucket*>(QOSA_ALLOC(kBuckets * sizeof(Bucket)));
    if (_tm_hash == nullptr) {
        errno = ENOMEM;
        return ENOMEM;
    }
    for (u32 i = 0; i < kBuckets; ++i)
        new (&_tm_hash[i]) Bucket;
    return 0;
}

void drop_wheel() {
    QOSA_RELEASE(_tm_hash);
    _tm_hash = nullptr;
}

} // namespace

namespace qosa::timer {

void reltimer_set_origin(void* h, u32 line, const char* file) {
    Rel::with_record(h, [=](reltimer* t) {
        __atomic_store_n(&t->line, line, __ATOMIC_RELAXED);
        __atomic_store_n(&t->file, file, __ATOMIC_RELAXED);
    });
}

void reltm_trigger(s64 n) { _reltm_trigger(n); }

bool reltm_post_release(OwnedTasklet* t, tsklet_fn fn, void* arg) {
    MutexGuard lock(&Rel::lock);
    return lock.locked() && Rel::up && tsklet_post(&Rel::queue, t, fn, arg, QueueAt::back);
}

u32 reltm_tick_last() { return _tick_last; }

QosaMutex* reltm_index_lock() { return &Rel::lock; }

u32 rel_set_up() { return Rel::set_up(_reltm_trigger, 1, make_wheel, drop_wheel, QOSA_HERE); }

void rel_tear_down() {
    Rel::tear_down(
        _reltm_trigger,
        [](auto drop) {
            if (_tm_hash == nullptr) return;
            for (u32 i = 0; i < kBuckets; ++i)
                for (WheelList* list : {&_tm_hash[i].near, &_tm_hash[i].far})
                    for (reltimer& t : *list)
                        drop(&t);
            drop_wheel();
        },
        QOSA_HERE);
}

s32 rel_drain() { return queue_drain(&Rel::queue); }

void* rel_create(QOSA_TimerProc proc, u32 mode) {
    if (proc == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    auto* t = QOSA_ALLOC_OF(reltimer);
    if (t == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    new (t) reltimer{{}, 0, 0, proc, nullptr, mode & 0xFFu, 0, -1, 0xDEADDEADu, nullptr, {}};
    return Rel::create(t);
}

u32 rel_start(void* h, u32 intervalMs, void* arg) {
    auto* req = QOSA_ALLOC_OF(reltm_start_req);
    return Rel::request(h, req, _do_start_tm, [=](reltimer* t) { *req = reltm_start_req{t, intervalMs, arg}; });
}

u32 rel_stop(void* h, QOSA_TimerDoneProc done, void* doneArg) {
    return Rel::stop(h, done, doneArg, nullptr, QOSA_ALLOC_OF(tm_stop_req));
}

u32 rel_stop_ex(void* h, QOSA_TimerDoneProc done, void* doneArg, void** out) {
    if (out == nullptr) return EINVAL;
    return Rel::stop(h, done, doneArg, out, QOSA_ALLOC_OF(tm_stop_req));
}

u32 rel_free(void* h) { return Rel::free(h); }

u32 rel_free_arg(void* block) {
    MutexGuard lock(&Rel::lock);
    return lock.locked() && Rel::accepting() ? queue_later(&Rel::queue, _do_free_tm_arg, block) : EINVAL;
}

u32 rel_start_simple(u32 intervalMs, QOSA_TimerProc proc, void* arg) {
    void* h = rel_create(proc, QOSA_TIMER_ONCE_FREE);
    if (h == nullptr) return ENOMEM;
    reltm_count().add();
    u32 ret = rel_start(h, intervalMs, arg);
    if (ret != 0) {
        // Nothing refers to the timer but its slot (unless the teardown of a
        // stop took it already): release it with its count.
        Rel::with_record(h, Rel::drop);
    }
    return ret;
}

} // namespace qosa::timer

extern "C" {

u32 init_RelIndex(void) { return Rel::build_index(QOSA_HERE); }

u32 init_reltm(void) { return qosa::timer::rel_set_up(); }

u32 delinit_reltm(void) {
    qosa::timer::rel_tear_down();
    return 0;
}

void* petimer_create_reltimer(QOSA_TimerProc proc, u32 mode) { return qosa::timer::rel_create(proc, mode); }

u32 petimer_start_reltimer(void* h, u32 intervalMs, void* arg) { return qosa::timer::rel_start(h, intervalMs, arg); }

u32 petimer_stop_reltimer_safe(void* h, QOSA_TimerDoneProc done, void* doneArg) {
    return qosa::timer::rel_stop(h, done, doneArg);
}

u32 petimer_stop_reltimer_safeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg) {
    return qosa::timer::rel_stop_ex(h, done, doneArg, outArg);
}

u32 petimer_free_reltimer(void* h) { return qosa::timer::rel_free(h); }

u32 petimer_free_reltimerarg_safe(void* block) { return qosa::timer::rel_free_arg(block); }

u32 petimer_start_reltimer_simple(u32 intervalMs, QOSA_TimerProc proc, void* arg) {
    return qosa::timer::rel_start_simple(intervalMs, proc, arg);
}

s32 reltmr_post_tasklet(void) { return qosa::timer::rel_drain(); }

s32 reltmr_idxLock(void) { return qosa::lock::lock(&Rel::lock); }

s32 reltmr_idxUnLock(void) { return qosa::lock::unlock(&Rel::lock); }

} // extern "C"
