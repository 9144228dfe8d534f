// The public timer interface: starting and stopping the service (the timer
// thread and the set-up and teardown of both kinds around it), the create
// calls with their implicit start and count limits, the date-time conversion
// of the absolute start and the system-control hook. The rest forwards to the
// relative and absolute timer units.
#define QOSA_UNIT_NAME "tmr_interface.c"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "internal/common.h"
#include "internal/time.h"
#include "internal/timer_service.h"
#include "qosa_timer.h"

namespace {

QosaMutex s_tmr_instance_mutex = QOSA_MUTEX_INITIALIZER;
u8 s_tmr_init = 0; // atomic: read by the limit setters of other threads

// Set while one QOSA_StopTimerTask is under way.
u8 s_stopping = 0;

// The timer thread: the tick loop, then, once the quitting flag is set,
// every request queued before the stop still runs and every timer goes.
void* run_service(void*) {
    qosa::timer::tick_until_quitting();
    qosa::timer::rel_drain();
    qosa::timer::abs_drain();
    qosa::timer::rel_tear_down();
    qosa::timer::abs_tear_down();
    qosa::timer::set_thread_id(pthread_t{});
    return nullptr;
}

// The start under s_tmr_instance_mutex; *started tells that this call set
// the service up.
u32 start_locked(pthread_t* outTid, const pthread_attr_t* attr, bool* started) {
    MutexGuard lock(&s_tmr_instance_mutex);
    if (!lock.locked()) return QOSA_ERROR; // GCOVR_EXCL_BR_LINE: see MutexGuard
    if (qosa::timer::service_set_up() == 1) return 0;
    // A stop is still winding down: a thread started now would end at once.
    if (qosa::timer::quitting() != 0) return QOSA_ERROR;
    // The absolute set-up registers its hook first and the relative set-up
    // second; registration adds at the front, so the relative pass runs
    // first in every cycle.
    if (u32 ret = qosa::timer::abs_set_up(); ret != 0) return ret;
    if (u32 ret = qosa::timer::rel_set_up(); ret != 0) {
        qosa::timer::abs_tear_down();
        return ret;
    }
    pthread_t tid{};
    s32 created = pthread_create(&tid, attr, run_service, nullptr);
    if (created != 0) {
        qosa::timer::rel_tear_down();
        qosa::timer::abs_tear_down();
        tid = pthread_t{};
    }
    if (outTid != nullptr) *outTid = tid;
    qosa::timer::set_thread_id(tid);
    if (created != 0) return static_cast<u32>(created);
    __atomic_store_n(&s_tmr_init, u8{1}, __ATOMIC_RELEASE);
    *started = true;
    return 0;
}

// Quitting, or the service cannot be started: no timer can be made.
bool service_ready() { return qosa::timer::quitting() == 0 && qosa::timer::service_start(nullptr, nullptr) == 0; }

// What every create does: refuse a NULL callback (EINVAL) before starting
// anything, start the service, reserve a unit of the kind's live count, make
// the timer, and give the unit back when that fails.
template <typename Create>
void* create_counted(QOSA_TimerProc proc, qosa::timer::LiveCount count, Create create) {
    if (proc == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    if (!service_ready() || !count.reserve()) return nullptr;
    void* h = create();
    if (h == nullptr) count.sub();
    return h;
}

} // namespace

namespace qosa::timer {

u8 service_set_up() { return __atomic_load_n(&s_tmr_init, __ATOMIC_ACQUIRE); }

u32 service_start(pthread_t* outTid, const pthread_attr_t* attr) {
    bool started = false;
    u32 ret = start_locked(outTid, attr, &started);
    // Traced after the start lock is released: the trace receiver may itself
    // create a timer, which goes through this function again.
    if (started) debug("Timer initialize success.\n");
    return ret;
}

s32 service_stop(pthread_t tid) {
    s32 ret = pthread_join(tid, nullptr);
    MutexGuard lock(&s_tmr_instance_mutex);
    if (!lock.locked()) return -1; // GCOVR_EXCL_BR_LINE: see MutexGuard
    __atomic_store_n(&s_tmr_init, u8{0}, __ATOMIC_RELEASE);
    return ret;
}

bool set_quitting(u32 value, bool withLocks) {
    if (!withLocks) {
        store_quitting(value);
        return true;
    }
    MutexGuard rel(reltm_index_lock());
    MutexGuard abs(abstm_index_lock());
    if (!rel.locked() || !abs.locked()) return false; // GCOVR_EXCL_BR_LINE: see MutexGuard
    store_quitting(value);
    return true;
}

void* create_rel_timer(QOSA_TimerProc proc, u32 mode, u32 line, const char* file) {
    void* h = create_counted(proc, reltm_count(), [=] { return rel_create(proc, mode); });
    if (h != nullptr) reltimer_set_origin(h, line, file);
    return h;
}

} // namespace qosa::timer

extern "C" {

QOSA_SysCtrlRegTaskTidProc g_pfnSysCtrlRegTaskTidFunc = nullptr;

// ---- The timer thread ----

u32 petimer_start(pthread_t* outTid, const pthread_attr_t* attr) { return qosa::timer::service_start(outTid, attr); }

s32 petimer_stop(pthread_t tid) { return qosa::timer::service_stop(tid); }

void* petimer_proc(void* unused) { return run_service(unused); }

void petimer_setQuitingFlag(u32 value, s32 withLocks) { qosa::timer::set_quitting(value, withLocks != 0); }

// ---- The service ----

u32 QOSA_StartTimerTask(pthread_t* outTid, const pthread_attr_t* attr) {
    if (qosa::timer::quitting() != 0) return QOSA_ERROR;
    return qosa::timer::service_start(outTid, attr);
}

u32 QOSA_StopTimerTask(void) {
    if (__atomic_exchange_n(&s_stopping, 1, __ATOMIC_ACQ_REL) != 0) return QOSA_ERROR;
    u32 ret = QOSA_ERROR;
    pthread_t tid = qosa::timer::thread_id();
    // Called on the timer thread itself it would wait for its own end.
    if (tid != 0 && qosa::timer::quitting() == 0 && pthread_equal(tid, pthread_self()) == 0) {
        if (qosa::timer::set_quitting(1, true)) {
            qosa::timer::service_stop(tid);
            qosa::timer::set_quitting(0, false);
            ret = 0;
        }
    }
    __atomic_store_n(&s_stopping, 0, __ATOMIC_RELEASE);
    return ret;
}

void QOSA_TMRSetMaxAbstmNum(u32 n) {
    if (qosa::timer::service_set_up() == 0) __atomic_store_n(&ulMaxAbstmNum, n, __ATOMIC_RELAXED);
}

void QOSA_TMRSetMaxReltmNum(u32 n) {
    if (qosa::timer::service_set_up() == 0) __atomic_store_n(&ulMaxReltmNum, n, __ATOMIC_RELAXED);
}

// ---- Creating ----

void* QOSA_CreateAbsTimerM(QOSA_TimerProc proc, u32 mode) {
    return create_counted(proc, qosa::timer::abstm_count(), [=] { return qosa::timer::abs_create(proc, mode); });
}

void* QOSA_CreateRelTimerM(QOSA_TimerProc proc, u32 mode, u32 line, const char* file) {
    return qosa::timer::create_rel_timer(proc, mode, line, file);
}

// ---- Starting, stopping, freeing ----

u32 QOSA_StartAbsTimer(void* h, const QOSA_SysTime* when, void* arg) {
    if (when == nullptr || qosa::time::sys_time_valid(when) == 0) return EINVAL;
    struct tm pattern;
    qosa::time::to_platform_tm(*when, pattern);
    return qosa::timer::abs_start(h, &pattern, arg);
}

u32 QOSA_StartRelTimer(void* h, u32 intervalMs, void* arg) { return qosa::timer::rel_start(h, intervalMs, arg); }

u32 QOSA_StopAbsTimer_Safe(void* h, QOSA_TimerDoneProc done, void* doneArg) {
    return qosa::timer::abs_stop(h, done, doneArg);
}

u32 QOSA_StopRelTimer_Safe(void* h, QOSA_TimerDoneProc done, void* doneArg) {
    return qosa::timer::rel_stop(h, done, doneArg);
}

u32 QOSA_StopAbsTimer_SafeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg) {
    return qosa::timer::abs_stop_ex(h, done, doneArg, outArg);
}

u32 QOSA_StopRelTimer_SafeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg) {
    return qosa::timer::rel_stop_ex(h, done, doneArg, outArg);
}

