// Relative timer groups: a fixed set of periodic relative timers sharing one
// callback, each member started and stopped by its number. Built on what the
// public relative-timer calls do (internal/timer_service.h), except for the
// release of the group's memory, which is queued in a request reserved with
// the group; the group has no lock of its own.
#define QOSA_UNIT_NAME "tmr_group.c"

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "internal/common.h"
#include "internal/timer_service.h"
#include "internal/tracked.h"
#include "qosa_timer.h"

static_assert(offsetof(QOSA_RelTimerGrpEntry, userValue) == 0 && offsetof(QOSA_RelTimerGrpEntry, index) == 4 &&
              offsetof(QOSA_RelTimerGrpEntry, mode) == 8 && offsetof(QOSA_RelTimerGrpEntry, interval) == 12 &&
              offsetof(QOSA_RelTimerGrpEntry, proc) == 16 && offsetof(QOSA_RelTimerGrpEntry, timer) == 24 &&
              offsetof(QOSA_RelTimerGrpEntry, started) == 32);
static_assert(offsetof(QOSA_RelTimerGrp, count) == 0 && offsetof(QOSA_RelTimerGrp, valid) == 4 &&
              offsetof(QOSA_RelTimerGrp, proc) == 8 && offsetof(QOSA_RelTimerGrp, entries) == 16);

namespace {

constexpr u32 kNullOut = 0x20160032;
constexpr u32 kTooMany = 0x20160034;
constexpr u32 kNoMemory = 0x20160036;
constexpr u32 kNullProc = 0x20160037;
constexpr u32 kStartBadGroup = 0x20160039;
constexpr u32 kStartBadIndex = 0x2016003B;
constexpr u32 kStartBadMode = 0x2016003C;
constexpr u32 kStartFailed = 0x2016003D;
constexpr u32 kStopNullGroup = 0x20160040;
constexpr u32 kStopInvalidGroup = 0x20160041;
constexpr u32 kStopBadIndex = 0x20160042;
constexpr u32 kStopFailed = 0x20160043;
constexpr u32 kStopNotStarted = 0x20160044;
constexpr u32 kFreeNullGroup = 0x20160046;
constexpr u32 kFreeInvalidGroup = 0x20160047;
constexpr u32 kFreeMemberFailed = 0x20160048;

// A group as allocated: the caller's record, then the request that releases
// it, reserved with it so that freeing the group never needs memory.
struct GroupBlock {
    QOSA_RelTimerGrp grp;
    qosa::timer::OwnedTasklet release;
};
static_assert(offsetof(GroupBlock, grp) == 0, "the caller's record is the block");

void release_now(void* p) {
    auto* block = static_cast<GroupBlock*>(p);
    if (block->grp.entries != nullptr) QOSA_RELEASE(block->grp.entries);
    QOSA_RELEASE(block);
}

// The group's memory goes on the timer thread, behind the queued frees of
// its member timers, so no member callback can still read it. When the
// relative timers are not set up, no callback can run: it goes at once.
void release(QOSA_RelTimerGrp* grp) {
    auto* block = reinterpret_cast<GroupBlock*>(grp);
    if (!qosa::timer::reltm_post_release(&block->release, release_now, block)) release_now(block);
}

} // namespace

