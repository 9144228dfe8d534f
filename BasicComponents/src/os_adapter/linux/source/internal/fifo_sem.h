// The counting semaphore behind the library's unnamed semaphores: waiters are
// released strictly in the order in which they began to wait.
//
// A small futex lock guards the count and an intrusive list of waiters; each
// waiter's node lives on its own stack. A post while someone waits takes the
// oldest waiter off the list and hands the unit to it directly (the count
// stays 0), so a later arrival can never overtake it; only a waiter that went
// to sleep costs a wake-up call. A timed-out (or interrupted) waiter marks
// itself leaving, so that posts pass it by, and takes itself off the list
// under the lock, unless a post reached it first (then the wait succeeded).
// A waiter that has its unit never touches the semaphore again: the poster
// may destroy it as soon as nobody is queued.
// Before it sleeps, a waiter spins on its node for a while that each
// semaphore learns from how long its units took to come (see fifo_wait).
// Waits are timed on CLOCK_MONOTONIC and go on after a signal handler ran.
#pragma once

#include <atomic>
#include <cstdint>

#include "ilist.h"

namespace qosa::sync {

enum class SemStatus {
    ok,
    would_block, // a trial found no unit
    timed_out,
    interrupted, // a signal handler ran (interruptible waits only)
    invalid,     // not initialised, or destroyed
    busy,        // destruction refused: there are waiters
    overflow,    // the count would pass its maximum
};

// A waiting thread, on its own stack while it waits.
struct FifoWaiter {
    ilist::Link link;
    std::atomic<std::uint32_t> state; // see fifo_sem.cpp
    std::int64_t queuedAt;            // monotonic ns when it joined the list
    std::int64_t spinNs;              // how long it spins before it sleeps (0: it does not)
};

// Set up by fifo_init in place; must not move while in use.
struct FifoSem {
    std::atomic<std::uint32_t> lock; // 0 free, 1 held, 2 held and contended
    std::uint32_t magic;             // kFifoLive while initialised
    std::uint32_t count;             // free units; non-zero only while none but leaving waiters are queued
    std::uint16_t spinNs;            // how long the longest waiter spins before it sleeps (learnt)
    std::uint16_t waits;             // waiters that queued first (wraps): every 16th spins in full
    ilist::List<FifoWaiter, &FifoWaiter::link> waiters; // the longest waiter first
};

inline constexpr std::uint32_t kFifoMaxCount = 0x7FFFFFFFu; // SEM_VALUE_MAX

// False (nothing done) when value is above kFifoMaxCount.
bool fifo_init(FifoSem* s, std::uint32_t value);
SemStatus fifo_destroy(FifoSem* s);
SemStatus fifo_post(FifoSem* s);
// timeoutNs < 0: no limit; 0: only tries (would_block); else at most that long.
// A signal handler that runs meanwhile ends the wait (interrupted) only when
// interruptible; otherwise the wait goes on.
SemStatus fifo_wait(FifoSem* s, std::int64_t timeoutNs, bool interruptible = false);

// Snapshots for checks: the free units and the waiters queued.
std::uint32_t fifo_count(FifoSem* s);
std::uint32_t fifo_waiters(FifoSem* s);

} // namespace qosa::sync