u32 QOSA_FreeAbsTimer(void* h) { return qosa::timer::abs_free(h); }

u32 QOSA_FreeRelTimer(void* h) { return qosa::timer::rel_free(h); }

u32 QOSA_StartRelTimer_Simple(u32 intervalMs, QOSA_TimerProc proc, void* arg) {
    if (qosa::timer::quitting() != 0) return QOSA_ERROR;
    if (proc == nullptr) {
        errno = EINVAL;
        return ENOMEM; // what the failed create inside would give, without starting the service
    }
    u32 ret = qosa::timer::service_start(nullptr, nullptr);
    if (ret != 0) return ret;
    return qosa::timer::rel_start_simple(intervalMs, proc, arg);
}

u32 QOSA_FreeRelTimerArg_safe(void* block) { return qosa::timer::rel_free_arg(block); }

// ---- The system-control hook ----

u32 QOSA_SYSCTRL_RegSysCtrlRegTaskTid(QOSA_SysCtrlRegTaskTidProc fn) {
    __atomic_store_n(&g_pfnSysCtrlRegTaskTidFunc, fn, __ATOMIC_RELEASE);
    return 0;
}

int QOSA_SysCtrlRegTaskTid(const char* name, ...) {
    QOSA_SysCtrlRegTaskTidProc fn = __atomic_load_n(&g_pfnSysCtrlRegTaskTidFunc, __ATOMIC_ACQUIRE);
    if (fn == nullptr) return std::printf("QOSA_SysCtrlRegTaskTid %s\n", name != nullptr ? name : "(null)");
    va_list args;
    va_start(args, name);
    int ret = fn(name, args);
    va_end(args);
    return ret;
}

} // extern "C"
