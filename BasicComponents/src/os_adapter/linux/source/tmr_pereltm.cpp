// Relative timers: the index behind the handles, the 1024-bucket timing
// wheel and the pass that the timer thread runs every tick.
//
// Caller threads only test handles under relIndexLock, move slots, change the
// count and queue requests on _tsklets (always while holding relIndexLock, so
// the queue order follows the order of the handle tests). The timer thread
// drains _tsklets at the start of every pass and alone touches the wheel.
// What it queues for a timer itself (a re-arm, a release after firing) goes
// in the request embedded in the record, so it never needs memory.
#define QOSA_UNIT_NAME "tmr_pereltm.c"

#include <cerrno>
#include <cstddef>
#include <initializer_list>

#include "internal/common.h"
#include "internal/timer_index.h"
#include "internal/timer_service.h"
#include "qosa_mem.h"
#include "qosa_time.h"
#include "qosa_timer.h"

extern "C" {
u32 ulMaxReltmNum = 2000;
s32 g_reltmNum = 0; // updated with atomic operations only
void** g_szRelTimer = nullptr;
void** g_pRelHead = nullptr;
void** g_pRelTail = nullptr;
}

namespace {

using qosa::timer::QueueAt;
using qosa::timer::tsklet_post;

struct Link {
    Link* next;
    Link* prev;
};

struct reltimer {
    Link link; // next, prev: the wheel list; the record itself when in none
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
static_assert(offsetof(reltimer, link) == 0, "a record is reached from its list link");

struct Bucket {
    Link near; // expire the next time the bucket is reached
    Link far;  // one or more revolutions away, sorted, delta-coded
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
struct tm_stop_req {
    reltimer* t;
    QOSA_TimerDoneProc done;
    void* doneArg;
};

// The index: guarded by relIndexLock, which lives for the whole process so
// that calls made while the service is down find it and are refused.
QosaMutex relIndexLock = QOSA_MUTEX_INITIALIZER;
qosa::timer::SlotIndex s_index{g_szRelTimer, g_pRelHead, g_pRelTail};
bool s_relUp = false; // set up and accepting requests (apart from the quitting flag)

tsklet_head _tsklets;

// The wheel: the timer thread's alone.
Bucket* _tm_hash = nullptr;
u32 _tick_last = 0;

// ---- the index (relIndexLock held) ----

// The handle test: a slot of the array holding a live record.
reltimer* live(void* h) { return static_cast<reltimer*>(s_index.live(h)); }

bool accepting() { return s_relUp && petimer_isQuiting() == 0; }

void** slot_of(const reltimer* t) { return s_index.slot_of(t->index, t); }

void count_down() { __atomic_fetch_sub(&g_reltmNum, 1, __ATOMIC_ACQ_REL); }

void* take(std::size_t size) { return QOSA_MemTypeMallocD(static_cast<u32>(size), 0, QOSA_HERE); }
void give_back(void* p) { QOSA_MemTypeFreeD(p, 0, QOSA_HERE); }

// ---- the wheel (timer thread) ----

reltimer* rec(Link* l) { return reinterpret_cast<reltimer*>(l); }

void self_link(reltimer* t) { t->link.next = t->link.prev = &t->link; }

void link_before(Link* at, reltimer* t) {
    t->link.next = at;
    t->link.prev = at->prev;
    at->prev->next = &t->link;
    at->prev = &t->link;
}

void take_out(reltimer* t) {
    t->link.prev->next = t->link.next;
    t->link.next->prev = t->link.prev;
    self_link(t);
}

// A far record's revolutions are counted from its predecessor, so the
// successor of a record leaving a far list inherits them.
void unlink(reltimer* t) {
    if (t->link.next == &t->link) return;
    Link* succ = t->link.next;
    if (t->in_far != 0 && succ != &_tm_hash[t->expire & kBucketMask].far) rec(succ)->expire += t->expire & ~kBucketMask;
    take_out(t);
}

u32 ticks_of(u32 intervalMs) {
    u32 rounded = intervalMs + 5;
    return rounded < 10 ? 1 : rounded / 10;
}

void place(reltimer* t, u32 ticks) {
    t->expire = (ticks & kRevMask) | ((_tick_last + ticks) & kBucketMask);
    Bucket& b = _tm_hash[t->expire & kBucketMask];
    if (ticks < kBuckets) {
        t->in_far = 0;
        link_before(&b.near, t);
        return;
    }
    Link* at = b.far.next;
    for (; at != &b.far; at = at->next) {
        if (rec(at)->expire > t->expire) break;
        t->expire -= rec(at)->expire & ~kBucketMask;
    }
    link_before(at, t);
    t->in_far = 1;
    if (at != &b.far) rec(at)->expire -= t->expire & ~kBucketMask;
}

// ---- requests, carried out on the timer thread ----

void _do_start_tm(void* p) {
    auto* req = static_cast<reltm_start_req*>(p);
    reltimer* t = req->t;
    unlink(t);
    t->interval = req->interval;
    __atomic_store_n(&t->arg, req->arg, __ATOMIC_RELAXED);
    place(t, ticks_of(req->interval));
    give_back(req);
}

void _do_restart_tm(void* p) {
    auto* t = static_cast<reltimer*>(p);
    unlink(t);
    place(t, ticks_of(t->interval));
}

void _do_stop_tm(void* p) {
    auto* req = static_cast<tm_stop_req*>(p);
    unlink(req->t);
    if (req->done != nullptr) req->done(req->doneArg);
    give_back(req);
}

void _do_free_tm(void* p) {
    auto* t = static_cast<reltimer*>(p);
    unlink(t);
    give_back(t);
}

void _do_free_tm_arg(void* p) { give_back(p); }

// Queues fn(req) for the timer in handle h when h passes the handle test;
// `filled` completes the request under the lock. The request is released
// when it is not queued.
template <class Fill>
u32 request(void* h, void* req, tsklet_fn fn, Fill filled) {
    if (req == nullptr) {
        errno = ENOMEM;
        return ENOMEM;
    }
    u32 ret = EINVAL;
    {
        MutexGuard lock(&relIndexLock);
        if (reltimer* t = accepting() ? live(h) : nullptr; t != nullptr) {
            filled(t);
            ret = tsklet_invokelater(&_tsklets, fn, req);
        }
    }
    if (ret != 0) give_back(req);
    return ret;
}

// ---- the pass ----

void _trigger_a_reltimer(reltimer* t) {
    take_out(t);
    const u32 mode = t->mode & 3u;
    {
        // A timer whose handle was freed meanwhile does not fire; a periodic
        // one is re-armed at the front, ahead of any stop or free that its
        // callback or another thread queues while it runs.
        MutexGuard lock(&relIndexLock);
        if (!accepting() || slot_of(t) == nullptr) return;
        if (mode == QOSA_TIMER_LOOP) tsklet_post(&_tsklets, &t->own, _do_restart_tm, t, QueueAt::front);
    }
    u32 start = QOSA_GetSysRunTime();
    t->timeout_proc(__atomic_load_n(&t->arg, __ATOMIC_RELAXED));
    u32 took = QOSA_GetSysRunTime() - start;
    if (took >= kLongCallbackMs) {
        const char* file = __atomic_load_n(&t->file, __ATOMIC_RELAXED);
        u32 line = file != nullptr ? __atomic_load_n(&t->line, __ATOMIC_RELAXED) : 0;
        qosa_timer_debug("warning: timer_timeout_proc execution time is too long! timer[%s:%d] takes time %d\n",
                         file != nullptr ? file : "unknown", static_cast<int>(line), static_cast<int>(took));
    }
    if ((mode & QOSA_TIMER_ONCE_FREE) != 0) {
        MutexGuard lock(&relIndexLock);
        if (void** slot = accepting() ? slot_of(t) : nullptr; slot != nullptr) {
            tsklet_post(&_tsklets, &t->own, _do_free_tm, t, QueueAt::back);
            s_index.release(slot);
            count_down();
        }
    }
}

void _reltm_trigger(s64 n) {
    reltmr_post_tasklet();
    if (_tm_hash == nullptr) return;
    for (; n > 0; --n) {
        Bucket& b = _tm_hash[_tick_last & kBucketMask];
        for (Link* l = b.near.next; l != &b.near;) {
            Link* next = l->next;
            _trigger_a_reltimer(rec(l));
            l = next;
        }
        while (b.far.next != &b.far) {
            reltimer* first = rec(b.far.next);
            if (first->expire > kBucketMask) {
                first->expire -= kBuckets; // one revolution has passed
                break;
            }
            _trigger_a_reltimer(first);
        }
        ++_tick_last;
    }
}

// Frees a record that is still in its slot, with the slot and the count.
void drop(reltimer* t) {
    if (void** slot = slot_of(t); slot != nullptr) {
        s_index.release(slot);
        count_down();
    }
    give_back(t);
}

} // namespace

namespace qosa::timer {

void reltimer_set_origin(void* h, u32 line, const char* file) {
    MutexGuard lock(&relIndexLock);
    if (reltimer* t = live(h); t != nullptr) {
        __atomic_store_n(&t->line, line, __ATOMIC_RELAXED);
        __atomic_store_n(&t->file, file, __ATOMIC_RELAXED);
    }
}

void reltm_trigger(s64 n) { _reltm_trigger(n); }

bool reltm_post_release(OwnedTasklet* t, tsklet_fn fn, void* arg) {
    MutexGuard lock(&relIndexLock);
    if (!s_relUp) return false;
    tsklet_post(&_tsklets, t, fn, arg, QueueAt::back);
    return true;
}

u32 reltm_tick_last() { return _tick_last; }

} // namespace qosa::timer

extern "C" {

u32 init_RelIndex(void) {
    MutexGuard lock(&relIndexLock);
    if (!lock.locked()) return 1;
    return s_index.build(__atomic_load_n(&ulMaxReltmNum, __ATOMIC_RELAXED), QOSA_HERE);
}

u32 init_reltm(void) {
    if (u32 ret = petimer_register_tickhook(_reltm_trigger, 1); ret != 0) return ret;
    if (s32 ret = tsklet_init(&_tsklets); ret != 0) {
        petimer_deregister_tickhook(_reltm_trigger);
        return static_cast<u32>(ret);
    }
    u32 ret = init_RelIndex();
    _tick_last = 0;
    if (ret == 0) {
        _tm_hash = static_cast<Bucket*>(take(kBuckets * sizeof(Bucket)));
        if (_tm_hash == nullptr) {
            MutexGuard lock(&relIndexLock);
            s_index.drop(QOSA_HERE);
            errno = ENOMEM;
            ret = ENOMEM;
        }
    }
    if (ret != 0) {
        tsklet_delinit(&_tsklets);
        petimer_deregister_tickhook(_reltm_trigger);
        return ret;
    }
    for (u32 i = 0; i < kBuckets; ++i) {
        _tm_hash[i].near = Link{&_tm_hash[i].near, &_tm_hash[i].near};
        _tm_hash[i].far = Link{&_tm_hash[i].far, &_tm_hash[i].far};
    }
    MutexGuard lock(&relIndexLock);
    s_relUp = true;
    return 0;
}

u32 delinit_reltm(void) {
    {
        // The callers are refused from here on.
        MutexGuard lock(&relIndexLock);
        s_relUp = false;
    }
    // Releases posted while the service stopped, after the thread's last
    // drain: no callback runs any more, so they are carried out now.
    tsklet_invokeall(&_tsklets);
    {
        // The lock orders this walk against the callers' handle tests.
        MutexGuard lock(&relIndexLock);
        tsklet_delinit(&_tsklets);
        if (_tm_hash != nullptr) {
            for (u32 i = 0; i < kBuckets; ++i) {
                for (Link* list : {&_tm_hash[i].near, &_tm_hash[i].far}) {
                    for (Link* l = list->next; l != list;) {
                        Link* next = l->next;
                        drop(rec(l));
                        l = next;
                    }
                }
            }
            give_back(_tm_hash);
            _tm_hash = nullptr;
        }
        s_index.each_record([](void**, void* t) { drop(static_cast<reltimer*>(t)); });
        s_index.drop(QOSA_HERE);
    }
    petimer_deregister_tickhook(_reltm_trigger);
    return 0;
}

void* petimer_create_reltimer(QOSA_TimerProc proc, u32 mode) {
    if (proc == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    auto* t = static_cast<reltimer*>(take(sizeof(reltimer)));
    if (t == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    *t = reltimer{{}, 0, 0, proc, nullptr, mode & 0xFFu, 0, -1, 0xDEADDEADu, nullptr, {}};
    self_link(t);
    {
        MutexGuard lock(&relIndexLock);
        if (void** slot = accepting() ? s_index.take() : nullptr; slot != nullptr) {
            *slot = t;
            t->index = static_cast<s32>(slot - g_szRelTimer);
            return slot;
        }
    }
    give_back(t);
    return nullptr;
}

u32 petimer_start_reltimer(void* h, u32 intervalMs, void* arg) {
    auto* req = static_cast<reltm_start_req*>(take(sizeof(reltm_start_req)));
    return request(h, req, _do_start_tm, [=](reltimer* t) { *req = reltm_start_req{t, intervalMs, arg}; });
}

u32 petimer_stop_reltimer_safe(void* h, QOSA_TimerDoneProc done, void* doneArg) {
    auto* req = static_cast<tm_stop_req*>(take(sizeof(tm_stop_req)));
    return request(h, req, _do_stop_tm, [=](reltimer* t) { *req = tm_stop_req{t, done, doneArg}; });
}

u32 petimer_stop_reltimer_safeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg) {
    if (outArg == nullptr) return EINVAL;
    auto* req = static_cast<tm_stop_req*>(take(sizeof(tm_stop_req)));
    return request(h, req, _do_stop_tm, [=](reltimer* t) {
        *req = tm_stop_req{t, done, doneArg};
        *outArg = __atomic_load_n(&t->arg, __ATOMIC_RELAXED);
    });
}

u32 petimer_free_reltimer(void* h) {
    MutexGuard lock(&relIndexLock);
    reltimer* t = accepting() ? live(h) : nullptr;
    if (t == nullptr) return EINVAL;
    // The slot goes back only once the release is queued: without memory
    // for it the handle stays valid and the caller may try again.
    u32 ret = tsklet_invokelater(&_tsklets, _do_free_tm, t);
    if (ret == 0) {
        s_index.release(static_cast<void**>(h));
        count_down();
    }
    return ret;
}

u32 petimer_free_reltimerarg_safe(void* block) {
    MutexGuard lock(&relIndexLock);
    return accepting() ? tsklet_invokelater(&_tsklets, _do_free_tm_arg, block) : EINVAL;
}

u32 petimer_start_reltimer_simple(u32 intervalMs, QOSA_TimerProc proc, void* arg) {
    void* h = petimer_create_reltimer(proc, QOSA_TIMER_ONCE_FREE);
    if (h == nullptr) return ENOMEM;
    __atomic_fetch_add(&g_reltmNum, 1, __ATOMIC_ACQ_REL);
    u32 ret = petimer_start_reltimer(h, intervalMs, arg);
    if (ret != 0) {
        // Nothing refers to the timer but its slot (unless the teardown of a
        // stop took it already): release it uncounted.
        MutexGuard lock(&relIndexLock);
        if (reltimer* t = live(h); t != nullptr) drop(t);
    }
    return ret;
}

s32 reltmr_post_tasklet(void) { return tsklet_invokeall(&_tsklets); }

s32 reltmr_idxLock(void) { return QOSA_MutexLock(&relIndexLock); }

s32 reltmr_idxUnLock(void) { return QOSA_MutexUnLock(&relIndexLock); }

} // extern "C"
