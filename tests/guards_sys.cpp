// Guarded entry points of the system services: locks and the string basics, message queues,
// semaphores, threads and signals, time, sockets.
#include <signal.h>

#include <cerrno>

#include "guard_cases.h"
#include "qosa.h"

namespace {
// Present arguments for the rows that miss another one.
const char* const s_text = "1";
const char* const s_ip = "127.0.0.1";
const char* const s_fmt = "%Y";
const char* const s_table = "/proc/net/tcp";
s32 s_out, s_value;
u32 s_state;
char s_buf[64];
in_addr s_in;
size_t s_size;
void* s_addr;
sockaddr s_sockaddr;
socklen_t s_len = sizeof s_sockaddr;
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
void* start(void* arg) { return arg; }
} // namespace

static GuardRows s_rows{
    WITHOUT_ARGS(-1, QOSA_MutexInit, QOSA_MutexInitRecursive, QOSA_MutexDestroy, QOSA_MutexLock, QOSA_MutexTryLock,
                 QOSA_MutexUnLock, QOSA_SemInit, QOSA_SemInitWin, QOSA_SemDestroy, QOSA_SemWait, QOSA_SemPost,
                 QOSA_SemPostWin, QOSA_SemWaitTimeOut, QOSA_SemTryWait, QOSA_SemClose, QOSA_SemUnLink, QOSA_SemOp,
                 QOSA_PthreadCondInit, QOSA_PthreadCondDestroy, QOSA_PthreadCondSignal, QOSA_PthreadCondBroadcast,
                 QOSA_PthreadSetCancelState, QOSA_PthreadSetCancelType, QOSA_PthreadAttrInit, QOSA_PthreadAttrDestroy,
                 QOSA_PthreadAttrSetdetachstate, QOSA_PthreadAttrSetInheritsched, QOSA_PthreadAttrSetSchedpolicy,
                 QOSA_PthreadAttrSetscope, QOSA_PthreadAttrSetStacksize, QOSA_Ftok, QOSA_MUnMap, QOSA_MUnMapWin,
                 QOSA_ShmUnLink, QOSA_SigProcmask, QOSA_PthreadSigmask, QOSA_SigPending, QOSA_SigSuspend,
                 QOSA_SigEmptySet, QOSA_SigFillSet, QOSA_SigAddSet, QOSA_SigDelSet, QOSA_SigIsMember, QOSA_Bind,
                 QOSA_Connect, QOSA_Send, QOSA_Recv, QOSA_SetSockOpt, QOSA_GetHostName, QOSA_TestIpType),
    WITHOUT_ARGS(0, QOSA_StrLen, QOSA_StrToUper, QOSA_StrToLower, QOSA_SemOpen, QOSA_SemOpenWin, QOSA_LocalTime,
                 QOSA_GmTime, QOSA_AscTime, QOSA_CTime, QOSA_GetTimeOfDay, QOSA_MkTime, QOSA_GetTimeEx, QOSA_GetTime,
                 ZAL_IsSysTimeValid, QOSA_GetHostByName, QOSA_FreeAddrInfo, QOSA_InetAddr, QOSA_FD_ZERO, QOSA_FD_SET,
                 QOSA_FD_CLR, QOSA_FD_ISSET),
    WITHOUT_ARGS(EINVAL, QOSA_PthreadCondInitAttr, QOSA_PthreadSetName),
    WITHOUT_ARGS(0xFFFFFFFF, QOSA_SetSysTime),
    CASE("QOSA_Ultostr", -1, QOSA_Ultostr(nullptr, 12, 1, 10)),
    EACH_MISSING(QOSA_StrToInt32, 1, s_text, &s_out),
    CASE("QOSA_StrTok_S", 0, QOSA_StrTok_S(nullptr, ",", nullptr)),
    CASE("QOSA_AddOperateRec", 1, QOSA_AddOperateRec(nullptr) != 0),
    CASE("QOSA_StrError_S", ERANGE, QOSA_StrError_S(nullptr, 64, ENOENT)),
    CASE("QOSA_DumpOperateHistory", 1, QOSA_DumpOperateHistory(nullptr, 100) != 0),
    // Each missing pointer of a queue call has its own code, given before the queue is looked up (a length
    // of 0 before the buffer, the message before the length, the name before the id).
    CASE("ORV_QueueCreate_name", ORV_QUEUE_ERR_CREATE_NAME, ORV_QueueCreate(nullptr, 1, nullptr, 1, 1)),
    CASE("ORV_QueueCreate_id", ORV_QUEUE_ERR_CREATE_ID, ORV_QueueCreate("q", 1, nullptr, 1, 1)),
    CASE("ORV_QueueRead_buf", ORV_QUEUE_ERR_READ_BUF, ORV_QueueRead(1, 0, nullptr, 4)),
    CASE("ORV_QueueRead_len", ORV_QUEUE_ERR_READ_BUFLEN, ORV_QueueRead(1, 0, nullptr, 0)),
    CASE("ORV_QueueWrite_msg", ORV_QUEUE_ERR_WRITE_MSG, ORV_QueueWrite(1, nullptr, 0, 0)),
    EACH_MISSING(QOSA_SemTimedWait, -1, &s_sem, &s_deadline),
    CASE("QOSA_SemClose_unopened", -1, QOSA_SemClose(&s_sem)),
    CASE("QOSA_SemUnLink_empty", -1, QOSA_SemUnLink("")),
    EACH_MISSING(QOSA_PthreadCondWait, -1, &s_cond, &s_mutex),
    EACH_MISSING(QOSA_PthreadCondTimedWait, -1, &s_cond, &s_mutex, 1000),
    CASE("QOSA_PthreadCondTimedWait_zero", -1, QOSA_PthreadCondTimedWait(&s_cond, &s_mutex, 0)),
    CASE("QOSA_PthreadCondTimedWait_negative", -1, QOSA_PthreadCondTimedWait(&s_cond, &s_mutex, -1)),
    EACH_MISSING(QOSA_PthreadCondTimedWait_Clock, -1, &s_cond, &s_mutex, 1),
    CASE("QOSA_PthreadCondTimedWait_Clock_zero", -1, QOSA_PthreadCondTimedWait_Clock(&s_cond, &s_mutex, 0)),
    CASE("QOSA_PthreadCreate_thread", -1, QOSA_PthreadCreate(nullptr, nullptr, start, nullptr)),
    CASE("QOSA_PthreadCreate_start", EINVAL, QOSA_PthreadCreate(&s_thread, nullptr, nullptr, nullptr)),
    CASE("QOSA_PthreadCreateID", -1, QOSA_PthreadCreateID(nullptr, 1, nullptr, start, nullptr)),
    EACH_MISSING(QOSA_PthreadAttrGetInheritsched, -1, &s_attr, &s_out),
    EACH_MISSING(QOSA_PthreadAttrGetSchedpolicy, -1, &s_attr, &s_out),
    EACH_MISSING(QOSA_PthreadAttrGetSchedparam, -1, &s_attr, &s_param),
    CASE("QOSA_PthreadAttrSetSchedparam_attr", -1, QOSA_PthreadAttrSetSchedparam(nullptr, &s_param)),
    CASE("QOSA_PthreadAttrSetSchedparam_param", EINVAL, QOSA_PthreadAttrSetSchedparam(&s_attr, nullptr)),
    EACH_MISSING(QOSA_PthreadAttrGetscope, -1, &s_attr, &s_out),
    EACH_MISSING(QOSA_PthreadAttrGetStacksize, -1, &s_attr, &s_size),
    EACH_MISSING(QOSA_PthreadAttrGetStackAddr, -1, &s_attr, &s_addr),
    EACH_MISSING(QOSA_PthreadAttrSetStackAddr, -1, &s_attr, &s_addr),
    CASE("QOSA_Ftok_empty", -1, QOSA_Ftok("", 1)),
    CASE("QOSA_SigWait_set", -1, QOSA_SigWait(nullptr, &s_out)),
    CASE("QOSA_SigWait_sig", EINVAL, QOSA_SigWait(&s_set, nullptr)),
    EACH_MISSING(QOSA_SigWaitInfo, -1, &s_set, &s_info),
    EACH_MISSING(QOSA_SigTimedWait, -1, &s_set, &s_info, nullptr),
    EACH_MISSING(QOSA_LocalTime_S, 0xFFFFFFFF, &s_tm, &s_t),
    EACH_MISSING(QOSA_GmTime_S, 0xFFFFFFFF, &s_tm, &s_t),
    EACH_MISSING(QOSA_AscTime_S, 0xFFFFFFFF, &s_tm, s_buf),
    EACH_MISSING(QOSA_CTime_S, 0xFFFFFFFF, &s_t, s_buf),
    EACH_MISSING(QOSA_StrFtime, 0, s_buf, 64, s_fmt, &s_tm),
    CASE("QOSA_StrFtime_EmptyFmt", 0, QOSA_StrFtime(s_buf, 64, "", &s_tm)),
    CASE("QOSA_Sendto", 0, QOSA_Sendto(-1, nullptr, 4, 0, &s_sockaddr, 16)),
    CASE("QOSA_Recvfrom", 0, QOSA_Recvfrom(-1, nullptr, 4, 0, &s_sockaddr, &s_len)),
    EACH_MISSING(QOSA_GetSockName, -1, -1, &s_sockaddr, &s_len),
    EACH_MISSING(QOSA_GetPeerName, -1, -1, &s_sockaddr, &s_len),
    EACH_MISSING(QOSA_GetSockOpt, -1, -1, SOL_SOCKET, SO_TYPE, &s_value, &s_len),
    CASE("QOSA_GetHostByName_empty", 0, QOSA_GetHostByName("")),
    CASE("QOSA_GetAddrInfo", -1, QOSA_GetAddrInfo("localhost", nullptr, nullptr, nullptr)),
    EACH_MISSING(QOSA_Inet_Pton, 0, AF_INET, s_ip, s_buf),
    EACH_MISSING(QOSA_Inet_Ntop, 0, AF_INET, &s_in, s_buf, sizeof s_buf),
    CASE("QOSA_ConnectAdd6_v4", -1, QOSA_ConnectAdd6(-1, AF_INET, nullptr, 80)),
    CASE("QOSA_ConnectAdd6_v6", -1, QOSA_ConnectAdd6(-1, AF_INET6, nullptr, 80)),
    CASE("QOSA_IsLocalIp6", 0, QOSA_IsLocalIp6(AF_INET6, nullptr)),
    CASE("QOSA_PortStat_port", -1, QOSA_PortStat(0x10000u, QOSA_PORT_TCP)),
    CASE("QOSA_PortStat_protocol", -1, QOSA_PortStat(80, 3)),
    EACH_MISSING(qosaGet_Port_State, -1, s_table, 80, &s_state),
    CASE("qosaGet_Port_State_empty", -1, qosaGet_Port_State("", 80, &s_state)),
};
