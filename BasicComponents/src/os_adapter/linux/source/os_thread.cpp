// Threads, condition variables, scheduling and sleeps; mappings, signals and
// processes. Nearly all of it hands the arguments to the platform call of the
// same meaning and returns that call's result.
#include <cerrno>
#include <climits>
#include <ctime>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/reboot.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "internal/clock.h"
#include "internal/common.h"
#include "qosa_error.h"
#include "qosa_process.h"
#include "qosa_thread.h"

static_assert(sizeof(pthread_t) == 8, "thread handles are 64 bits wide");
static_assert(sizeof(sigset_t) % sizeof(unsigned long) == 0, "a signal set is a whole number of words");

namespace qosa::thread {

// Load-time resolver of the thread-handle entry points. The fixed symbol name
// lets the ifunc attributes name it with either compiler.
using SelfFn = pthread_t (*)(void);
SelfFn resolve_self(void) __asm__("qosa_thread_resolve_self");
SelfFn resolve_self(void) { return pthread_self; }

} // namespace qosa::thread

namespace {

// A timed wait gives 0 when woken, ETIMEDOUT at the deadline, -1 otherwise.
s32 timed_wait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec& deadline) {
    int r = pthread_cond_timedwait(cond, mutex, &deadline);
    return r == 0 || r == ETIMEDOUT ? r : -1;
}

// Signal sets are worked on as the words they are made of: signal s is bit
// s - 1, the same layout the platform's own set functions use.
constexpr s32 kSetCapacity = static_cast<s32>(sizeof(sigset_t) * CHAR_BIT);
constexpr s32 kWordBits = static_cast<s32>(sizeof(unsigned long) * CHAR_BIT);

bool in_set_range(s32 sig) { return sig >= 1 && sig <= kSetCapacity; }
unsigned long* word_of(sigset_t* set, s32 sig) { return reinterpret_cast<unsigned long*>(set) + (sig - 1) / kWordBits; }
const unsigned long* word_of(const sigset_t* set, s32 sig) {
    return reinterpret_cast<const unsigned long*>(set) + (sig - 1) / kWordBits;
}
unsigned long bit_of(s32 sig) { return 1UL << ((sig - 1) % kWordBits); }

} // namespace

// The calls that more than one entry point makes.
namespace {

s32 create_thread(pthread_t* thread, const pthread_attr_t* attr, QOSA_ThreadProc start, void* arg) {
    // A thread without a start routine would fault as soon as it ran.
    return guarded<s32>(-1, need(thread), [=] { return start ? pthread_create(thread, attr, start, arg) : EINVAL; });
}
s32 get_priority(s32 which, s32 who) {
    return getpriority(static_cast<__priority_which_t>(which), static_cast<id_t>(who));
}
s32 set_priority(s32 which, s32 who, s32 prio) {
    return setpriority(static_cast<__priority_which_t>(which), static_cast<id_t>(who), prio);
}
void* map(void* addr, u32 len, s32 prot, s32 flags, s32 fd, s32 offset) {
    return mmap(addr, size_t{len}, prot, flags, fd, off_t{offset});
}
s32 unmap(void* addr, u32 len) {
    return guarded<s32>(-1, need(addr), [=] { return munmap(addr, size_t{len}); });
}

} // namespace

extern "C" {

// ---- condition variables --------------------------------------------------

// A null attr or param that the platform would only fault on is answered with
// the platform's own EINVAL instead.
s32 QOSA_PthreadCondInitAttr(pthread_condattr_t* attr) { return attr ? pthread_condattr_init(attr) : EINVAL; }
s32 QOSA_PthreadCondAttr_Destroy(pthread_condattr_t* attr) { return pthread_condattr_destroy(attr); }

s32 QOSA_PthreadCondAttr_SetClockMonotic(pthread_condattr_t* attr) {
    if (attr != nullptr) pthread_condattr_setclock(attr, CLOCK_MONOTONIC);
    return 0;
}

s32 QOSA_PthreadCondInit(pthread_cond_t* cond, const pthread_condattr_t* attr) {
    if (cond == nullptr) return -1;
    // GCOVR_EXCL_START: glibc's pthread_cond_init does not fail
    if (pthread_cond_init(cond, attr) == 0) return 0;
    errno = 0;
    return -1;
    // GCOVR_EXCL_STOP
}

s32 QOSA_PthreadCondDestroy(pthread_cond_t* cond) {
    return guarded<s32>(-1, need(cond), [=] { return pthread_cond_destroy(cond) == 0 ? 0 : 1; });
}

s32 QOSA_PthreadCondSignal(pthread_cond_t* cond) {
    return guarded<s32>(-1, need(cond), [=] { return pthread_cond_signal(cond); });
}
s32 QOSA_PthreadCondBroadcast(pthread_cond_t* cond) {
    return guarded<s32>(-1, need(cond), [=] { return pthread_cond_broadcast(cond); });
}
s32 QOSA_PthreadCondWait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
    return guarded<s32>(-1, need(cond, mutex), [=] { return pthread_cond_wait(cond, mutex); });
}

