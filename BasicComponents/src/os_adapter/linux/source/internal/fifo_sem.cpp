// The first-in first-out counting semaphore (see fifo_sem.h).
#include "fifo_sem.h"
#include "clock.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <new>

namespace qosa::sync {

struct FifoWaiter {
    std::atomic<std::uint32_t> state; // kWaiting, kSleeping or kGranted
    std::int64_t queuedAt;            // monotonic ns when it joined the list
    std::int64_t spinNs;              // how long it spins before it sleeps (0: it does not)
    FifoWaiter* prev;
    FifoWaiter* next;
};

namespace {

constexpr std::uint32_t kFifoLive = 0x46494630u;
constexpr std::uint32_t kWaiting = 0;  // queued, not asleep yet
constexpr std::uint32_t kSleeping = 2; // queued, may be asleep in the kernel: a grant must wake it
constexpr std::uint32_t kGranted = 1;  // a post handed it a unit
constexpr std::uint32_t kLeaving = 3;  // timed out or interrupted: posts pass it by, it unlinks itself
// The longest a waiter that found no unit watches for one before it sleeps.
constexpr std::uint16_t kFifoSpinMaxNs = 10000;
static_assert(kFifoSpinMaxNs <= UINT16_MAX / 2, "the learnt spin time moves within a 16-bit field");

// A spin-wait hint: lets the sibling hardware thread run and saves power.
void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    __asm__ __volatile__("yield" ::: "memory");
#endif
}

std::uint32_t* word(std::atomic<std::uint32_t>* a) { return reinterpret_cast<std::uint32_t*>(a); }

// Sleeps while *a holds expected, until the absolute CLOCK_MONOTONIC deadline
// (none: no limit).
// 0 when woken (or the word had changed), else the error: ETIMEDOUT, EINTR.
int futex_wait(std::atomic<std::uint32_t>* a, std::uint32_t expected, const timespec* deadline) {
    long r = syscall(SYS_futex, word(a), FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected, deadline, nullptr,
                     FUTEX_BITSET_MATCH_ANY);
    return r == -1 && (errno == ETIMEDOUT || errno == EINTR) ? errno : 0;
}

void futex_wake_one(std::atomic<std::uint32_t>* a) {
    syscall(SYS_futex, word(a), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
}

// The guard lock: uncontended it is one compare-and-swap each way.
void lock_slow(FifoSem* s) {
    for (int spin = 0; spin < 64; ++spin) {
        std::uint32_t c = 0;
        if (s->lock.load(std::memory_order_relaxed) == 0 &&
            s->lock.compare_exchange_weak(c, 1, std::memory_order_acquire, std::memory_order_relaxed))
            return;
        cpu_relax();
    }
    while (s->lock.exchange(2, std::memory_order_acquire) != 0)
        futex_wait(&s->lock, 2, nullptr);
}

void lock(FifoSem* s) {
    std::uint32_t c = 0;
    if (!s->lock.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed)) lock_slow(s);
}

void unlock(FifoSem* s) {
    if (s->lock.exchange(0, std::memory_order_release) == 2) futex_wake_one(&s->lock);
}

void append(FifoSem* s, FifoWaiter* w) {
    w->prev = s->tail;
    w->next = nullptr;
    if (s->tail != nullptr)
        s->tail->next = w;
    else
        s->head = w;
    s->tail = w;
}

// Unlinks the waiter between prev and next (either may be NULL).
void unlink(FifoSem* s, FifoWaiter* prev, FifoWaiter* next) {
    (prev != nullptr ? prev->next : s->head) = next;
    (next != nullptr ? next->prev : s->tail) = prev;
}

// Spinning threads of the whole process, and how many may spin at once: at
// most half the processors this process may run on, so spinners never crowd
// out the threads they wait for (none on a single processor). A child of
// fork starts with no spinners: the threads that spun stayed behind.
std::atomic<int> g_spinners{0};
int max_spinners() {
    static const int n = [] {
        pthread_atfork(nullptr, nullptr, [] { g_spinners.store(0, std::memory_order_relaxed); });
        cpu_set_t set;
        CPU_ZERO(&set);
        long cpus = sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : sysconf(_SC_NPROCESSORS_ONLN);
        return static_cast<int>(cpus / 2);
    }();
    return n;
}

// A queued waiter watches its node until the monotonic time until before it
// sleeps: a post that comes within that time costs neither side a system
// call, and neither CPU goes idle between the two. True when the unit came;
// false at once when enough other threads are spinning already.
bool spin_for_grant(const FifoWaiter* w, std::int64_t until) {
    if (g_spinners.fetch_add(1, std::memory_order_relaxed) >= max_spinners()) {
        g_spinners.fetch_sub(1, std::memory_order_relaxed);
        return false;
    }
    bool granted = false;
    for (unsigned i = 1;; ++i) {
        if (w->state.load(std::memory_order_acquire) == kGranted) {
            granted = true;
            break;
        }
        cpu_relax();
        if (i % 8 == 0 && clock::now_ns() >= until) break;
    }
    g_spinners.fetch_sub(1, std::memory_order_relaxed);
    return granted;
}

// Learns the spin time from a waiter that spun (lock held): a unit that
// came while it still spun, waited ns after it queued, moves the time
// towards twice that; one that found it asleep (or none, on a time-out)
// halves it, down to no spinning where units come only after long pauses or
// the spinner keeps the poster from running.
void learn(FifoSem* s, bool cameInTime, std::int64_t waited) {
    std::int64_t spin = s->spinNs;
    if (cameInTime)
        spin += (std::min<std::int64_t>(2 * waited + 500, kFifoSpinMaxNs) - spin) / 4;
    else
        spin /= 2;
    s->spinNs = static_cast<std::uint16_t>(spin);
}

// How long the longest waiter spins (lock held). Every 16th wait spins in
// full whatever was learnt: where both sides of a hand-off had stopped
// spinning, a full spin finds out whether units would come quickly to a
// thread that stays awake.
std::int64_t spin_time(FifoSem* s) { return ++s->waits % 16 == 0 ? kFifoSpinMaxNs : s->spinNs; }

} // namespace

