// Guarded entry points of threads, condition variables, signals and processes.
#include <signal.h>

#include <cerrno>

#include "guard_cases.h"
#include "qosa.h"

namespace {
pthread_cond_t s_cond = PTHREAD_COND_INITIALIZER;
pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_attr_t s_attr; // never handed to the platform
sigset_t s_set;
siginfo_t s_info;
s32 s_out;
size_t s_size;
void* s_addr;
sched_param s_param;
pthread_t s_thread;
void* start(void* arg) { return arg; }
} // namespace

static GuardRows s_rows{
    {"QOSA_PthreadCondInit", [] { return QOSA_PthreadCondInit(nullptr, nullptr); }, -1},
    {"QOSA_PthreadCondDestroy", [] { return QOSA_PthreadCondDestroy(nullptr); }, -1},
    {"QOSA_PthreadCondSignal", [] { return QOSA_PthreadCondSignal(nullptr); }, -1},
    {"QOSA_PthreadCondBroadcast", [] { return QOSA_PthreadCondBroadcast(nullptr); }, -1},
    {"QOSA_PthreadCondWait_cond", [] { return QOSA_PthreadCondWait(nullptr, &s_mutex); }, -1},
    {"QOSA_PthreadCondWait_mutex", [] { return QOSA_PthreadCondWait(&s_cond, nullptr); }, -1},
    {"QOSA_PthreadCondTimedWait_cond", [] { return QOSA_PthreadCondTimedWait(nullptr, &s_mutex, 1000); }, -1},
    {"QOSA_PthreadCondTimedWait_mutex", [] { return QOSA_PthreadCondTimedWait(&s_cond, nullptr, 1000); }, -1},
    {"QOSA_PthreadCondTimedWait_zero", [] { return QOSA_PthreadCondTimedWait(&s_cond, &s_mutex, 0); }, -1},
    {"QOSA_PthreadCondTimedWait_negative", [] { return QOSA_PthreadCondTimedWait(&s_cond, &s_mutex, -1); }, -1},
    {"QOSA_PthreadCondTimedWait_Clock_cond", [] { return QOSA_PthreadCondTimedWait_Clock(nullptr, &s_mutex, 1); }, -1},
    {"QOSA_PthreadCondTimedWait_Clock_mutex", [] { return QOSA_PthreadCondTimedWait_Clock(&s_cond, nullptr, 1); }, -1},
    {"QOSA_PthreadCondTimedWait_Clock_zero", [] { return QOSA_PthreadCondTimedWait_Clock(&s_cond, &s_mutex, 0); }, -1},
    {"QOSA_PthreadCreate_thread", [] { return QOSA_PthreadCreate(nullptr, nullptr, start, nullptr); }, -1},
    {"QOSA_PthreadCreate_start", [] { return QOSA_PthreadCreate(&s_thread, nullptr, nullptr, nullptr); }, EINVAL},
    {"QOSA_PthreadCondInitAttr", [] { return QOSA_PthreadCondInitAttr(nullptr); }, EINVAL},
    {"QOSA_PthreadSetName", [] { return QOSA_PthreadSetName(nullptr); }, EINVAL},
    {"QOSA_PthreadCreateID", [] { return QOSA_PthreadCreateID(nullptr, 1, nullptr, start, nullptr); }, -1},
    {"QOSA_PthreadSetCancelState", [] { return QOSA_PthreadSetCancelState(PTHREAD_CANCEL_ENABLE, nullptr); }, -1},
    {"QOSA_PthreadSetCancelType", [] { return QOSA_PthreadSetCancelType(PTHREAD_CANCEL_DEFERRED, nullptr); }, -1},
    {"QOSA_PthreadAttrInit", [] { return QOSA_PthreadAttrInit(nullptr); }, -1},
    {"QOSA_PthreadAttrDestroy", [] { return QOSA_PthreadAttrDestroy(nullptr); }, -1},
    {"QOSA_PthreadAttrSetdetachstate", [] { return QOSA_PthreadAttrSetdetachstate(nullptr, 0); }, -1},
    {"QOSA_PthreadAttrGetInheritsched_attr", [] { return QOSA_PthreadAttrGetInheritsched(nullptr, &s_out); }, -1},
    {"QOSA_PthreadAttrGetInheritsched_out", [] { return QOSA_PthreadAttrGetInheritsched(&s_attr, nullptr); }, -1},
    {"QOSA_PthreadAttrSetInheritsched", [] { return QOSA_PthreadAttrSetInheritsched(nullptr, 0); }, -1},
    {"QOSA_PthreadAttrGetSchedpolicy_attr", [] { return QOSA_PthreadAttrGetSchedpolicy(nullptr, &s_out); }, -1},
    {"QOSA_PthreadAttrGetSchedpolicy_out", [] { return QOSA_PthreadAttrGetSchedpolicy(&s_attr, nullptr); }, -1},
    {"QOSA_PthreadAttrSetSchedpolicy", [] { return QOSA_PthreadAttrSetSchedpolicy(nullptr, 0); }, -1},
    {"QOSA_PthreadAttrGetSchedparam_attr", [] { return QOSA_PthreadAttrGetSchedparam(nullptr, &s_param); }, -1},
    {"QOSA_PthreadAttrGetSchedparam_out", [] { return QOSA_PthreadAttrGetSchedparam(&s_attr, nullptr); }, -1},
    {"QOSA_PthreadAttrSetSchedparam_attr", [] { return QOSA_PthreadAttrSetSchedparam(nullptr, &s_param); }, -1},
    {"QOSA_PthreadAttrSetSchedparam_param", [] { return QOSA_PthreadAttrSetSchedparam(&s_attr, nullptr); }, EINVAL},
    {"QOSA_PthreadAttrGetscope_attr", [] { return QOSA_PthreadAttrGetscope(nullptr, &s_out); }, -1},
    {"QOSA_PthreadAttrGetscope_out", [] { return QOSA_PthreadAttrGetscope(&s_attr, nullptr); }, -1},
    {"QOSA_PthreadAttrSetscope", [] { return QOSA_PthreadAttrSetscope(nullptr, 0); }, -1},
    {"QOSA_PthreadAttrGetStacksize_attr", [] { return QOSA_PthreadAttrGetStacksize(nullptr, &s_size); }, -1},
    {"QOSA_PthreadAttrGetStacksize_out", [] { return QOSA_PthreadAttrGetStacksize(&s_attr, nullptr); }, -1},
    {"QOSA_PthreadAttrSetStacksize", [] { return QOSA_PthreadAttrSetStacksize(nullptr, 65536); }, -1},
    {"QOSA_PthreadAttrGetStackAddr_attr", [] { return QOSA_PthreadAttrGetStackAddr(nullptr, &s_addr); }, -1},
    {"QOSA_PthreadAttrGetStackAddr_out", [] { return QOSA_PthreadAttrGetStackAddr(&s_attr, nullptr); }, -1},
    {"QOSA_PthreadAttrSetStackAddr_attr", [] { return QOSA_PthreadAttrSetStackAddr(nullptr, &s_out); }, -1},
    {"QOSA_PthreadAttrSetStackAddr_addr", [] { return QOSA_PthreadAttrSetStackAddr(&s_attr, nullptr); }, -1},

    {"QOSA_Ftok_null", [] { return QOSA_Ftok(nullptr, 1); }, -1},
    {"QOSA_Ftok_empty", [] { return QOSA_Ftok("", 1); }, -1},
    {"QOSA_MUnMap", [] { return QOSA_MUnMap(nullptr, 4096); }, -1},
    {"QOSA_MUnMapWin", [] { return QOSA_MUnMapWin(nullptr, 4096); }, -1},
    {"QOSA_ShmUnLink", [] { return QOSA_ShmUnLink(nullptr); }, -1},
    {"QOSA_SigProcmask", [] { return QOSA_SigProcmask(SIG_BLOCK, nullptr, &s_set); }, -1},
    {"QOSA_PthreadSigmask", [] { return QOSA_PthreadSigmask(SIG_BLOCK, nullptr, &s_set); }, -1},
    {"QOSA_SigPending", [] { return QOSA_SigPending(nullptr); }, -1},
    {"QOSA_SigSuspend", [] { return QOSA_SigSuspend(nullptr); }, -1},
    {"QOSA_SigWait_set", [] { return QOSA_SigWait(nullptr, &s_out); }, -1},
    {"QOSA_SigWait_sig", [] { return QOSA_SigWait(&s_set, nullptr); }, EINVAL},
    {"QOSA_SigWaitInfo_set", [] { return QOSA_SigWaitInfo(nullptr, &s_info); }, -1},
    {"QOSA_SigWaitInfo_info", [] { return QOSA_SigWaitInfo(&s_set, nullptr); }, -1},
    {"QOSA_SigTimedWait_set", [] { return QOSA_SigTimedWait(nullptr, &s_info, nullptr); }, -1},
    {"QOSA_SigTimedWait_info", [] { return QOSA_SigTimedWait(&s_set, nullptr, nullptr); }, -1},
    {"QOSA_SigEmptySet", [] { return QOSA_SigEmptySet(nullptr); }, -1},
    {"QOSA_SigFillSet", [] { return QOSA_SigFillSet(nullptr); }, -1},
    {"QOSA_SigAddSet", [] { return QOSA_SigAddSet(nullptr, SIGUSR1); }, -1},
    {"QOSA_SigDelSet", [] { return QOSA_SigDelSet(nullptr, SIGUSR1); }, -1},
    {"QOSA_SigIsMember", [] { return QOSA_SigIsMember(nullptr, SIGUSR1); }, -1},
};
