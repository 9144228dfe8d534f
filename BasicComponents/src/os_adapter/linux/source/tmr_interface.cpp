// The public timer interface: starting and stopping the service, the create
// calls with their implicit start and count limits, the date-time conversion
// of the absolute start, the debug trace and the system-control hook. The
// rest forwards to the relative and absolute timer units.
#define QOSA_UNIT_NAME "tmr_interface.c"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "internal/common.h"
#include "internal/timer_service.h"
#include "qosa_time.h"
#include "qosa_timer.h"

namespace {

// Quitting, or the service cannot be started: no timer can be made.
bool service_ready() { return petimer_isQuiting() == 0 && petimer_start(nullptr, nullptr) == 0; }

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

// Set while one QOSA_StopTimerTask is under way.
u8 s_stopping = 0;

} // namespace

extern "C" {

QOSA_TimerDebugProc g_pfnTimerDebug = nullptr;
QOSA_SysCtrlRegTaskTidProc g_pfnSysCtrlRegTaskTidFunc = nullptr;

// ---- The service ----

u32 QOSA_StartTimerTask(pthread_t* outTid, const pthread_attr_t* attr) {
    if (petimer_isQuiting() != 0) return QOSA_ERROR;
    return petimer_start(outTid, attr);
}

u32 QOSA_StopTimerTask(void) {
    if (__atomic_exchange_n(&s_stopping, 1, __ATOMIC_ACQ_REL) != 0) return QOSA_ERROR;
    u32 ret = QOSA_ERROR;
    pthread_t tid = petimer_getTreadId();
    // Called on the timer thread itself it would wait for its own end.
    if (tid != 0 && petimer_isQuiting() == 0 && pthread_equal(tid, pthread_self()) == 0) {
        if (qosa::timer::set_quitting(1, true)) {
            petimer_stop(tid);
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
    return create_counted(proc, qosa::timer::abstm_count(), [=] { return petimer_create_abstimer(proc, mode); });
}

void* QOSA_CreateRelTimerM(QOSA_TimerProc proc, u32 mode, u32 line, const char* file) {
    void* h = create_counted(proc, qosa::timer::reltm_count(), [=] { return petimer_create_reltimer(proc, mode); });
    if (h != nullptr) qosa::timer::reltimer_set_origin(h, line, file);
    return h;
}

// ---- Starting, stopping, freeing ----

u32 QOSA_StartAbsTimer(void* h, const QOSA_SysTime* when, void* arg) {
    if (when == nullptr || ZAL_IsSysTimeValid(when) == 0) return EINVAL;
    // QOSA_SysTime has the layout of struct tm: copy all eleven fields, then
    // move month and year to the platform's origin (wildcards stay -1).
    struct tm pattern {};
    memcpy_s(&pattern, sizeof pattern, when, sizeof *when);
    if (pattern.tm_year != -1) pattern.tm_year -= 1900;
    if (pattern.tm_mon != -1) pattern.tm_mon -= 1;
    return petimer_start_abstimer(h, &pattern, arg);
}

u32 QOSA_StartRelTimer(void* h, u32 intervalMs, void* arg) { return petimer_start_reltimer(h, intervalMs, arg); }

u32 QOSA_StopAbsTimer_Safe(void* h, QOSA_TimerDoneProc done, void* doneArg) {
    return petimer_stop_abstimer_safe(h, done, doneArg);
}

u32 QOSA_StopRelTimer_Safe(void* h, QOSA_TimerDoneProc done, void* doneArg) {
    return petimer_stop_reltimer_safe(h, done, doneArg);
}

u32 QOSA_StopAbsTimer_SafeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg) {
    return petimer_stop_abstimer_safeEx(h, done, doneArg, outArg);
}

u32 QOSA_StopRelTimer_SafeEx(void* h, QOSA_TimerDoneProc done, void* doneArg, void** outArg) {
    return petimer_stop_reltimer_safeEx(h, done, doneArg, outArg);
}

u32 QOSA_FreeAbsTimer(void* h) { return petimer_free_abstimer(h); }

u32 QOSA_FreeRelTimer(void* h) { return petimer_free_reltimer(h); }

u32 QOSA_StartRelTimer_Simple(u32 intervalMs, QOSA_TimerProc proc, void* arg) {
    if (petimer_isQuiting() != 0) return QOSA_ERROR;
    if (proc == nullptr) {
        errno = EINVAL;
        return ENOMEM; // what the failed create inside would give, without starting the service
    }
    u32 ret = petimer_start(nullptr, nullptr);
    if (ret != 0) return ret;
    return petimer_start_reltimer_simple(intervalMs, proc, arg);
}

u32 QOSA_FreeRelTimerArg_safe(void* block) { return petimer_free_reltimerarg_safe(block); }

// ---- Debug trace and system-control hook ----

void QOSA_TimerRegDebugTrace(QOSA_TimerDebugProc fn) { __atomic_store_n(&g_pfnTimerDebug, fn, __ATOMIC_RELEASE); }

void qosa_timer_debug(const char* fmt, ...) {
    QOSA_TimerDebugProc fn = __atomic_load_n(&g_pfnTimerDebug, __ATOMIC_ACQUIRE);
    if (fn == nullptr || fmt == nullptr) return;
    char text[512] = {};
    va_list args;
    va_start(args, fmt);
    int n = vsprintf_s(text, sizeof text, fmt, args);
    va_end(args);
    if (n != -1) fn(text);
}

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