s32 QOSA_PthreadCondTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex, s32 timeoutUs) {
    if (cond == nullptr || mutex == nullptr || timeoutUs <= 0) return -1;
    timeval now{};
    gettimeofday(&now, nullptr);
    timespec from{now.tv_sec, now.tv_usec * 1000};
    return timed_wait(cond, mutex, qosa::clock::after(from, timeoutUs * qosa::clock::kNsPerUs));
}

s32 QOSA_PthreadCondTimedWait_Clock(pthread_cond_t* cond, pthread_mutex_t* mutex, u32 timeoutUs) {
    if (cond == nullptr || mutex == nullptr || timeoutUs == 0) return -1;
    return timed_wait(cond, mutex, qosa::clock::after(timeoutUs * qosa::clock::kNsPerUs));
}

// ---- threads -----------------------------------------------------------------

s32 QOSA_PthreadCreate(pthread_t* thread, const pthread_attr_t* attr, QOSA_ThreadProc start, void* arg) {
    return create_thread(thread, attr, start, arg);
}
s32 QOSA_PthreadCreateID(pthread_t* thread, u32 /*id*/, const pthread_attr_t* attr, QOSA_ThreadProc start, void* arg) {
    return create_thread(thread, attr, start, arg);
}

s32 QOSA_PthreadJoin(pthread_t thread, void** retval) { return pthread_join(thread, retval); }
s32 QOSA_PthreadDetach(pthread_t thread) { return pthread_detach(thread); }
// The handle comes straight from the platform: both names are bound to
// pthread_self itself when the library is loaded (see resolve_self), so a call
// costs what a call of pthread_self costs.
pthread_t QOSA_PthreadSelf(void) __attribute__((ifunc("qosa_thread_resolve_self")));
pthread_t orv_PthreadSelf(void) __attribute__((ifunc("qosa_thread_resolve_self")));

pthread_t ORV_GetPthreadSelf(pthread_t* out) {
    pthread_t self = pthread_self();
    // A copy of the handle's own size does not fail.
    if (out != nullptr && memcpy_s(out, sizeof *out, &self, sizeof self) != 0) return 0; // GCOVR_EXCL_BR_LINE
    return self;
}

s32 QOSA_PthreadSetName(const char* name) { return name ? pthread_setname_np(pthread_self(), name) : EINVAL; }

s32 QOSA_PthreadSetCancelState(s32 state, s32* oldstate) {
    return guarded<s32>(-1, need(oldstate), [=] { return pthread_setcancelstate(state, oldstate); });
}
s32 QOSA_PthreadSetCancelType(s32 type, s32* oldtype) {
    return guarded<s32>(-1, need(oldtype), [=] { return pthread_setcanceltype(type, oldtype); });
}

// ---- thread attributes ------------------------------------------------------

