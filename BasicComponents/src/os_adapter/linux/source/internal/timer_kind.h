// One kind of timer (relative or absolute): what both kinds share. A kind has
// its slot index behind the handles, its index lock, its request queue, its
// live count and its "up" flag; the kinds differ only in their record, in
// the structure that holds their running timers (the wheel, the active list)
// and in their per-tick pass, which the traits T bring:
//
//   using Record = ...;   // has s32 index, void* arg (atomic), OwnedTasklet own
//   static constexpr void**& slots, head, tail;   // the kind's exported index variables
//   static LiveCount count();
//   static constexpr bool kCountsWithSlot;   // the live count falls when the slot is
//                                            // freed (relative), else when the record is
//   static void take_off(Record*);           // off the running structure, if on it
//
// Caller threads only test handles, move slots, change the count and queue
// requests, all under the index lock (taken before the queue's lock). The
// timer thread carries the requests out at the start of the kind's pass and
// alone touches the running structure. The index lock lives for the process,
// so a stale handle tested while the service is down finds it and is refused.
#pragma once

#include <cerrno>

#include "mutex_guard.h"
#include "qosa_timer.h"
#include "timer_index.h"
#include "timer_service.h"
#include "tracked.h"

namespace qosa::timer {

// A caller's stop request, carried out on the timer thread.
struct tm_stop_req {
    void* t; // the record
    QOSA_TimerDoneProc done;
    void* doneArg;
};

template <class T>
struct Kind {
    using Record = typename T::Record;
    using Guard = qosa::detail::MutexGuard;

    static inline QosaMutex lock = QOSA_MUTEX_INITIALIZER;
    static inline SlotIndex index{T::slots, T::head, T::tail};
    static inline tsklet_head queue;
    static inline bool up = false; // set up and taking requests (index lock)

    // ---- under the index lock ----

    // The service check: set up and not quitting.
    static bool accepting() { return up && quitting() == 0; }
    // The record of a handle that passes the handle test while requests are taken.
    static Record* live(void* h) { return accepting() ? static_cast<Record*>(index.live(h)) : nullptr; }
    static void** slot_of(const Record* t) { return index.slot_of(t->index, t); }

    // Frees a record, with its slot when it still holds it, and counts it out.
    static void drop(Record* t) {
        void** slot = slot_of(t);
        if (slot != nullptr) index.release(slot);
        if (slot != nullptr || !T::kCountsWithSlot) T::count().sub();
        release(t);
    }

    // ---- set-up and teardown ----

    // The index of the kind's maximum of slots; 1 when the lock fails, 12 without memory.
    static u32 build_index(u32 line, const char* file) {
        Guard g(&lock);
        if (!g.locked()) return 1; // GCOVR_EXCL_BR_LINE: see MutexGuard
        return index.build(__atomic_load_n(&T::count().max, __ATOMIC_RELAXED), line, file);
    }
    static u32 drop_index(u32 line, const char* file) {
        Guard g(&lock);
        if (!g.locked()) return 1; // GCOVR_EXCL_BR_LINE: see MutexGuard
        index.drop(line, file);
        return 0;
    }

    // The queue, the index, the running structure (own(): 0 or a code;
    // unown() undoes it) and the pass as a tick hook, in this order; a failed
    // step returns its code and leaves nothing behind.
    template <class Own, class Unown>
    static u32 set_up(petimer_tickhook_fn pass, s64 period, Own own, Unown unown, u32 line, const char* file) {
        if (s32 r = queue_init(&queue); r != 0) return static_cast<u32>(r);
        u32 ret = build_index(line, file);
        if (ret == 0) {
            if ((ret = own()) == 0) {
                if ((ret = register_tickhook(pass, period)) == 0 && (ret = set_up_flag(true)) != 0)
                    deregister_tickhook(pass); // GCOVR_EXCL_LINE: see MutexGuard
                if (ret != 0) unown();
            }
            if (ret != 0) drop_index(line, file);
        }
        if (ret != 0) queue_discard(&queue);
        return ret;
    }

    // On the timer thread after its last drain: refuses callers from here on,
    // carries out what was posted since (releases queued while the service
    // stops), then frees every timer: those in the running structure
    // (each_running(drop)), then the ones only the index holds.
    template <class EachRunning>
    static void tear_down(petimer_tickhook_fn pass, EachRunning each_running, u32 line, const char* file) {
        if (set_up_flag(false) != 0) return; // GCOVR_EXCL_BR_LINE: see MutexGuard
        queue_drain(&queue);
        {
            // Held throughout, so no caller's handle test falls in the middle.
            Guard g(&lock);
            if (!g.locked()) return; // GCOVR_EXCL_BR_LINE: see MutexGuard
            queue_discard(&queue);
            each_running(drop);
            index.each_record([](void**, void* t) { drop(static_cast<Record*>(t)); });
            index.drop(line, file);
        }
        deregister_tickhook(pass);
    }

