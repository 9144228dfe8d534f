// First-in first-out waiting and the counting semaphore (see fifo_sem.h).
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

namespace {

// A waiter's state. Only the waiter moves it from kWaiting to kYielding, on
// to kSleeping and from there to kLeaving; only a claim moves it to kClaimed,
// and only the grant that follows to kGranted.
constexpr std::uint32_t kWaiting = 0;         // queued, awake (spinning, or not yet)
constexpr std::uint32_t kGranted = 1;         // it has what it waited for: it returns
constexpr std::uint32_t kSleeping = 2;        // queued, may be asleep in the kernel: a grant must wake it
constexpr std::uint32_t kLeaving = 3;         // timed out or interrupted: claims pass it by, it unlinks itself
constexpr std::uint32_t kClaimed = 4;         // off the list, being handed its due: it must not leave
constexpr std::uint32_t kClaimedSleeping = 5; // claimed, and asleep until the grant: the grant must wake it
constexpr std::uint32_t kYielding = 6;        // queued, done spinning, letting others run once before it sleeps
static_assert(kSpinMaxNs <= UINT16_MAX, "the learnt spin time moves within a 16-bit field");

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
// sleeps: a grant that comes within that time costs neither side a system
// call, and neither CPU goes idle between the two. True when granted; false
// at once when enough other threads are spinning already.
bool spin_for_grant(const FifoWaiter& w, std::int64_t until) {
    if (g_spinners.fetch_add(1, std::memory_order_relaxed) >= max_spinners()) {
        g_spinners.fetch_sub(1, std::memory_order_relaxed);
        return false;
    }
    bool granted = false;
    for (unsigned i = 1;; ++i) {
        if (w.state.load(std::memory_order_acquire) == kGranted) {
            granted = true;
            break;
        }
        cpu_relax();
        if (i % 8 == 0 && clock::now_ns() >= until) break;
    }
    g_spinners.fetch_sub(1, std::memory_order_relaxed);
    return granted;
}

// Learns the spin time from the longest waiter (lock held), granted ns
// after it queued. A grant that found it still spinning, or that came soon
// from another processor (spinning would have caught it), moves the time
// towards twice that; one that came late or from the waiter's own processor
// (its spin only kept the granter from running), or a time-out, halves it,
// down to no spinning.
void learn(Spin& spin, bool caught, std::int64_t waited) {
    std::int64_t ns = spin.ns;
    if (caught)
        ns += (std::min<std::int64_t>(2 * waited + 500, kSpinMaxNs) - ns) / 4;
    else
        ns /= 2;
    spin.ns = static_cast<std::uint16_t>(ns);
}

// Sleeps until a claimed waiter is granted (no time limit: the claim's
// holder grants it promptly).
void await_grant(FifoWaiter& w) {
    for (;;) {
        std::uint32_t st = w.state.load(std::memory_order_acquire);
        if (st == kGranted) return;
        if (st == kClaimed && !w.state.compare_exchange_strong(st, kClaimedSleeping, std::memory_order_acquire))
            continue;
        futex_wait(&w.state, kClaimedSleeping, nullptr);
    }
}

} // namespace

void FutexLock::lock_slow() {
    for (int spin = 0; spin < 64; ++spin) {
        std::uint32_t c = 0;
        if (word.load(std::memory_order_relaxed) == 0 &&
            word.compare_exchange_weak(c, 1, std::memory_order_acquire, std::memory_order_relaxed))
            return;
        cpu_relax();
    }
    while (word.exchange(2, std::memory_order_acquire) != 0)
        futex_wait(&word, 2, nullptr);
}

// A wake-up on the address of a lock (or node) that is gone already is at
// worst a spurious one, which every futex waiter tolerates.
void FutexLock::wake() { futex_wake_one(&word); }

void enqueue(WaitList& list, Spin& spin, FifoWaiter& w, std::int64_t timeoutNs) {
    w.state.store(kWaiting, std::memory_order_relaxed);
    w.cpu = sched_getcpu();
    w.queuedAt = clock::now_ns();
    w.spinNs = -1;
    list.push_back(&w);
    // Only the longest waiter spins (and teaches the list): the next grant is
    // its own.
    if (list.front() == &w) w.spinNs = std::min<std::int64_t>(spin.ns, timeoutNs > 0 ? timeoutNs : kSpinMaxNs);
}

Claim claim(WaitList& list, Spin& spin) {
    for (FifoWaiter& w : list) {
        std::uint32_t was = w.state.load(std::memory_order_acquire);
        while (was != kLeaving &&
               !w.state.compare_exchange_weak(was, kClaimed, std::memory_order_acq_rel, std::memory_order_acquire)) {
        }
        // A leaving waiter stays linked (its owner cannot be destroyed) until
        // it has unlinked itself.
        if (was == kLeaving) continue;
        list.remove(&w);
        if (w.spinNs >= 0) {
            std::int64_t waited = clock::now_ns() - w.queuedAt;
            learn(spin, was == kWaiting || (waited < kSpinMaxNs && sched_getcpu() != w.cpu), waited);
        }
        return Claim{&w, was == kSleeping};
    }
    return Claim{};
}

void grant(const Claim& c) {
    std::uint32_t was = c.waiter->state.exchange(kGranted, std::memory_order_acq_rel);
    if (c.sleeping || was == kClaimedSleeping) futex_wake_one(&c.waiter->state);
}

