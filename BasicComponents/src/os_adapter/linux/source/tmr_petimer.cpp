// The timer thread: starting and stopping the service, the 10-ms loop with
// its tick accounting, the tick hooks and the service flags.
#define QOSA_UNIT_NAME "tmr_petimer.c"

#include <cerrno>
#include <new>

#include "internal/clock.h"
#include "internal/common.h"
#include "internal/ilist.h"
#include "internal/timer_service.h"
#include "internal/tracked.h"
#include "qosa_thread.h"
#include "qosa_time.h"
#include "qosa_timer.h"

namespace {

struct tickhook {
    qosa::ilist::Link link;
    petimer_tickhook_fn hook;
    s64 period;
    s64 elapsed;
};

// Changed only while no timer thread runs (start, under s_tmr_instance_mutex)
// and by the timer thread itself while it ends; the timer thread reads it.
qosa::ilist::List<tickhook, &tickhook::link> _hooks;

QosaMutex s_tmr_instance_mutex = QOSA_MUTEX_INITIALIZER;
u8 s_tmr_init = 0;          // atomic: read by the limit setters of other threads
s32 g_timer_quiting = 0;    // atomic: read without a lock by every timer operation
pthread_t g_timerThrId = 0; // atomic: cleared by the timer thread when it ends

constexpr u32 kTickMs = 10;

s32 quitting() { return __atomic_load_n(&g_timer_quiting, __ATOMIC_ACQUIRE); }

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

namespace qosa::timer {

u8 service_set_up() { return __atomic_load_n(&s_tmr_init, __ATOMIC_ACQUIRE); }

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

int tickhook_count() {
    int n = 0;
    for ([[maybe_unused]] tickhook& h : _hooks)
        ++n;
    return n;
}

bool set_quitting(u32 value, bool withLocks) {
    if (withLocks) {
        MutexGuard rel(reltm_index_lock());
        MutexGuard abs(abstm_index_lock());
        if (!rel.locked() || !abs.locked()) return false; // GCOVR_EXCL_BR_LINE: see MutexGuard
        return set_quitting(value, false);
    }
    __atomic_store_n(&g_timer_quiting, static_cast<s32>(value), __ATOMIC_RELEASE);
    return true;
}

} // namespace qosa::timer

extern "C" {

// ---- Tick hooks and service flags ----

u32 petimer_register_tickhook(petimer_tickhook_fn hook, s64 period) {
    if (hook == nullptr || period < 1) return EINVAL;
    auto* h = QOSA_ALLOC_OF(tickhook);
    if (h == nullptr) {
        errno = ENOMEM;
        return ENOMEM;
    }
    _hooks.push_front(new (h) tickhook{{}, hook, period, 0});
    return 0;
}

u32 petimer_deregister_tickhook(petimer_tickhook_fn hook) {
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

u32 petimer_isQuiting(void) { return static_cast<u32>(quitting()); }

pthread_t petimer_getTreadId(void) { return __atomic_load_n(&g_timerThrId, __ATOMIC_ACQUIRE); }

void petimer_setTreadId(pthread_t tid) { __atomic_store_n(&g_timerThrId, tid, __ATOMIC_RELEASE); }

void petimer_setQuitingFlag(u32 value, s32 withLocks) { qosa::timer::set_quitting(value, withLocks != 0); }

// ---- The timer thread ----

// The start under s_tmr_instance_mutex; *started tells that this call set
// the service up.
static u32 start_locked(pthread_t* outTid, const pthread_attr_t* attr, bool* started) {
    MutexGuard lock(&s_tmr_instance_mutex);
    if (!lock.locked()) return QOSA_ERROR; // GCOVR_EXCL_BR_LINE: see MutexGuard
    if (qosa::timer::service_set_up() == 1) return 0;
    // A stop is still winding down: a thread started now would end at once.
    if (quitting() != 0) return QOSA_ERROR;
    // The absolute set-up registers its hook first and the relative set-up
    // second; registration adds at the front, so the relative pass runs
    // first in every cycle.
    if (u32 ret = init_abstm(); ret != 0) return ret;
    if (u32 ret = init_reltm(); ret != 0) {
        delinit_abstm();
        return ret;
    }
    pthread_t tid{};
    s32 created = QOSA_PthreadCreate(&tid, attr, petimer_proc, nullptr);
    if (created != 0) {
        delinit_reltm();
        delinit_abstm();
        tid = pthread_t{};
    }
    if (outTid != nullptr) *outTid = tid;
    petimer_setTreadId(tid);
    if (created != 0) return static_cast<u32>(created);
    __atomic_store_n(&s_tmr_init, u8{1}, __ATOMIC_RELEASE);
    *started = true;
    return 0;
}

u32 petimer_start(pthread_t* outTid, const pthread_attr_t* attr) {
    bool started = false;
    u32 ret = start_locked(outTid, attr, &started);
    // Traced after the start lock is released: the trace receiver may itself
    // create a timer, which goes through this function again.
    if (started) qosa_timer_debug("Timer initialize success.\n");
    return ret;
}

s32 petimer_stop(pthread_t tid) {
    s32 ret = QOSA_PthreadJoin(tid, nullptr);
    MutexGuard lock(&s_tmr_instance_mutex);
    if (!lock.locked()) return -1; // GCOVR_EXCL_BR_LINE: see MutexGuard
    __atomic_store_n(&s_tmr_init, u8{0}, __ATOMIC_RELEASE);
    return ret;
}

void* petimer_proc(void*) {
    u32 last = QOSA_GetSysRunTime();
    s64 carry = 0;
    while (quitting() == 0) {
        u32 now = QOSA_GetSysRunTime();
        u32 passed = now - last;
        u32 sleepUs = qosa::timer::sleep_us(passed);
        qosa::clock::sleep_ns(s64{sleepUs} * qosa::clock::kNsPerUs);
        last = QOSA_GetSysRunTime();
        auto cycle = qosa::timer::cycle_ticks(passed, sleepUs, last - now, carry);
        carry = cycle.carry;
        if (cycle.ticks > 0) run_hooks(cycle.ticks);
    }
    // Every request queued before the stop still runs; then every timer goes.
    reltmr_post_tasklet();
    abstmr_post_tasklet();
    delinit_reltm();
    delinit_abstm();
    petimer_setTreadId(pthread_t{});
    return nullptr;
}

} // extern "C"