extern "C" {

u32 QOSA_InitReltimerGrp(QOSA_RelTimerGrp** out, u32 count, QOSA_GrpTimeoutProc proc) {
    if (out == nullptr) return kNullOut;
    if (proc == nullptr) return kNullProc;
    if (count > __atomic_load_n(&ulMaxReltmNum, __ATOMIC_RELAXED)) return kTooMany;
    auto* block = QOSA_ALLOC_OF(GroupBlock);
    if (block == nullptr) return kNoMemory;
    memset_s(block, sizeof *block, 0, sizeof *block);
    QOSA_RelTimerGrp* grp = &block->grp;
    grp->valid = 1;
    grp->proc = proc;
    grp->count = count;
    // A group of 0 members asks for a block of 0 bytes, which the allocator refuses.
    const std::size_t bytes = std::size_t{count} * sizeof(QOSA_RelTimerGrpEntry);
    auto* entries = static_cast<QOSA_RelTimerGrpEntry*>(QOSA_ALLOC(bytes));
    if (entries == nullptr) {
        QOSA_RELEASE(block);
        return kNoMemory;
    }
    memset_s(entries, bytes, 0, bytes);
    // A member's number never changes: set once here, so a start never writes
    // what the previous timer's callback may still be reading.
    for (u32 i = 0; i < count; ++i) {
        entries[i].proc = proc;
        entries[i].index = i;
    }
    grp->entries = entries;
    *out = grp;
    return 0;
}

u32 QOSA_StartRelTimerofGrp(QOSA_RelTimerGrp* grp, u32 index, u32 intervalMs, u32 userValue, u8 mode) {
    if (grp == nullptr || grp->valid != 1) return kStartBadGroup;
    if (index >= grp->count) return kStartBadIndex;
    if (mode > 1) return kStartBadMode;
    QOSA_RelTimerGrpEntry* m = &grp->entries[index];
    if (m->started != 0) return 0; // a running member is not restarted
    // A timer left by a start that failed is released before a new one is made.
    if (m->timer != nullptr) qosa::timer::rel_free(m->timer);
    // The previous timer of this member may still be firing until its queued
    // free runs; its callback reads userValue.
    __atomic_store_n(&m->userValue, userValue, __ATOMIC_RELAXED);
    m->mode = mode;
    m->interval = intervalMs;
    m->timer = qosa::timer::create_rel_timer(QOSA_TimeoutFuncOfGrp, QOSA_TIMER_LOOP, __LINE__, QOSA_UNIT_NAME);
    if (m->timer == nullptr) return kStartFailed;
    if (qosa::timer::rel_start(m->timer, intervalMs, m) != 0) return kStartFailed;
    m->started = 1;
    return 0;
}

void QOSA_TimeoutFuncOfGrp(void* member) {
    auto* m = static_cast<QOSA_RelTimerGrpEntry*>(member);
    if (m == nullptr || m->proc == nullptr) return;
    m->proc(m->index, __atomic_load_n(&m->userValue, __ATOMIC_RELAXED));
}

u32 QOSA_StopRelTimerofGrp(QOSA_RelTimerGrp* grp, u32 index) {
    if (grp == nullptr) return kStopNullGroup;
    if (grp->valid != 1) return kStopInvalidGroup;
    if (index >= grp->count) return kStopBadIndex;
    QOSA_RelTimerGrpEntry* m = &grp->entries[index];
    if (m->started == 0) return kStopNotStarted;
    if (qosa::timer::rel_stop(m->timer, nullptr, nullptr) != 0 || qosa::timer::rel_free(m->timer) != 0)
        return kStopFailed;
    m->timer = nullptr;
    m->started = 0;
    return 0;
}

u32 QOSA_FreeRelTimerGrp(QOSA_RelTimerGrp* grp) {
    if (grp == nullptr) return kFreeNullGroup;
    if (grp->valid != 1) return kFreeInvalidGroup;
    for (u32 i = 0; grp->entries != nullptr && i < grp->count; ++i) {
        QOSA_RelTimerGrpEntry* m = &grp->entries[i];
        if (m->timer == nullptr) continue;
        // 22: the timer is already gone (the service was stopped since).
        if (u32 r = qosa::timer::rel_free(m->timer); r != 0 && r != EINVAL) return kFreeMemberFailed;
        m->timer = nullptr; // a retry after a failure does not free it twice
        m->started = 0;
    }
    grp->valid = 0; // refused from here on: its release is queued once
    release(grp);
    return 0;
}

} // extern "C"
