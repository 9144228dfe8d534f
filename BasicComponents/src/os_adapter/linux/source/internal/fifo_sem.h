// First-in first-out waiting: the counting semaphore behind the library's
// unnamed semaphores, and the wait lists it is made of, which the message
// queues use as well.
//
// A wait list is an intrusive list of waiters, guarded by its owner's futex
// lock; each waiter's node lives on its own stack. Whoever has something for
// a waiter (a unit, a message, a place) claims the oldest waiter that is not
// leaving under the lock, hands it what it waits for, then grants it; so a
// later arrival can never overtake it, and only a waiter that went to sleep
// costs a wake-up call. A claimed waiter cannot leave; a granted one never
// touches its owner again, so the owner may be destroyed as soon as nobody is
// queued. A timed-out (or interrupted) waiter marks itself leaving, so that
// claims pass it by, and takes itself off the list under the lock, unless a
// claim reached it first (then the wait succeeded).
// Before it sleeps, the longest waiter spins on its node for a while that
// each list learns from how long its grants took to come, then yields the
// processor once (see fifo_sem.cpp).
// Waits are timed on CLOCK_MONOTONIC and go on after a signal handler ran.
#pragma once

#include <atomic>
#include <cstdint>

#include "ilist.h"

namespace qosa::sync {

// A small lock that cannot fail: uncontended it is one compare-and-swap each
// way; contended it spins briefly, then sleeps on the word.
struct FutexLock {
    std::atomic<std::uint32_t> word; // 0 free, 1 held, 2 held and contended

    void lock() {
        std::uint32_t c = 0;
        if (!word.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed)) lock_slow();
    }
    void unlock() {
        if (word.exchange(0, std::memory_order_release) == 2) wake();
    }

  private:
    void lock_slow();
    void wake();
};

// Holds a FutexLock for a scope.
class FutexGuard {
  public:
    explicit FutexGuard(FutexLock& l) : l_(&l) { l.lock(); }
    ~FutexGuard() { unlock(); }
    // Releases the lock before the end of the scope.
    void unlock() {
        if (l_ != nullptr) l_->unlock();
        l_ = nullptr;
    }
    FutexGuard(const FutexGuard&) = delete;
    FutexGuard& operator=(const FutexGuard&) = delete;

  private:
    FutexLock* l_;
};

enum class SemStatus {
    ok,
    would_block, // a trial found no unit
    timed_out,
    interrupted, // a signal handler ran (interruptible waits only)
    invalid,     // not initialised, or destroyed
    busy,        // destruction refused: there are waiters
    overflow,    // the count would pass its maximum
};

// A waiting thread, on its own stack while it waits. Owners that hand their
// waiters something derive their waiter type from it.
struct FifoWaiter {
    ilist::Link link;
    std::atomic<std::uint32_t> state{0}; // see fifo_sem.cpp
    int cpu = -1;                        // the processor it queued on
    std::int64_t queuedAt = 0;           // monotonic ns when it joined the list
    std::int64_t spinNs = -1;            // how long it spins before it sleeps; -1: not the longest waiter
};

using WaitList = ilist::List<FifoWaiter, &FifoWaiter::link>;

// What a wait list learnt about spinning.
struct Spin {
    std::uint16_t ns; // how long the longest waiter spins before it sleeps
};
// The longest spin: it outlasts the wake-up of a sleeping thread on a virtual
// machine (20-40 us), so that a producer that has just woken its consumer
// waits for that consumer's reads on a full queue instead of going to sleep
// itself, which would leave the two taking turns at waking each other.
inline constexpr std::uint16_t kSpinMaxNs = 30000;

// A waiter taken off its list by a claim; grant it once it has been handed
// what it waited for.
struct Claim {
    FifoWaiter* waiter = nullptr;
    bool sleeping = false; // it may be asleep in the kernel
};

// All with the owner's lock held: queues w at the back (timeoutNs as for
// await); claims the oldest waiter that is not leaving (none: waiter NULL).
void enqueue(WaitList& list, Spin& spin, FifoWaiter& w, std::int64_t timeoutNs);
Claim claim(WaitList& list, Spin& spin);
// With or without the lock: lets a claimed waiter return.
void grant(const Claim& c);
// Without the lock, after enqueue: waits until w is granted (ok) or, after
// timeoutNs (< 0: no limit), leaves (timed_out). A signal handler that runs
// meanwhile ends the wait (interrupted) only when interruptible.
SemStatus await(FutexLock& lock, WaitList& list, Spin& spin, FifoWaiter& w, std::int64_t timeoutNs,
                bool interruptible = false);

// The semaphore. Set up by fifo_init in place; must not move while in use.
// While no waiter is queued a post and a wait that finds a unit change the
// units word alone, without the lock; everything else takes the lock.
struct FifoSem {
    FutexLock lock;
    std::atomic<std::uint32_t> magic; // kFifoLive while initialised (changed under the lock)
    // The free units (kFifoMaxCount bits), non-zero only while none but
    // leaving waiters are queued, and kFifoQueued: waiters may be queued, or
    // the semaphore is destroyed, so posts take the lock. Set under the lock
    // by a waiter that found no unit, before it queues; cleared under the lock
    // by a post that serves the last waiter or finds none but leaving ones.
    std::atomic<std::uint32_t> units;
    Spin spin;
    WaitList waiters; // the longest waiter first
};

inline constexpr std::uint32_t kFifoMaxCount = 0x7FFFFFFFu; // SEM_VALUE_MAX
inline constexpr std::uint32_t kFifoQueued = 0x80000000u;
inline constexpr std::uint32_t kFifoLive = 0x46494630u; // magic while initialised

// False (nothing done) when value is above kFifoMaxCount.
bool fifo_init(FifoSem* s, std::uint32_t value);
SemStatus fifo_destroy(FifoSem* s);
// The paths through the lock: a post that found waiters queued (or no room),
// a wait that found no unit free.
SemStatus post_slow(FifoSem* s);
SemStatus wait_slow(FifoSem* s, std::int64_t timeoutNs, bool interruptible);

inline bool fifo_live(const FifoSem* s) { return s->magic.load(std::memory_order_relaxed) == kFifoLive; }

// Takes a free unit without the lock, if there is one. A unit is free only
// while no waiter is queued ahead, so this overtakes nobody.
inline bool fifo_take_unit(FifoSem* s) {
    std::uint32_t u = s->units.load(std::memory_order_relaxed);
    while ((u & kFifoMaxCount) != 0)
        if (s->units.compare_exchange_weak(u, u - 1, std::memory_order_acquire, std::memory_order_relaxed)) return true;
    return false;
}

inline SemStatus fifo_post(FifoSem* s) {
    std::uint32_t u = s->units.load(std::memory_order_relaxed);
    while (fifo_live(s) && u < kFifoMaxCount) // no kFifoQueued, and room for the unit
        if (s->units.compare_exchange_weak(u, u + 1, std::memory_order_release, std::memory_order_relaxed))
            return SemStatus::ok;
    return post_slow(s);
}

// timeoutNs < 0: no limit; 0: only tries (would_block); else at most that long.
inline SemStatus fifo_wait(FifoSem* s, std::int64_t timeoutNs, bool interruptible = false) {
    return fifo_live(s) && fifo_take_unit(s) ? SemStatus::ok : wait_slow(s, timeoutNs, interruptible);
}

// Snapshots for checks: the free units and the waiters queued.
std::uint32_t fifo_count(FifoSem* s);
std::uint32_t fifo_waiters(FifoSem* s);

} // namespace qosa::sync