s32 QOSA_PthreadAttrInit(pthread_attr_t* attr) {
    return guarded<s32>(-1, need(attr), [=] { return pthread_attr_init(attr); });
}
s32 QOSA_PthreadAttrDestroy(pthread_attr_t* attr) {
    return guarded<s32>(-1, need(attr), [=] { return pthread_attr_destroy(attr); });
}
s32 QOSA_PthreadAttrSetdetachstate(pthread_attr_t* attr, s32 state) {
    return guarded<s32>(-1, need(attr), [=] { return pthread_attr_setdetachstate(attr, state); });
}
s32 QOSA_PthreadAttrGetInheritsched(const pthread_attr_t* attr, s32* out) {
    return guarded<s32>(-1, need(attr, out), [=] { return pthread_attr_getinheritsched(attr, out); });
}
s32 QOSA_PthreadAttrSetInheritsched(pthread_attr_t* attr, s32 value) {
    return guarded<s32>(-1, need(attr), [=] { return pthread_attr_setinheritsched(attr, value); });
}
s32 QOSA_PthreadAttrGetSchedpolicy(const pthread_attr_t* attr, s32* out) {
    return guarded<s32>(-1, need(attr, out), [=] { return pthread_attr_getschedpolicy(attr, out); });
}
s32 QOSA_PthreadAttrSetSchedpolicy(pthread_attr_t* attr, s32 policy) {
    return guarded<s32>(-1, need(attr), [=] { return pthread_attr_setschedpolicy(attr, policy); });
}
s32 QOSA_PthreadAttrGetSchedparam(const pthread_attr_t* attr, struct sched_param* out) {
    return guarded<s32>(-1, need(attr, out), [=] { return pthread_attr_getschedparam(attr, out); });
}
s32 QOSA_PthreadAttrSetSchedparam(pthread_attr_t* attr, const struct sched_param* param) {
    return guarded<s32>(-1, need(attr), [=] { return param ? pthread_attr_setschedparam(attr, param) : EINVAL; });
}
s32 QOSA_PthreadAttrGetscope(const pthread_attr_t* attr, s32* out) {
    return guarded<s32>(-1, need(attr, out), [=] { return pthread_attr_getscope(attr, out); });
}
s32 QOSA_PthreadAttrSetscope(pthread_attr_t* attr, s32 scope) {
    return guarded<s32>(-1, need(attr), [=] { return pthread_attr_setscope(attr, scope); });
}
s32 QOSA_PthreadAttrGetStacksize(const pthread_attr_t* attr, size_t* out) {
    return guarded<s32>(-1, need(attr, out), [=] { return pthread_attr_getstacksize(attr, out); });
}
s32 QOSA_PthreadAttrSetStacksize(pthread_attr_t* attr, u32 size) {
    return guarded<s32>(-1, need(attr), [=] { return pthread_attr_setstacksize(attr, size_t{size}); });
}

// The stack-address pair is obsolete in POSIX but still part of this interface.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
s32 QOSA_PthreadAttrGetStackAddr(const pthread_attr_t* attr, void** out) {
    return guarded<s32>(-1, need(attr, out), [=] { return pthread_attr_getstackaddr(attr, out); });
}
s32 QOSA_PthreadAttrSetStackAddr(pthread_attr_t* attr, void* addr) {
    return guarded<s32>(-1, need(attr, addr), [=] { return pthread_attr_setstackaddr(attr, addr); });
}
#pragma GCC diagnostic pop

// ---- scheduling and priorities ---------------------------------------------

s32 QOSA_SchedGetPriorityMax(s32 policy) { return sched_get_priority_max(policy); }
s32 QOSA_SchedGetPriorityMin(s32 policy) { return sched_get_priority_min(policy); }

s32 QOSA_GetPriority(s32 which, s32 who) { return get_priority(which, who); }
s32 ORV_GetPriority(s32 which, s32 who) { return get_priority(which, who); }
s32 QOSA_SetPriority(s32 which, s32 who, s32 prio) { return set_priority(which, who, prio); }
s32 ORV_SetPriority(s32 which, s32 who, s32 prio) { return set_priority(which, who, prio); }

// ---- sleeps -----------------------------------------------------------------

u32 QOSA_Sleep(u32 seconds) { return sleep(seconds); }
s32 QOSA_SleepMs(u32 milliseconds) { return usleep(milliseconds * 1000U); } // 32-bit product
s32 QOSA_USleep(u32 microseconds) { return usleep(microseconds); }

// ---- mappings and shared memory --------------------------------------------

key_t QOSA_Ftok(const char* path, s32 id) {
    return guarded<key_t>(-1, need(as_path(path)), [=] { return ftok(path, id); });
}

void* QOSA_MMap(void* addr, u32 len, s32 prot, s32 flags, s32 fd, s32 offset) {
    return map(addr, len, prot, flags, fd, offset);
}
void* QOSA_MMapWin(void* addr, u32 len, s32 prot, s32 flags, s32 fd, s32 offset) {
    return map(addr, len, prot, flags, fd, offset);
}
s32 QOSA_MUnMap(void* addr, u32 len) { return unmap(addr, len); }
s32 QOSA_MUnMapWin(void* addr, u32 len) { return unmap(addr, len); }

