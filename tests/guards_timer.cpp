// Guarded entry points of the timer service. None of these rows starts the
// service: the refusals come before any set-up.
#include <cerrno>

#include "guard_cases.h"
#include "qosa.h"

namespace {
void* s_cell = nullptr; // a pointer-sized cell that is no slot of any index
void* const s_handle = &s_cell;
void* s_out = nullptr;
struct tm s_tm {};
QOSA_SysTime s_when{0, 30, 7, -1, -1, -1, 0, 0, 0, 0, nullptr};
QOSA_RelTimerGrp* s_grp = nullptr;
void proc(void*) {}
void tick(s64) {}
void on_group(u32, u32) {}
} // namespace

static GuardRows s_rows{
    WITHOUT_ARGS(-1, tsklet_init, tsklet_invokeall),
    WITHOUT_ARGS(22, tsklet_delinit, petimer_deregister_tickhook, petimer_stop_reltimer_safe, petimer_free_reltimer,
                 petimer_stop_abstimer_safe, petimer_free_abstimer, petimer_relAbsIndex, QOSA_StopAbsTimer_Safe,
                 QOSA_StopRelTimer_Safe, QOSA_FreeAbsTimer, QOSA_FreeRelTimer),
    CASE("tsklet_invokelater", 22, tsklet_invokelater(nullptr, proc, nullptr)),
    CASE("tsklet_invokefirst", 22, tsklet_invokefirst(nullptr, proc, nullptr)),
    CASE("petimer_start_reltimer", 22, petimer_start_reltimer(nullptr, 10, nullptr)),
    CASE("QOSA_StartRelTimer", 22, QOSA_StartRelTimer(nullptr, 10, nullptr)),
    EACH_MISSING(QOSA_StopAbsTimer_SafeEx, 22, s_handle, nullptr, nullptr, &s_out),
    EACH_MISSING(QOSA_StopRelTimer_SafeEx, 22, s_handle, nullptr, nullptr, &s_out),
    CASE("petimer_register_tickhook_NoHook", 22, petimer_register_tickhook(nullptr, 1)),
    CASE("petimer_register_tickhook_Period0", 22, petimer_register_tickhook(tick, 0)),
    EACH_MISSING(petimer_stop_reltimer_safeEx, 22, s_handle, nullptr, nullptr, &s_out),
    EACH_MISSING(petimer_stop_abstimer_safeEx, 22, s_handle, nullptr, nullptr, &s_out),
    EACH_MISSING(petimer_start_abstimer, 22, s_handle, &s_tm, nullptr),
    EACH_MISSING(QOSA_StartAbsTimer, 22, s_handle, &s_when, nullptr),
    CASE("petimer_free_reltimerarg_safe_ServiceDown", 22, petimer_free_reltimerarg_safe(nullptr)),
    CASE("QOSA_FreeRelTimerArg_safe_ServiceDown", 22, QOSA_FreeRelTimerArg_safe(nullptr)),
    SETS(EINVAL, "petimer_create_reltimer_NoProc", 0, petimer_create_reltimer(nullptr, 0)),
    CASE("petimer_create_reltimer_ServiceDown", 0, petimer_create_reltimer(proc, 0)),
    CASE("QOSA_StopTimerTask_NotRunning", QOSA_ERROR, QOSA_StopTimerTask()),
    SETS(EINVAL, "QOSA_CreateAbsTimerM", 0, QOSA_CreateAbsTimerM(nullptr, QOSA_TIMER_LOOP)),
    SETS(EINVAL, "QOSA_CreateRelTimerM", 0, QOSA_CreateRelTimerM(nullptr, QOSA_TIMER_LOOP, 1, "f.c")),
    SETS(EINVAL, "QOSA_StartRelTimer_Simple", 12, QOSA_StartRelTimer_Simple(10, nullptr, nullptr)),
    CASE("qosa_timer_debug", 0, qosa_timer_debug(nullptr)),
    CASE("QOSA_InitReltimerGrp_NoOut", 0x20160032, QOSA_InitReltimerGrp(nullptr, 1, on_group)),
    CASE("QOSA_InitReltimerGrp_NoProc", 0x20160037, QOSA_InitReltimerGrp(&s_grp, 1, nullptr)),
    CASE("QOSA_StartRelTimerofGrp", 0x20160039, QOSA_StartRelTimerofGrp(nullptr, 0, 10, 0, 0)),
    CASE("QOSA_StopRelTimerofGrp", 0x20160040, QOSA_StopRelTimerofGrp(nullptr, 0)),
    CASE("QOSA_FreeRelTimerGrp", 0x20160046, QOSA_FreeRelTimerGrp(nullptr)),
    CASE("QOSA_TimeoutFuncOfGrp", 0, QOSA_TimeoutFuncOfGrp(nullptr)),
};