SemStatus await(FutexLock& lock, WaitList& list, Spin& spin, FifoWaiter& w, std::int64_t timeoutNs,
                bool interruptible) {
    // Once granted, the waiter touches its owner no more.
    if (w.spinNs > 0 && spin_for_grant(w, w.queuedAt + w.spinNs)) return SemStatus::ok;
    // A time-out too long to add to the clock is no limit.
    bool forever = false;
    timespec deadline{};
    if (timeoutNs > 0) deadline = clock::after(clock::to_timespec(w.queuedAt), timeoutNs, &forever);
    if (forever) timeoutNs = -1;
    bool interrupted = false;
    for (;;) {
        std::uint32_t st = w.state.load(std::memory_order_acquire);
        if (st == kGranted) return SemStatus::ok;
        if (st == kClaimed || st == kClaimedSleeping) {
            await_grant(w);
            return SemStatus::ok;
        }
        // Before it sleeps, the waiter lets the threads waiting for this
        // processor run once: where the thread that will grant it shares the
        // processor, the grant usually comes then, and neither side makes a
        // system call for the sleep and the wake-up.
        if (st == kWaiting) {
            if (w.state.compare_exchange_strong(st, kYielding, std::memory_order_acquire)) sched_yield();
            continue;
        }
        if (st == kYielding && !w.state.compare_exchange_strong(st, kSleeping, std::memory_order_acquire))
            continue; // claimed meanwhile
        int r = futex_wait(&w.state, kSleeping, timeoutNs > 0 ? &deadline : nullptr);
        if (r == ETIMEDOUT || (r == EINTR && interruptible)) {
            interrupted = r == EINTR;
            break;
        }
    }
    // The deadline passed (or a signal came). Unless a claim reached this
    // waiter first (then it gets its due), it leaves: claims pass it by, and
    // it stays linked until it has unlinked itself.
    std::uint32_t st = kSleeping;
    if (!w.state.compare_exchange_strong(st, kLeaving, std::memory_order_acq_rel, std::memory_order_acquire)) {
        await_grant(w);
        return SemStatus::ok;
    }
    FutexGuard hold(lock);
    if (w.link.linked()) list.remove(&w);
    if (w.spinNs >= 0 && !interrupted) learn(spin, false, 0);
    return interrupted ? SemStatus::interrupted : SemStatus::timed_out;
}

// ---- the semaphore ----------------------------------------------------------

bool fifo_init(FifoSem* s, std::uint32_t value) {
    if (value > kFifoMaxCount) return false;
    new (s) FifoSem{{{0}}, kFifoLive, value, Spin{kSpinMaxNs}, {}};
    return true;
}

SemStatus fifo_destroy(FifoSem* s) {
    FutexGuard hold(s->lock);
    if (s->magic.load(std::memory_order_relaxed) != kFifoLive) return SemStatus::invalid;
    if (!s->waiters.empty()) return SemStatus::busy;
    s->magic.store(0, std::memory_order_relaxed);
    s->units.store(kFifoQueued, std::memory_order_relaxed); // no unit to take, and posts take the lock
    return SemStatus::ok;
}

SemStatus post_slow(FifoSem* s) {
    FutexGuard hold(s->lock);
    if (!fifo_live(s)) return SemStatus::invalid;
    // The unit goes to the longest waiter that is not leaving.
    Claim c = claim(s->waiters, s->spin);
    if (c.waiter != nullptr) {
        if (s->waiters.empty()) s->units.fetch_and(kFifoMaxCount, std::memory_order_relaxed);
        hold.unlock();
        grant(c);
        return SemStatus::ok;
    }
    // Counted. Only leaving waiters are queued, if any: units may be taken
    // and posted without the lock again (meanwhile too).
    std::uint32_t u = s->units.load(std::memory_order_relaxed);
    do {
        if ((u & kFifoMaxCount) >= kFifoMaxCount) return SemStatus::overflow;
    } while (!s->units.compare_exchange_weak(u, (u & kFifoMaxCount) + 1, std::memory_order_release,
                                             std::memory_order_relaxed));
    return SemStatus::ok;
}

SemStatus wait_slow(FifoSem* s, std::int64_t timeoutNs, bool interruptible) {
    FifoWaiter self;
    {
        FutexGuard hold(s->lock);
        if (!fifo_live(s)) return SemStatus::invalid;
        // Marked queued before the last look at the units: a post that comes
        // after the mark takes the lock and finds this waiter in the list.
        for (;;) {
            if (fifo_take_unit(s)) return SemStatus::ok;
            if (timeoutNs == 0) return SemStatus::would_block;
            std::uint32_t u = s->units.load(std::memory_order_relaxed);
            if ((u & kFifoMaxCount) == 0 &&
                s->units.compare_exchange_strong(u, u | kFifoQueued, std::memory_order_relaxed))
                break;
        }
        enqueue(s->waiters, s->spin, self, timeoutNs);
    }
    return await(s->lock, s->waiters, s->spin, self, timeoutNs, interruptible);
}

std::uint32_t fifo_count(FifoSem* s) { return s->units.load(std::memory_order_relaxed) & kFifoMaxCount; }

std::uint32_t fifo_waiters(FifoSem* s) {
    FutexGuard hold(s->lock);
    std::uint32_t n = 0;
    for ([[maybe_unused]] FifoWaiter& w : s->waiters)
        ++n;
    return n;
}

} // namespace qosa::sync