s32 QOSA_ShmGet(key_t, u32, s32) { return -1; }
void* QOSA_ShmAt(s32, const void*, s32) { return nullptr; }
s32 QOSA_ShmDt(const void*) { return -1; }
s32 QOSA_ShmCtl(s32, s32, struct shmid_ds*) { return -1; }

s32 QOSA_ShmOpen(const char*, s32, mode_t) {
    errno = ENOSYS;
    return -1;
}

s32 QOSA_ShmUnLink(const char* name) {
    if (name != nullptr) errno = ENOSYS;
    return -1;
}

// ---- signals -------------------------------------------------------------------

s32 QOSA_SigAction(s32 sig, const struct sigaction* act, struct sigaction* oldAct) {
    return sigaction(sig, act, oldAct);
}

s32 QOSA_Signal(s32 sig, void (*handler)(int)) {
    signal(sig, handler);
    return 0;
}

s32 QOSA_SigProcmask(s32 how, const sigset_t* set, sigset_t* oldSet) {
    return guarded<s32>(-1, need(set), [=] { return sigprocmask(how, set, oldSet); });
}
s32 QOSA_PthreadSigmask(s32 how, const sigset_t* set, sigset_t* oldSet) {
    return guarded<s32>(-1, need(set), [=] { return pthread_sigmask(how, set, oldSet); });
}
s32 QOSA_SigPending(sigset_t* set) {
    return guarded<s32>(-1, need(set), [=] { return sigpending(set); });
}
s32 QOSA_SigSuspend(const sigset_t* set) {
    return guarded<s32>(-1, need(set), [=] { return sigsuspend(set); });
}
s32 QOSA_SigWait(const sigset_t* set, s32* sig) {
    // Without a place for the number the platform would fault once a signal came.
    return guarded<s32>(-1, need(set), [=] { return sig ? sigwait(set, sig) : EINVAL; });
}

s32 QOSA_SigWaitInfo(const sigset_t* set, siginfo_t* info) { return set && info ? 0 : -1; }
s32 QOSA_SigTimedWait(const sigset_t* set, siginfo_t* info, const struct timespec*) { return set && info ? 0 : -1; }
s32 QOSA_SigQueue(pid_t, s32, const union sigval) { return -1; }

s32 QOSA_PthreadKill(pthread_t thread, s32 sig) { return pthread_kill(thread, sig); }
s32 QOSA_Kill(pid_t pid, s32 sig) { return kill(pid, sig); }

// GCOVR_EXCL_BR_START: a fill of the set's own size does not fail
s32 QOSA_SigEmptySet(sigset_t* set) {
    return guarded<s32>(-1, need(set), [=] { return memset_s(set, sizeof *set, 0, sizeof *set) == 0 ? 0 : -1; });
}
s32 QOSA_SigFillSet(sigset_t* set) {
    return guarded<s32>(-1, need(set), [=] { return memset_s(set, sizeof *set, 0xFF, sizeof *set) == 0 ? 0 : -1; });
}
// GCOVR_EXCL_BR_STOP

s32 QOSA_SigAddSet(sigset_t* set, s32 sig) {
    if (set == nullptr) return -1;
    if (in_set_range(sig)) *word_of(set, sig) |= bit_of(sig);
    return 0;
}

s32 QOSA_SigDelSet(sigset_t* set, s32 sig) {
    if (set == nullptr) return -1;
    if (in_set_range(sig)) *word_of(set, sig) &= ~bit_of(sig);
    return 0;
}

s32 QOSA_SigIsMember(const sigset_t* set, s32 sig) {
    if (set == nullptr) return -1;
    return in_set_range(sig) && (*word_of(set, sig) & bit_of(sig)) != 0 ? 1 : 0;
}

// ---- processes -------------------------------------------------------------------

pid_t QOSA_GetPID(void) { return getpid(); }
s64 QOSA_Fork(void) { return fork(); }
s64 QOSA_Wait(s32* status) { return wait(status); }
pid_t QOSA_Waitpid(pid_t pid, s32* status, s32 options) { return waitpid(pid, status, options); }
s32 QOSA_CreateProcess(const char*, char* const[]) { return 0; }
void QOSA_Exit(s32 status) { _exit(status); } // GCOVR_EXCL_LINE: the process ends before counters are written
s32 QOSA_Reboot(s32 howto) { return reboot(howto); }

} // extern "C"
