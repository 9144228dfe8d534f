// Guarded entry points of the system services: locks and the string basics, message queues,
// semaphores, threads and signals, time, sockets.
#include <signal.h>

#include <cerrno>

#include "guard_cases.h"
#include "qosa.h"

namespace {
// Present arguments for the rows that miss another one.
s32 s_out;
u32 s_state;
char s_buf[64];
socklen_t s_len = sizeof s_buf;
size_t s_size;
void* s_addr;
sockaddr_storage s_storage;
sockaddr* const s_sa = reinterpret_cast<sockaddr*>(&s_storage);
fd_set* const s_noSet = nullptr;
QOSA_SEM_S s_sem{};
timespec s_deadline{};
pthread_cond_t s_cond = PTHREAD_COND_INITIALIZER;
pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_attr_t s_attr; // never handed to the platform
sigset_t s_set;
siginfo_t s_info;
sched_param s_param;
pthread_t s_thread;
time_t s_t = 0;
struct tm s_tm {};
constexpr std::int64_t kFail = 0xFFFFFFFF;
void* start(void* arg) { return arg; }
} // namespace

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnonnull"

static GuardRows s_rows{
    {"QOSA_MutexInit", [] { return QOSA_MutexInit(nullptr, nullptr); }, -1},
    {"QOSA_MutexInitRecursive", [] { return QOSA_MutexInitRecursive(nullptr); }, -1},
    {"QOSA_MutexDestroy", [] { return QOSA_MutexDestroy(nullptr); }, -1},
    {"QOSA_MutexLock", [] { return QOSA_MutexLock(nullptr); }, -1},
    {"QOSA_MutexTryLock", [] { return QOSA_MutexTryLock(nullptr); }, -1},
    {"QOSA_MutexUnLock", [] { return QOSA_MutexUnLock(nullptr); }, -1},
    {"QOSA_StrLen", [] { return QOSA_StrLen(nullptr); }, 0},
    {"QOSA_StrToUper", [] { return as_flag(QOSA_StrToUper(nullptr)); }, 0},
    {"QOSA_StrToLower", [] { return as_flag(QOSA_StrToLower(nullptr)); }, 0},
    {"QOSA_Ultostr", [] { return QOSA_Ultostr(nullptr, 12, 1, 10); }, -1},
    {"QOSA_StrToInt32_NoText", [] { return QOSA_StrToInt32(nullptr, &s_out); }, 1},
    {"QOSA_StrToInt32_NoOut", [] { return QOSA_StrToInt32("1", nullptr); }, 1},
    {"QOSA_StrTok_S", [] { return as_flag(QOSA_StrTok_S(nullptr, ",", nullptr)); }, 0},
    {"QOSA_AddOperateRec", [] { return std::int64_t{QOSA_AddOperateRec(nullptr) != 0}; }, 1},
    {"QOSA_StrError_S", [] { return QOSA_StrError_S(nullptr, 64, ENOENT); }, ERANGE},
    {"QOSA_DumpOperateHistory", [] { return std::int64_t{QOSA_DumpOperateHistory(nullptr, 100) != 0}; }, 1},
    // Each missing pointer of a queue call has its own code, given before the queue is looked up (a length
    // of 0 before the buffer, the message before the length, the name before the id).
    {"ORV_QueueCreate_name", [] { return std::int64_t{ORV_QueueCreate(nullptr, 1, nullptr, 1, 1)}; },
     ORV_QUEUE_ERR_CREATE_NAME},
    {"ORV_QueueCreate_id", [] { return std::int64_t{ORV_QueueCreate("q", 1, nullptr, 1, 1)}; },
     ORV_QUEUE_ERR_CREATE_ID},
    {"ORV_QueueRead_buf", [] { return std::int64_t{ORV_QueueRead(1, 0, nullptr, 4)}; }, ORV_QUEUE_ERR_READ_BUF},
    {"ORV_QueueRead_len", [] { return std::int64_t{ORV_QueueRead(1, 0, nullptr, 0)}; }, ORV_QUEUE_ERR_READ_BUFLEN},
    {"ORV_QueueWrite_msg", [] { return std::int64_t{ORV_QueueWrite(1, nullptr, 0, 0)}; }, ORV_QUEUE_ERR_WRITE_MSG},
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
    {"QOSA_LocalTime", [] { return as_flag(QOSA_LocalTime(nullptr)); }, 0},
    {"QOSA_GmTime", [] { return as_flag(QOSA_GmTime(nullptr)); }, 0},
    {"QOSA_AscTime", [] { return as_flag(QOSA_AscTime(nullptr)); }, 0},
    {"QOSA_CTime", [] { return as_flag(QOSA_CTime(nullptr)); }, 0},
    {"QOSA_LocalTime_S_NoOut", [] { return std::int64_t{QOSA_LocalTime_S(nullptr, &s_t)}; }, kFail},
    {"QOSA_LocalTime_S_NoTime", [] { return std::int64_t{QOSA_LocalTime_S(&s_tm, nullptr)}; }, kFail},
    {"QOSA_GmTime_S_NoOut", [] { return std::int64_t{QOSA_GmTime_S(nullptr, &s_t)}; }, kFail},
    {"QOSA_GmTime_S_NoTime", [] { return std::int64_t{QOSA_GmTime_S(&s_tm, nullptr)}; }, kFail},
    {"QOSA_AscTime_S_NoTm", [] { return std::int64_t{QOSA_AscTime_S(nullptr, s_buf)}; }, kFail},
    {"QOSA_AscTime_S_NoBuf", [] { return std::int64_t{QOSA_AscTime_S(&s_tm, nullptr)}; }, kFail},
    {"QOSA_CTime_S_NoTime", [] { return std::int64_t{QOSA_CTime_S(nullptr, s_buf)}; }, kFail},
    {"QOSA_CTime_S_NoBuf", [] { return std::int64_t{QOSA_CTime_S(&s_t, nullptr)}; }, kFail},
    {"QOSA_GetTimeOfDay", [] { return std::int64_t{QOSA_GetTimeOfDay(nullptr, nullptr)}; }, 0},
    {"QOSA_StrFtime_NoBuf", [] { return std::int64_t{QOSA_StrFtime(nullptr, 64, "%Y", &s_tm)}; }, 0},
    {"QOSA_StrFtime_NoFmt", [] { return std::int64_t{QOSA_StrFtime(s_buf, 64, nullptr, &s_tm)}; }, 0},
    {"QOSA_StrFtime_EmptyFmt", [] { return std::int64_t{QOSA_StrFtime(s_buf, 64, "", &s_tm)}; }, 0},
    {"QOSA_StrFtime_NoTm", [] { return std::int64_t{QOSA_StrFtime(s_buf, 64, "%Y", nullptr)}; }, 0},
    {"QOSA_MkTime", [] { return std::int64_t{QOSA_MkTime(nullptr)}; }, 0},
    {"QOSA_GetTimeEx", [] { return QOSA_GetTimeEx(nullptr), std::int64_t{0}; }, 0},
    {"QOSA_GetTime", [] { return std::int64_t{QOSA_GetTime(nullptr)}; }, 0},
    {"QOSA_SetSysTime", [] { return std::int64_t{QOSA_SetSysTime(nullptr)}; }, kFail},
    {"ZAL_IsSysTimeValid", [] { return std::int64_t{ZAL_IsSysTimeValid(nullptr)}; }, 0},
    {"QOSA_Bind", [] { return QOSA_Bind(-1, nullptr, 16); }, -1},
    {"QOSA_Connect", [] { return QOSA_Connect(-1, nullptr, 16); }, -1},
    {"QOSA_Send", [] { return QOSA_Send(-1, nullptr, 4, 0); }, -1},
    {"QOSA_Recv", [] { return QOSA_Recv(-1, nullptr, 4, 0); }, -1},
    {"QOSA_Sendto", [] { return QOSA_Sendto(-1, nullptr, 4, 0, s_sa, 16); }, 0},
    {"QOSA_Recvfrom", [] { return QOSA_Recvfrom(-1, nullptr, 4, 0, s_sa, &s_len); }, 0},
    {"QOSA_GetSockName_addr", [] { return QOSA_GetSockName(-1, nullptr, &s_len); }, -1},
    {"QOSA_GetSockName_len", [] { return QOSA_GetSockName(-1, s_sa, nullptr); }, -1},
    {"QOSA_GetPeerName_addr", [] { return QOSA_GetPeerName(-1, nullptr, &s_len); }, -1},
    {"QOSA_GetPeerName_len", [] { return QOSA_GetPeerName(-1, s_sa, nullptr); }, -1},
    {"QOSA_GetSockOpt_value", [] { return QOSA_GetSockOpt(-1, SOL_SOCKET, SO_TYPE, nullptr, &s_len); }, -1},
    {"QOSA_GetSockOpt_len", [] { return QOSA_GetSockOpt(-1, SOL_SOCKET, SO_TYPE, s_buf, nullptr); }, -1},
    {"QOSA_SetSockOpt", [] { return QOSA_SetSockOpt(-1, SOL_SOCKET, SO_REUSEADDR, nullptr, 4); }, -1},
    {"QOSA_GetHostName", [] { return QOSA_GetHostName(nullptr, 64); }, -1},
    {"QOSA_GetHostByName_null", [] { return as_flag(QOSA_GetHostByName(nullptr)); }, 0},
    {"QOSA_GetHostByName_empty", [] { return as_flag(QOSA_GetHostByName("")); }, 0},
    {"QOSA_GetAddrInfo", [] { return QOSA_GetAddrInfo("localhost", nullptr, nullptr, nullptr); }, -1},
    {"QOSA_FreeAddrInfo", [] { return QOSA_FreeAddrInfo(nullptr), std::int64_t{0}; }, 0},
    {"QOSA_InetAddr", [] { return std::int64_t{QOSA_InetAddr(nullptr)}; }, 0},
    {"QOSA_Inet_Pton_text", [] { return QOSA_Inet_Pton(AF_INET, nullptr, s_buf); }, 0},
    {"QOSA_Inet_Pton_out", [] { return QOSA_Inet_Pton(AF_INET, "127.0.0.1", nullptr); }, 0},
    {"QOSA_Inet_Ntop_addr", [] { return as_flag(QOSA_Inet_Ntop(AF_INET, nullptr, s_buf, sizeof s_buf)); }, 0},
    {"QOSA_Inet_Ntop_text", [] { return as_flag(QOSA_Inet_Ntop(AF_INET, s_buf, nullptr, 64)); }, 0},
    {"QOSA_ConnectAdd6_v4", [] { return QOSA_ConnectAdd6(-1, AF_INET, nullptr, 80); }, -1},
    {"QOSA_ConnectAdd6_v6", [] { return QOSA_ConnectAdd6(-1, AF_INET6, nullptr, 80); }, -1},
    {"QOSA_FD_ZERO", [] { return QOSA_FD_ZERO(s_noSet), std::int64_t{0}; }, 0},
    {"QOSA_FD_SET", [] { return QOSA_FD_SET(3, s_noSet), std::int64_t{0}; }, 0},
    {"QOSA_FD_CLR", [] { return QOSA_FD_CLR(3, s_noSet), std::int64_t{0}; }, 0},
    {"QOSA_FD_ISSET", [] { return std::int64_t{QOSA_FD_ISSET(3, s_noSet)}; }, 0},
    {"QOSA_IsLocalIp6", [] { return QOSA_IsLocalIp6(AF_INET6, nullptr); }, 0},
    {"QOSA_PortStat_port", [] { return QOSA_PortStat(0x10000u, QOSA_PORT_TCP); }, -1},
    {"QOSA_PortStat_protocol", [] { return QOSA_PortStat(80, 3); }, -1},
    {"qosaGet_Port_State_null", [] { return qosaGet_Port_State(nullptr, 80, &s_state); }, -1},
    {"qosaGet_Port_State_empty", [] { return qosaGet_Port_State("", 80, &s_state); }, -1},
    {"qosaGet_Port_State_state", [] { return qosaGet_Port_State("/proc/net/tcp", 80, nullptr); }, -1},
    {"QOSA_TestIpType", [] { return QOSA_TestIpType(nullptr); }, -1},
};

#pragma GCC diagnostic pop
