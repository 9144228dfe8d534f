// Last error, error texts and the operate-history ring.
#include <cerrno>
#include <cstring>
#include <iterator>

#include "internal/common.h"
#include "internal/error.h"
#include "qosa_error.h"
#include "qosa_history.h"

// XSI strerror_r (the C++ headers declare the GNU one under that name).
extern "C" int __xpg_strerror_r(int errnum, char* buf, std::size_t buflen);

int qosa::err::str_error(char* buf, u32 bufLen, u32 errnum) {
    // A missing buffer has no room at all.
    return __xpg_strerror_r(static_cast<int>(errnum), buf, buf ? bufLen : 0);
}

extern "C" {

u32 QOSA_GetLastErr(void) { return static_cast<u32>(errno); }
void QOSA_SetLastErr(u32 err) { errno = static_cast<int>(err); }
u32 QOSA_GetLastSocketErr(void) { return static_cast<u32>(errno); }
char* QOSA_StrError(u32 errnum) { return std::strerror(static_cast<int>(errnum)); }

int QOSA_StrError_S(char* buf, u32 bufLen, u32 errnum) { return qosa::err::str_error(buf, bufLen, errnum); }

} // extern "C"

// ---- operate history ----------------------------------------------------

static_assert(sizeof(QOSA_OPERATE_REC_S) == 52, "operation record layout");
static_assert(offsetof(QOSA_OPERATE_REC_S, tname) == 12 && offsetof(QOSA_OPERATE_REC_S, param1) == 44);
static_assert(offsetof(QOSA_OPERATE_HISTORY_S, lNext) == QOSA_OPERATE_HISTORY_NUM * sizeof(QOSA_OPERATE_REC_S));

QOSA_OPERATE_HISTORY_S s_stOperateHistory;

namespace {

constexpr const char* kOperateNames[] = {"None", "CreateTm", "DeleteTm"};
constexpr int kSlots = QOSA_OPERATE_HISTORY_NUM;

const char* operate_name(s32 op) {
    return op >= 0 && op < static_cast<s32>(std::size(kOperateNames)) ? kOperateNames[op] : "undefined";
}

// Claims the slot for one add. Concurrent adds never pick the same slot: the
// next-slot value moves on by compare-and-swap before the record is copied.
int claim_slot() {
    s32* next = &s_stOperateHistory.lNext;
    s32 cur = __atomic_load_n(next, __ATOMIC_RELAXED);
    for (;;) {
        s32 slot = cur >= 0 && cur < kSlots ? cur : 0;
        if (__atomic_compare_exchange_n(next, &cur, slot + 1, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) return slot;
    }
}

} // namespace

extern "C" {

u32 QOSA_InitOperateHistory(void) {
    memset_s(&s_stOperateHistory, sizeof s_stOperateHistory, 0, sizeof s_stOperateHistory);
    return 0;
}

s32 QOSA_AddOperateRec(const QOSA_OPERATE_REC_S* rec) {
    QOSA_OPERATE_REC_S* slot = &s_stOperateHistory.astRec[claim_slot()];
    return memcpy_s(slot, sizeof *slot, rec, sizeof *slot);
}

s32 QOSA_DumpOperateHistory(char* buffer, u32 size) {
    s32 ret = memset_s(buffer, size, 0, size);
    if (ret != 0) return ret;
    ret = snprintf_s(buffer, size, size - 1, "Vaneth Operate History: \n  %14s  %10s %10s %10s %5s %s\n", "Time",
                     "Operate", "Param1", "Param2", "Tid", "TName");
    if (ret <= 0) return ret;
    s32 next = __atomic_load_n(&s_stOperateHistory.lNext, __ATOMIC_ACQUIRE);
    for (int k = 0; k < kSlots; ++k) {
        const QOSA_OPERATE_REC_S& r = s_stOperateHistory.astRec[((next + kSlots - 1 - k) % kSlots + kSlots) % kSlots];
        if (r.operate == QOSA_OPERATE_NONE) continue;
        u32 used = qosa::str_len(buffer);
        if (used >= size - 1) return static_cast<s32>(used);
        s32 t = r.time;
        ret = snprintf_s(buffer + used, size - used, size - used - 1,
                         "  %04d:%02d:%02d(%03d) %10s 0x%08x 0x%08x %5d %.*s\n", t / 360000, (t / 100 % 3600) / 60,
                         (t / 100 % 3600) % 60, (t % 100) * 10, operate_name(r.operate), r.param1, r.param2, r.tid,
                         QOSA_OPERATE_TNAME_LEN, r.tname);
        if (ret <= 0) return ret;
    }
    // Every slot visited: the length of the whole text.
    return static_cast<s32>(qosa::str_len(buffer));
}

} // extern "C"
