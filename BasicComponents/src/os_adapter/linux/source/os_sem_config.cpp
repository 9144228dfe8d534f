// Semaphores: unnamed ones on the library's first-in first-out semaphore,
// named POSIX ones and System V sets. The record's tag says which kind it
// holds; the operations on a named record go to sem_* by that tag.
#define QOSA_UNIT_NAME "os_sem_config.c"

#include <sys/time.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <ctime>
#include <new>

#include "internal/clock.h"
#include "internal/common.h"
#include "internal/fifo_sem.h"
#include "internal/mem_switch.h"
#include "internal/sem.h"
#include "internal/tracked.h"
#include "qosa_mem.h"
#include "qosa_sem.h"

using qosa::sync::FifoSem;
using qosa::sync::SemStatus;

static_assert(offsetof(QOSA_SEM_S, tag) == 0, "the tag comes first");
static_assert(offsetof(QOSA_SEM_S, sem) == 8, "the semaphore follows the tag");
static_assert(sizeof(FifoSem) <= sizeof(QOSA_SEM_U), "the semaphore fits the record's storage");
static_assert(alignof(FifoSem) <= alignof(QOSA_SEM_U), "the record's storage is aligned for the semaphore");
static_assert(qosa::sync::kFifoMaxCount == SEM_VALUE_MAX);
static_assert(offsetof(FifoSem, units) == 8 && offsetof(FifoSem, spin) == 12 && qosa::sync::kSpinMaxNs < 0xFFFF,
              "an unnamed record's second word never reads as the named mark");

namespace {

using qosa::clock::kNsPerMs;
using qosa::clock::kNsPerSec;
// Longest remaining time of a wall-clock deadline that is waited (68 years);
// later deadlines wait that long.
constexpr std::int64_t kLongestWaitSec = INT32_MAX;

FifoSem* inner(QOSA_SEM_S* rec) { return std::launder(reinterpret_cast<FifoSem*>(rec->sem.aullStore)); }
bool is_named(const QOSA_SEM_S* rec) { return rec->tag == QOSA_SEM_TAG_NAMED; }
// A record from QOSA_SemOpen also carries this mark in the second word of its
// storage. In an unnamed record that word holds the units word and above it
// the learnt spin time (at most 30,000), so it never reads as the mark; this
// is how a destroyed named record is told from a destroyed unnamed one.
constexpr u64 kNamedMark = ~u64{0};
bool was_named(const QOSA_SEM_S* rec) {
    return rec->tag == QOSA_SEM_TAG_DESTROYED && rec->sem.aullStore[1] == kNamedMark;
}

// 0, or -1 with the reason in the last error, as the sem_* calls report.
s32 report(SemStatus st) {
    switch (st) {
    case SemStatus::ok:
        return 0;
    case SemStatus::would_block:
        errno = EAGAIN;
        break;
    case SemStatus::timed_out:
        errno = ETIMEDOUT;
        break;
    case SemStatus::interrupted:
        errno = EINTR;
        break;
    case SemStatus::busy:
        errno = EBUSY;
        break;
    case SemStatus::overflow:
        errno = EOVERFLOW;
        break;
    case SemStatus::invalid:
        errno = EINVAL;
        break;
    }
    return -1;
}

// Waits at most ns (>= 0; 0 only tries) on a record of either kind. A named
// semaphore waits on CLOCK_MONOTONIC as well.
s32 wait_for(QOSA_SEM_S* rec, std::int64_t ns) {
    if (was_named(rec)) return report(SemStatus::invalid);
    if (!is_named(rec)) return report(qosa::sync::fifo_wait(inner(rec), ns));
    if (ns == 0) return sem_trywait(rec->sem.pNamed);
    timespec at = qosa::clock::after(ns);
    return sem_clockwait(rec->sem.pNamed, CLOCK_MONOTONIC, &at);
}

QOSA_SEM_S* open_named(const char* name, s32 oflag, mode_t mode, u32 value) {
    if (name == nullptr) return nullptr;
    auto* rec = QOSA_ALLOC_OF(QOSA_SEM_S);
    if (rec == nullptr) return nullptr;
    sem_t* s = sem_open(name, oflag, mode, value);
    if (s == SEM_FAILED) {
        int reason = errno;
        QOSA_RELEASE(rec);
        errno = reason;
        return nullptr;
    }
    memset_s(rec, sizeof(QOSA_SEM_S), 0, sizeof(QOSA_SEM_S));
    rec->sem.pNamed = s;
    rec->sem.aullStore[1] = kNamedMark;
    rec->tag = QOSA_SEM_TAG_NAMED;
    return rec;
}

} // namespace

s32 qosa::sem::init(QOSA_SEM_S* rec, u32 value) {
    return guarded<s32>(-1, need(rec), [=] {
        if (!qosa::sync::fifo_init(inner(rec), value)) return report(SemStatus::invalid);
        rec->tag = QOSA_SEM_TAG_UNNAMED;
        return 0;
    });
}