    // ---- callers ----

    // Puts a fresh record t in a free slot: its handle, or NULL (t freed)
    // when no slot is free or requests are refused.
    static void* create(Record* t) {
        {
            Guard g(&lock);
            if (void** slot = g.locked() && accepting() ? index.take() : nullptr; slot != nullptr) {
                *slot = t;
                t->index = static_cast<s32>(slot - index.slots);
                return slot;
            }
        }
        release(t);
        return nullptr;
    }

    // Runs fn(t) under the index lock for the record t of a handle that
    // passes the handle test, whether requests are taken or not (the
    // library's own follow-up to a create or a start); false when none.
    template <class Fn>
    static bool with_record(void* h, Fn fn) {
        Guard g(&lock);
        auto* t = g.locked() ? static_cast<Record*>(index.live(h)) : nullptr;
        if (t == nullptr) return false;
        fn(t);
        return true;
    }

    static bool has_free_slot() {
        Guard g(&lock);
        return g.locked() && index.head != nullptr;
    }

    // Queues fn(req) for the timer in handle h when h passes the handle test;
    // filled(t) completes the request under the lock. The request is released
    // when it is not queued: 12 without it (errno 12), 22 for a bad handle,
    // else the queueing's result.
    template <class Req, class Fill>
    static u32 request(void* h, Req* req, tsklet_fn fn, Fill filled) {
        if (req == nullptr) {
            errno = ENOMEM;
            return ENOMEM;
        }
        u32 ret = EINVAL;
        {
            Guard g(&lock);
            if (Record* t = g.locked() ? live(h) : nullptr; t != nullptr) {
                filled(t);
                ret = queue_later(&queue, fn, req);
            }
        }
        if (ret != 0) release(req);
        return ret;
    }

    // A stop: the timer leaves the running structure, then done(doneArg)
    // runs. With out, the timer's argument is stored there once the stop is
    // queued (read first: a queued request may be carried out at once).
    static u32 stop(void* h, QOSA_TimerDoneProc done, void* doneArg, void** out, tm_stop_req* req) {
        void* current = nullptr;
        u32 ret = request(h, req, run_stop, [&](Record* t) {
            *req = tm_stop_req{t, done, doneArg};
            current = __atomic_load_n(&t->arg, __ATOMIC_RELAXED);
        });
        if (ret == 0 && out != nullptr) *out = current;
        return ret;
    }

    // A caller's free: the handle is invalid at once, the record goes on the
    // timer thread after every request queued before. The slot goes back
    // only once the release is queued: without memory for it the handle
    // stays valid and the caller may try again.
    static u32 free(void* h) {
        Guard g(&lock);
        Record* t = g.locked() ? live(h) : nullptr;
        if (t == nullptr) return EINVAL;
        u32 ret = queue_later(&queue, run_free, t);
        if (ret == 0) freed_slot(static_cast<void**>(h));
        return ret;
    }

    // ---- the pass (timer thread) ----

    // Whether t may fire: its slot still holds it and requests are taken (a
    // freed timer never fires, whatever its mode). also(t) runs under the
    // same lock when it may (the re-arm of a periodic timer).
    template <class Also>
    static bool may_fire(Record* t, Also also) {
        Guard g(&lock);
        if (!g.locked() || !accepting() || slot_of(t) == nullptr) return false;
        also(t);
        return true;
    }

    // After a QOSA_TIMER_ONCE_FREE timer fired: its release, queued in its
    // own request, so that the timer thread needs no memory for it.
    static void release_fired(Record* t) {
        Guard g(&lock);
        if (void** slot = g.locked() && accepting() ? slot_of(t) : nullptr; slot != nullptr)
            if (tsklet_post(&queue, &t->own, run_free, t, QueueAt::back)) freed_slot(slot);
    }

  private:
    static u32 set_up_flag(bool value) {
        Guard g(&lock);
        if (!g.locked()) return 1; // GCOVR_EXCL_BR_LINE: see MutexGuard
        up = value;
        return 0;
    }

    static void release(void* p) { qosa::tracked::release(p, __LINE__, "timer_kind.h"); }

    static void freed_slot(void** slot) {
        index.release(slot);
        if (T::kCountsWithSlot) T::count().sub();
    }

    static void run_stop(void* p) {
        auto* req = static_cast<tm_stop_req*>(p);
        T::take_off(static_cast<Record*>(req->t));
        if (req->done != nullptr) req->done(req->doneArg);
        release(req);
    }

    static void run_free(void* p) {
        auto* t = static_cast<Record*>(p);
        T::take_off(t);
        release(t);
        if (!T::kCountsWithSlot) T::count().sub();
    }
};

} // namespace qosa::timer
