// Guarded entry points of the semaphores.
#include "guard_cases.h"
#include "qosa.h"

namespace {
QOSA_SEM_S s_sem{};
timespec s_deadline{};
} // namespace

static GuardRows s_rows{
    {"QOSA_SemInit", [] { return QOSA_SemInit(nullptr, 0, 1); }, -1},
    {"QOSA_SemInitWin", [] { return QOSA_SemInitWin(nullptr, 0, 1); }, -1},
    {"QOSA_SemDestroy", [] { return QOSA_SemDestroy(nullptr); }, -1},
    {"QOSA_SemWait", [] { return QOSA_SemWait(nullptr); }, -1},
    {"QOSA_SemPost", [] { return QOSA_SemPost(nullptr); }, -1},
    {"QOSA_SemPostWin", [] { return QOSA_SemPostWin(nullptr); }, -1},
    {"QOSA_SemWaitTimeOut", [] { return QOSA_SemWaitTimeOut(nullptr, 10); }, -1},
    {"QOSA_SemTimedWait_rec", [] { return QOSA_SemTimedWait(nullptr, &s_deadline); }, -1},
    {"QOSA_SemTimedWait_deadline", [] { return QOSA_SemTimedWait(&s_sem, nullptr); }, -1},
    {"QOSA_SemTryWait", [] { return QOSA_SemTryWait(nullptr); }, -1},
    {"QOSA_SemOpen", [] { return as_flag(QOSA_SemOpen(nullptr, O_CREAT, 0600, 0)); }, 0},
    {"QOSA_SemOpenWin", [] { return as_flag(QOSA_SemOpenWin(nullptr, O_CREAT, 0600, 0)); }, 0},
    {"QOSA_SemClose_null", [] { return QOSA_SemClose(nullptr); }, -1},
    {"QOSA_SemClose_unopened", [] { return QOSA_SemClose(&s_sem); }, -1},
    {"QOSA_SemUnLink_null", [] { return QOSA_SemUnLink(nullptr); }, -1},
    {"QOSA_SemUnLink_empty", [] { return QOSA_SemUnLink(""); }, -1},
    {"QOSA_SemOp", [] { return QOSA_SemOp(0, nullptr, 1); }, -1},
};
