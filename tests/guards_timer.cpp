// Guarded entry points of the timer service. None of these rows starts the
// service: the refusals come before any set-up.
#include <cerrno>

#include "guard_cases.h"
#include "qosa.h"

namespace {
void* s_cell = nullptr; // a pointer-sized cell that is no slot of any index
void* const kForeign = &s_cell;
void* s_out = nullptr;
struct tm s_tm {};
QOSA_SysTime s_when{0, 30, 7, -1, -1, -1, 0, 0, 0, 0, nullptr};
QOSA_RelTimerGrp* s_grp = nullptr;
tsklet_head* const kNoQueue = nullptr;
void proc(void*) {}
void tick(s64) {}
void on_group(u32, u32) {}
std::int64_t v(u32 r) { return r; }
} // namespace

static GuardRows s_rows{
    {"tsklet_init", [] { return std::int64_t{tsklet_init(kNoQueue)}; }, -1},
    {"tsklet_invokelater", [] { return v(tsklet_invokelater(kNoQueue, proc, nullptr)); }, 22},
    {"tsklet_invokefirst", [] { return v(tsklet_invokefirst(kNoQueue, proc, nullptr)); }, 22},
    {"tsklet_invokeall", [] { return std::int64_t{tsklet_invokeall(kNoQueue)}; }, -1},
    {"tsklet_delinit", [] { return v(tsklet_delinit(kNoQueue)); }, 22},
    {"petimer_register_tickhook_NoHook", [] { return v(petimer_register_tickhook(nullptr, 1)); }, 22},
    {"petimer_register_tickhook_Period0", [] { return v(petimer_register_tickhook(tick, 0)); }, 22},
    {"petimer_deregister_tickhook", [] { return v(petimer_deregister_tickhook(nullptr)); }, 22},
    {"petimer_start_reltimer", [] { return v(petimer_start_reltimer(nullptr, 10, nullptr)); }, 22},
    {"petimer_stop_reltimer_safe", [] { return v(petimer_stop_reltimer_safe(nullptr, nullptr, nullptr)); }, 22},
    {"petimer_stop_reltimer_safeEx_NoHandle",
     [] { return v(petimer_stop_reltimer_safeEx(nullptr, nullptr, nullptr, &s_out)); }, 22},
    {"petimer_stop_reltimer_safeEx_NoOut",
     [] { return v(petimer_stop_reltimer_safeEx(kForeign, nullptr, nullptr, nullptr)); }, 22},
    {"petimer_free_reltimer", [] { return v(petimer_free_reltimer(nullptr)); }, 22},
    {"petimer_free_reltimerarg_safe_ServiceDown", [] { return v(petimer_free_reltimerarg_safe(nullptr)); }, 22},
    {"petimer_start_abstimer_NoHandle", [] { return v(petimer_start_abstimer(nullptr, &s_tm, nullptr)); }, 22},
    {"petimer_start_abstimer_NoWhen", [] { return v(petimer_start_abstimer(kForeign, nullptr, nullptr)); }, 22},
    {"petimer_stop_abstimer_safe", [] { return v(petimer_stop_abstimer_safe(nullptr, nullptr, nullptr)); }, 22},
    {"petimer_stop_abstimer_safeEx_NoHandle",
     [] { return v(petimer_stop_abstimer_safeEx(nullptr, nullptr, nullptr, &s_out)); }, 22},
    {"petimer_stop_abstimer_safeEx_NoOut",
     [] { return v(petimer_stop_abstimer_safeEx(kForeign, nullptr, nullptr, nullptr)); }, 22},
    {"petimer_free_abstimer", [] { return v(petimer_free_abstimer(nullptr)); }, 22},
    {"petimer_relAbsIndex", [] { return v(petimer_relAbsIndex(nullptr)); }, 22},
    {"petimer_create_reltimer_NoProc", [] { return as_flag(petimer_create_reltimer(nullptr, 0)); }, 0, EINVAL},
    {"petimer_create_reltimer_ServiceDown", [] { return as_flag(petimer_create_reltimer(proc, 0)); }, 0},
    {"QOSA_StopTimerTask_NotRunning", [] { return v(QOSA_StopTimerTask()); }, QOSA_ERROR},
    {"QOSA_CreateAbsTimerM", [] { return as_flag(QOSA_CreateAbsTimerM(nullptr, QOSA_TIMER_LOOP)); }, 0, EINVAL},
    {"QOSA_CreateRelTimerM", [] { return as_flag(QOSA_CreateRelTimerM(nullptr, QOSA_TIMER_LOOP, 1, "f.c")); }, 0,
     EINVAL},
    {"QOSA_StartAbsTimer_NoHandle", [] { return v(QOSA_StartAbsTimer(nullptr, &s_when, nullptr)); }, 22},
    {"QOSA_StartAbsTimer_NoWhen", [] { return v(QOSA_StartAbsTimer(kForeign, nullptr, nullptr)); }, 22},
    {"QOSA_StartRelTimer", [] { return v(QOSA_StartRelTimer(nullptr, 10, nullptr)); }, 22},
    {"QOSA_StopAbsTimer_Safe", [] { return v(QOSA_StopAbsTimer_Safe(nullptr, nullptr, nullptr)); }, 22},
    {"QOSA_StopRelTimer_Safe", [] { return v(QOSA_StopRelTimer_Safe(nullptr, nullptr, nullptr)); }, 22},
    {"QOSA_StopAbsTimer_SafeEx", [] { return v(QOSA_StopAbsTimer_SafeEx(nullptr, nullptr, nullptr, &s_out)); }, 22},
    {"QOSA_StopRelTimer_SafeEx", [] { return v(QOSA_StopRelTimer_SafeEx(nullptr, nullptr, nullptr, &s_out)); }, 22},
    {"QOSA_FreeAbsTimer", [] { return v(QOSA_FreeAbsTimer(nullptr)); }, 22},
    {"QOSA_FreeRelTimer", [] { return v(QOSA_FreeRelTimer(nullptr)); }, 22},
    {"QOSA_FreeRelTimerArg_safe_ServiceDown", [] { return v(QOSA_FreeRelTimerArg_safe(nullptr)); }, 22},
    {"QOSA_StartRelTimer_Simple", [] { return v(QOSA_StartRelTimer_Simple(10, nullptr, nullptr)); }, 12, EINVAL},
    {"qosa_timer_debug", [] { return qosa_timer_debug(nullptr), std::int64_t{0}; }, 0},
    {"QOSA_InitReltimerGrp_NoOut", [] { return v(QOSA_InitReltimerGrp(nullptr, 1, on_group)); }, 0x20160032},
    {"QOSA_InitReltimerGrp_NoProc", [] { return v(QOSA_InitReltimerGrp(&s_grp, 1, nullptr)); }, 0x20160037},
    {"QOSA_StartRelTimerofGrp", [] { return v(QOSA_StartRelTimerofGrp(nullptr, 0, 10, 0, 0)); }, 0x20160039},
    {"QOSA_StopRelTimerofGrp", [] { return v(QOSA_StopRelTimerofGrp(nullptr, 0)); }, 0x20160040},
    {"QOSA_FreeRelTimerGrp", [] { return v(QOSA_FreeRelTimerGrp(nullptr)); }, 0x20160046},
    {"QOSA_TimeoutFuncOfGrp", [] { return QOSA_TimeoutFuncOfGrp(nullptr), std::int64_t{0}; }, 0},
};