s32 qosa::sem::destroy(QOSA_SEM_S* rec) {
    return guarded<s32>(-1, need(rec), [=] {
        if (was_named(rec)) return report(SemStatus::invalid);
        // A named record is destroyed through sem_destroy too; the C library
        // releases nothing there, and the semaphore stays open (and the
        // record allocated) until QOSA_SemClose.
        s32 r = is_named(rec) ? sem_destroy(rec->sem.pNamed) : report(qosa::sync::fifo_destroy(inner(rec)));
        if (r == 0) rec->tag = QOSA_SEM_TAG_DESTROYED;
        return r;
    });
}

s32 qosa::sem::wait(QOSA_SEM_S* rec) {
    return guarded<s32>(-1, need(rec), [=] {
        if (was_named(rec)) return report(SemStatus::invalid);
        return is_named(rec) ? sem_wait(rec->sem.pNamed) : report(qosa::sync::fifo_wait(inner(rec), -1, true));
    });
}

s32 qosa::sem::post(QOSA_SEM_S* rec) {
    return guarded<s32>(-1, need(rec), [=] {
        if (was_named(rec)) return report(SemStatus::invalid);
        return is_named(rec) ? sem_post(rec->sem.pNamed) : report(qosa::sync::fifo_post(inner(rec)));
    });
}

s32 qosa::sem::wait_timeout(QOSA_SEM_S* rec, u32 timeoutMs) {
    return guarded<s32>(-1, need(rec), [=] { return wait_for(rec, timeoutMs * kNsPerMs); });
}

s32 qosa::sem::try_wait(QOSA_SEM_S* rec) {
    return guarded<s32>(-1, need(rec), [=] { return wait_for(rec, 0); });
}

extern "C" {

// ---- unnamed (and by tag named) semaphores --------------------------------

s32 QOSA_SemInit(QOSA_SEM_S* rec, s32 /*shared*/, u32 value) { return qosa::sem::init(rec, value); }
s32 QOSA_SemInitWin(QOSA_SEM_S* rec, s32 /*shared*/, u32 value) { return qosa::sem::init(rec, value); }
s32 QOSA_SemDestroy(QOSA_SEM_S* rec) { return qosa::sem::destroy(rec); }
s32 QOSA_SemWait(QOSA_SEM_S* rec) { return qosa::sem::wait(rec); }
s32 QOSA_SemPost(QOSA_SEM_S* rec) { return qosa::sem::post(rec); }
s32 QOSA_SemPostWin(QOSA_SEM_S* rec) { return qosa::sem::post(rec); }
s32 QOSA_SemWaitTimeOut(QOSA_SEM_S* rec, u32 timeoutMs) { return qosa::sem::wait_timeout(rec, timeoutMs); }

s32 QOSA_SemTimedWait(QOSA_SEM_S* rec, const struct timespec* deadline) {
    if (rec == nullptr || deadline == nullptr) return -1;
    timeval now{};
    gettimeofday(&now, nullptr);
    std::int64_t nowNs = std::int64_t{now.tv_usec} * 1000;
    // A deadline already past is refused without trying the semaphore; one
    // equal to the present to the microsecond is not past.
    if (deadline->tv_sec < now.tv_sec || (deadline->tv_sec == now.tv_sec && nowNs > deadline->tv_nsec))
        return report(SemStatus::timed_out);
    if (deadline->tv_nsec < 0 || deadline->tv_nsec >= kNsPerSec) return report(SemStatus::invalid);
    std::int64_t sec = deadline->tv_sec - now.tv_sec;
    if (sec > kLongestWaitSec) sec = kLongestWaitSec;
    return wait_for(rec, sec * kNsPerSec + deadline->tv_nsec - nowNs);
}

s32 QOSA_SemTryWait(QOSA_SEM_S* rec) { return qosa::sem::try_wait(rec); }

// ---- named semaphores -----------------------------------------------------

QOSA_SEM_S* QOSA_SemOpen(const char* name, s32 oflag, mode_t mode, u32 value) {
    return open_named(name, oflag, mode, value);
}
QOSA_SEM_S* QOSA_SemOpenWin(const char* name, s32 oflag, mode_t mode, u32 value) {
    return open_named(name, oflag, mode, value);
}

s32 QOSA_SemClose(QOSA_SEM_S* rec) {
    // Only a record that QOSA_SemOpen made holds a named semaphore: the
    // storage of an unnamed one is no pointer to close.
    if (rec == nullptr || !(is_named(rec) || was_named(rec)) || rec->sem.pNamed == nullptr) return -1;
    if (sem_close(rec->sem.pNamed) != 0) return -1;
    QOSA_RELEASE(rec);
    return 0;
}

s32 QOSA_SemUnLink(const char* name) {
    return guarded<s32>(-1, need(as_path(name)), [=] { return sem_unlink(name); });
}

// ---- System V sets --------------------------------------------------------

s32 QOSA_SemGet(key_t key, s32 nsems, s32 flags) { return semget(key, nsems, flags); }
s32 QOSA_SemCtl(s32 semid, s32 semnum, s32 cmd, QOSA_SEMUN_U arg) { return semctl(semid, semnum, cmd, arg); }
s32 QOSA_SemOp(s32 semid, struct sembuf* ops, u32 nops) {
    return guarded<s32>(-1, need(ops), [=] { return semop(semid, ops, nops); });
}

} // extern "C"
