// The timer thread's loop: the 10-ms cycle with its tick accounting, the tick
// hooks that the kinds of timer register, the service flags and the debug
// trace. Starting and stopping the thread, which sets the kinds up and down,
// is tmr_interface's.
#define QOSA_UNIT_NAME "tmr_petimer.c"

#include <cerrno>
#include <cstdarg>
#include <new>

#include "internal/clock.h"
#include "internal/common.h"
#include "internal/ilist.h"
#include "internal/time.h"
#include "internal/timer_service.h"
#include "internal/tracked.h"
#include "qosa_timer.h"

namespace {

struct tickhook {
    qosa::ilist::Link link;
    petimer_tickhook_fn hook;
    s64 period;
    s64 elapsed;
};

// Changed only while no timer thread runs (a start, under its lock) and by
// the timer thread itself while it ends; the timer thread reads it.
qosa::ilist::List<tickhook, &tickhook::link> _hooks;

s32 g_timer_quiting = 0;    // atomic: read without a lock by every timer operation
pthread_t g_timerThrId = 0; // atomic: cleared by the timer thread when it ends

constexpr u32 kTickMs = 10;

void run_hooks(s64 ticks) {
    for (tickhook& h : _hooks) {
        h.elapsed += ticks;
        if (h.elapsed >= h.period) {
            s64 gathered = h.elapsed;
            h.elapsed = 0;
            h.hook(gathered);
        }
    }
}

// A clock difference taken modulo 2^32; 2^31 or more is a step back: 0.
u32 forward(u32 diff) { return static_cast<s32>(diff) < 0 ? 0 : diff; }

} // namespace

extern "C" {
QOSA_TimerDebugProc g_pfnTimerDebug = nullptr;
}

namespace qosa::timer {

u32 sleep_us(u32 passedMs) { return 10000u - ((forward(passedMs) * 1000u) % 10000u); }

CycleTicks cycle_ticks(u32 passedMs, u32 plannedUs, u32 sleptMs, s64 carry) {
    s64 ticks = forward(passedMs) / kTickMs;
    // A clock that did not advance over the sleep (or stepped back) leaves
    // the carry alone: the sleep counts its one tick and nothing more.
    if (s64 slept = forward(sleptMs); slept > 0) carry += s64{plannedUs / 1000u} - slept;
    if (carry > -static_cast<s64>(kTickMs)) {
        if (carry >= kTickMs) { // woke early: withhold one tick per cycle
            carry -= kTickMs;
            ticks -= 1;
        }
    } else { // overslept: make the whole ticks good
        s64 k = -carry / kTickMs;
        carry += k * kTickMs;
        ticks += k;
    }
    // A burst is handed over in slices; the rest waits in the carry.
    if (ticks > kMaxTicksPerCycle - 1) {
        carry -= (ticks - (kMaxTicksPerCycle - 1)) * kTickMs;
        ticks = kMaxTicksPerCycle - 1;
    }
    return {ticks < 0 ? 0 : ticks + 1, carry}; // the sleep itself is one tick
}

void tick_until_quitting() {
    u32 last = qosa::time::run_ms();
    s64 carry = 0;
    while (quitting() == 0) {
        u32 now = qosa::time::run_ms();
        u32 passed = now - last;
        u32 sleepUs = sleep_us(passed);
        qosa::clock::sleep_ns(s64{sleepUs} * qosa::clock::kNsPerUs);
        last = qosa::time::run_ms();
        auto cycle = cycle_ticks(passed, sleepUs, last - now, carry);
        carry = cycle.carry;
        if (cycle.ticks > 0) run_hooks(cycle.ticks);
    }
}

int tickhook_count() {
    int n = 0;
    for ([[maybe_unused]] tickhook& h : _hooks)
        ++n;
    return n;
}

u32 register_tickhook(petimer_tickhook_fn hook, s64 period) {
    if (hook == nullptr || period < 1) return EINVAL;
    auto* h = QOSA_ALLOC_OF(tickhook);
    if (h == nullptr) {
        errno = ENOMEM;
        return ENOMEM;
    }
    _hooks.push_front(new (h) tickhook{{}, hook, period, 0});
    return 0;
}

u32 deregister_tickhook(petimer_tickhook_fn hook) {
    if (hook == nullptr) return EINVAL;
    for (tickhook& h : _hooks) {
        if (h.hook == hook) {
            _hooks.remove(&h);
            QOSA_RELEASE(&h);
            break;
        }
    }
    return 0;
}

u32 quitting() { return static_cast<u32>(__atomic_load_n(&g_timer_quiting, __ATOMIC_ACQUIRE)); }

void store_quitting(u32 value) { __atomic_store_n(&g_timer_quiting, static_cast<s32>(value), __ATOMIC_RELEASE); }

pthread_t thread_id() { return __atomic_load_n(&g_timerThrId, __ATOMIC_ACQUIRE); }

void set_thread_id(pthread_t tid) { __atomic_store_n(&g_timerThrId, tid, __ATOMIC_RELEASE); }

void vdebug(const char* fmt, va_list args) {
    QOSA_TimerDebugProc fn = __atomic_load_n(&g_pfnTimerDebug, __ATOMIC_ACQUIRE);
    if (fn == nullptr || fmt == nullptr) return;
    char text[512] = {};
    if (vsprintf_s(text, sizeof text, fmt, args) != -1) fn(text);
}

void debug(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vdebug(fmt, args);
    va_end(args);
}

} // namespace qosa::timer

extern "C" {

u32 petimer_register_tickhook(petimer_tickhook_fn hook, s64 period) {
    return qosa::timer::register_tickhook(hook, period);
}

u32 petimer_deregister_tickhook(petimer_tickhook_fn hook) { return qosa::timer::deregister_tickhook(hook); }

u32 petimer_isQuiting(void) { return qosa::timer::quitting(); }

pthread_t petimer_getTreadId(void) { return qosa::timer::thread_id(); }

void petimer_setTreadId(pthread_t tid) { qosa::timer::set_thread_id(tid); }

void QOSA_TimerRegDebugTrace(QOSA_TimerDebugProc fn) { __atomic_store_n(&g_pfnTimerDebug, fn, __ATOMIC_RELEASE); }

void qosa_timer_debug(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    qosa::timer::vdebug(fmt, args);
    va_end(args);
}

} // extern "C"