bool fifo_init(FifoSem* s, std::uint32_t value) {
    if (value > kFifoMaxCount) return false;
    new (s) FifoSem{{0}, kFifoLive, value, kFifoSpinMaxNs, 0, nullptr, nullptr};
    return true;
}

SemStatus fifo_destroy(FifoSem* s) {
    lock(s);
    SemStatus st = SemStatus::ok;
    if (s->magic != kFifoLive)
        st = SemStatus::invalid;
    else if (s->head != nullptr)
        st = SemStatus::busy;
    else
        s->magic = 0;
    unlock(s);
    return st;
}

SemStatus fifo_post(FifoSem* s) {
    lock(s);
    if (s->magic != kFifoLive) {
        unlock(s);
        return SemStatus::invalid;
    }
    // The unit goes to the longest waiter that is not leaving. Everything
    // needed of its node is read before the grant: once granted, the waiter
    // may return and its node is gone (its neighbours stay: they are linked).
    for (FifoWaiter* w = s->head; w != nullptr; w = w->next) {
        FifoWaiter* prev = w->prev;
        FifoWaiter* next = w->next;
        std::int64_t spun = w->spinNs;
        std::int64_t queuedAt = w->queuedAt;
        std::uint32_t was = w->state.load(std::memory_order_acquire);
        while (was != kLeaving &&
               !w->state.compare_exchange_weak(was, kGranted, std::memory_order_acq_rel, std::memory_order_acquire)) {
        }
        if (was == kLeaving) continue;
        unlink(s, prev, next);
        if (spun > 0) learn(s, was == kWaiting, clock::now_ns() - queuedAt);
        unlock(s);
        // A wake-up on the address of a node that is gone already is at
        // worst a spurious one, which every futex waiter tolerates.
        if (was == kSleeping) futex_wake_one(&w->state);
        return SemStatus::ok;
    }
    SemStatus st = SemStatus::overflow;
    if (s->count < kFifoMaxCount) {
        ++s->count;
        st = SemStatus::ok;
    }
    unlock(s);
    return st;
}

SemStatus fifo_wait(FifoSem* s, std::int64_t timeoutNs, bool interruptible) {
    lock(s);
    if (s->magic != kFifoLive) {
        unlock(s);
        return SemStatus::invalid;
    }
    if (s->count > 0) {
        --s->count;
        unlock(s);
        return SemStatus::ok;
    }
    if (timeoutNs == 0) {
        unlock(s);
        return SemStatus::would_block;
    }
    FifoWaiter self{{kWaiting}, clock::now_ns(), 0, nullptr, nullptr};
    append(s, &self);
    // Only the longest waiter spins: the next unit is its own.
    if (s->head == &self) self.spinNs = std::min(spin_time(s), timeoutNs > 0 ? timeoutNs : kFifoSpinMaxNs);
    unlock(s);

    // Once granted, the waiter touches the semaphore no more: the thread that
    // posted may destroy it as soon as nobody is queued.
    if (self.spinNs > 0 && spin_for_grant(&self, self.queuedAt + self.spinNs)) return SemStatus::ok;
    // A time-out too long to add to the clock is no limit.
    bool forever = false;
    timespec deadline{};
    if (timeoutNs > 0) deadline = clock::after(clock::to_timespec(self.queuedAt), timeoutNs, &forever);
    if (forever) timeoutNs = -1;
    bool interrupted = false;
    for (;;) {
        std::uint32_t st = self.state.load(std::memory_order_acquire);
        if (st == kGranted) return SemStatus::ok;
        if (st == kWaiting &&
            !self.state.compare_exchange_strong(st, kSleeping, std::memory_order_acquire, std::memory_order_acquire))
            continue; // granted meanwhile
        int r = futex_wait(&self.state, kSleeping, timeoutNs > 0 ? &deadline : nullptr);
        if (r == ETIMEDOUT || (r == EINTR && interruptible)) {
            interrupted = r == EINTR;
            break;
        }
    }
    // The deadline passed (or a signal came). Unless a post reached this
    // waiter first (then it has its unit and is done with the semaphore), it
    // leaves: posts pass it by, and it stays linked (the semaphore cannot be
    // destroyed) until it has unlinked itself.
    std::uint32_t st = kSleeping;
    if (!self.state.compare_exchange_strong(st, kLeaving, std::memory_order_acq_rel, std::memory_order_acquire))
        return SemStatus::ok;
    lock(s);
    unlink(s, self.prev, self.next);
    if (self.spinNs > 0 && !interrupted) learn(s, false, 0);
    unlock(s);
    return interrupted ? SemStatus::interrupted : SemStatus::timed_out;
}

std::uint32_t fifo_count(FifoSem* s) {
    lock(s);
    std::uint32_t n = s->count;
    unlock(s);
    return n;
}

std::uint32_t fifo_waiters(FifoSem* s) {
    lock(s);
    std::uint32_t n = 0;
    for (FifoWaiter* w = s->head; w != nullptr; w = w->next)
        ++n;
    unlock(s);
    return n;
}

} // namespace qosa::sync
