// The rows of the guard sweep, by family. Every guarded entry point called with a missing argument.
#include <dirent.h>
#include <signal.h>

#include <cerrno>

#include "guard_cases.h"
#include "qosa.h"

namespace {
// Present arguments for the rows that miss another one, made before any row runs (no row calls the platform for
// them): text, a buffer, open streams, a handle no timer has, ...
char s_text[] = "1";
const char* const s_ip = "127.0.0.1";
const char* const s_fmt = "%Y";
const char* const s_table = "/proc/net/tcp";
const char* const s_path = "/";
const char* const s_name = "init";
const char* const s_pattern = "a";
const u8* const s_utf8 = reinterpret_cast<const u8*>("a");
char s_buf[64];
DIR* const s_dir = opendir("/");
FILE* const s_stream = stdout; // a read from it fails, a write goes through
void* s_cell = nullptr;        // a pointer-sized cell that is no slot of any timer index
void* const s_handle = &s_cell;
QOSA_SysTime s_when{0, 30, 7, -1, -1, -1, 0, 0, 0, 0, nullptr};
u32 s_notBlock[4] = {0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0}; // a word that is no slot number, in front of no block
const struct dirent* s_ent = Present{};
QOSA_OS_PROC_INFO_S* s_already = Present{}; // a result pointer already set
// ... and zeroed objects of whatever type the call takes.
constexpr Present s_out, s_value, s_state, s_unicode, s_total, s_free, s_count, s_in, s_size, s_addr, s_sockaddr, s_len,
    s_sem, s_deadline, s_cond, s_mutex, s_attr, s_set, s_info, s_param, s_thread, s_t, s_tm, s_entry, s_result, s_list,
    s_noEnt, s_pos, s_record, s_outArg, s_grp, s_rec, s_records, s_threads;
void* start(void* arg) { return arg; }
void proc(void*) {}
void tick(s64) {}
void on_group(u32, u32) {}
} // namespace

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
#pragma GCC diagnostic ignored "-Wformat"

const std::vector<GuardCase> s_guardTable = all_cases({
    // System services: locks and the string basics, message queues, semaphores, threads and signals, time, sockets.
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
    EACH_MISSING(1, (s_text, s_out), QOSA_StrToInt32),
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
    EACH_MISSING(-1, (s_sem, s_deadline), QOSA_SemTimedWait),
    CASE("QOSA_SemClose_unopened", -1, QOSA_SemClose(s_sem)),
    CASE("QOSA_SemUnLink_empty", -1, QOSA_SemUnLink("")),
    EACH_MISSING(-1, (s_cond, s_mutex), QOSA_PthreadCondWait),
    EACH_MISSING(-1, (s_cond, s_mutex, 1), QOSA_PthreadCondTimedWait, QOSA_PthreadCondTimedWait_Clock),
    CASE("QOSA_PthreadCondTimedWait_zero", -1, QOSA_PthreadCondTimedWait(s_cond, s_mutex, 0)),
    CASE("QOSA_PthreadCondTimedWait_negative", -1, QOSA_PthreadCondTimedWait(s_cond, s_mutex, -1)),
    CASE("QOSA_PthreadCondTimedWait_Clock_zero", -1, QOSA_PthreadCondTimedWait_Clock(s_cond, s_mutex, 0)),
    CASE("QOSA_PthreadCreate_thread", -1, QOSA_PthreadCreate(nullptr, nullptr, start, nullptr)),
    CASE("QOSA_PthreadCreate_start", EINVAL, QOSA_PthreadCreate(s_thread, nullptr, nullptr, nullptr)),
    CASE("QOSA_PthreadCreateID", -1, QOSA_PthreadCreateID(nullptr, 1, nullptr, start, nullptr)),
    EACH_MISSING(-1, (s_attr, s_out), QOSA_PthreadAttrGetInheritsched, QOSA_PthreadAttrGetSchedpolicy,
                 QOSA_PthreadAttrGetscope),
    EACH_MISSING(-1, (s_attr, s_param), QOSA_PthreadAttrGetSchedparam),
    CASE("QOSA_PthreadAttrSetSchedparam_attr", -1, QOSA_PthreadAttrSetSchedparam(nullptr, s_param)),
    CASE("QOSA_PthreadAttrSetSchedparam_param", EINVAL, QOSA_PthreadAttrSetSchedparam(s_attr, nullptr)),
    EACH_MISSING(-1, (s_attr, s_size), QOSA_PthreadAttrGetStacksize),
    EACH_MISSING(-1, (s_attr, s_addr), QOSA_PthreadAttrGetStackAddr, QOSA_PthreadAttrSetStackAddr),
    CASE("QOSA_Ftok_empty", -1, QOSA_Ftok("", 1)),
    CASE("QOSA_SigWait_set", -1, QOSA_SigWait(nullptr, s_out)),
    CASE("QOSA_SigWait_sig", EINVAL, QOSA_SigWait(s_set, nullptr)),
    EACH_MISSING(-1, (s_set, s_info), QOSA_SigWaitInfo),
    EACH_MISSING(-1, (s_set, s_info, nullptr), QOSA_SigTimedWait),
    EACH_MISSING(0xFFFFFFFF, (s_tm, s_t), QOSA_LocalTime_S, QOSA_GmTime_S),
    EACH_MISSING(0xFFFFFFFF, (s_tm, s_buf), QOSA_AscTime_S),
    EACH_MISSING(0xFFFFFFFF, (s_t, s_buf), QOSA_CTime_S),
    EACH_MISSING(0, (s_buf, 64, s_fmt, s_tm), QOSA_StrFtime),
    CASE("QOSA_StrFtime_EmptyFmt", 0, QOSA_StrFtime(s_buf, 64, "", s_tm)),
    CASE("QOSA_Sendto", 0, QOSA_Sendto(-1, nullptr, 4, 0, s_sockaddr, 16)),
    CASE("QOSA_Recvfrom", 0, QOSA_Recvfrom(-1, nullptr, 4, 0, s_sockaddr, s_len)),
    EACH_MISSING(-1, (-1, s_sockaddr, s_len), QOSA_GetSockName, QOSA_GetPeerName),
    EACH_MISSING(-1, (-1, SOL_SOCKET, SO_TYPE, s_value, s_len), QOSA_GetSockOpt),
    CASE("QOSA_GetHostByName_empty", 0, QOSA_GetHostByName("")),
    CASE("QOSA_GetAddrInfo", -1, QOSA_GetAddrInfo("localhost", nullptr, nullptr, nullptr)),
    EACH_MISSING(0, (AF_INET, s_ip, s_buf), QOSA_Inet_Pton),
    EACH_MISSING(0, (AF_INET, s_in, s_buf, sizeof s_buf), QOSA_Inet_Ntop),
    CASE("QOSA_ConnectAdd6_v4", -1, QOSA_ConnectAdd6(-1, AF_INET, nullptr, 80)),
    CASE("QOSA_ConnectAdd6_v6", -1, QOSA_ConnectAdd6(-1, AF_INET6, nullptr, 80)),
    CASE("QOSA_IsLocalIp6", 0, QOSA_IsLocalIp6(AF_INET6, nullptr)),
    CASE("QOSA_PortStat_port", -1, QOSA_PortStat(0x10000u, QOSA_PORT_TCP)),
    CASE("QOSA_PortStat_protocol", -1, QOSA_PortStat(80, 3)),
    EACH_MISSING(-1, (s_table, 80, s_state), qosaGet_Port_State),
    CASE("qosaGet_Port_State_empty", -1, qosaGet_Port_State("", 80, s_state)),
    // Files and directories.
    WITHOUT_ARGS(-1, QOSA_CloseDir, QOSA_DirFd, QOSA_TellDir, QOSA_RmDir, QOSA_Access, QOSA_Fflush, QOSA_Fclose,
                 QOSA_Fgetc, QOSA_Fputc, QOSA_Fseek, QOSA_Ftell, QOSA_Feof, QOSA_Ferror, QOSA_Fileno, QOSA_Creat,
                 QOSA_Read, QOSA_Write, QOSA_MkDir_P),
    WITHOUT_ARGS(0, QOSA_OpenDir, QOSA_ReadDir, QOSA_RewindDir, QOSA_SeekDir, QOSA_GetCwd, QOSA_Rewind, QOSA_Clearerr),
    WITHOUT_ARGS(0xFFFFFFFF, QOSA_FStat),
    EACH_MISSING(-1, (s_dir, s_entry, s_result), QOSA_ReadDir_S),
    EACH_MISSING(-1, (s_path, s_list, nullptr, nullptr), QOSA_ScanDir),
    CASE("QOSA_Alphasort_both", -1, QOSA_Alphasort(nullptr, nullptr)),
    CASE("QOSA_Alphasort_first", -1, QOSA_Alphasort(nullptr, &s_ent)),
    CASE("QOSA_Alphasort_second", 1, QOSA_Alphasort(&s_ent, nullptr)),
    CASE("QOSA_Versionsort_both", -1, QOSA_Versionsort(nullptr, nullptr)),
    CASE("QOSA_Versionsort_second", 1, QOSA_Versionsort(&s_ent, nullptr)),
    CASE("QOSA_Versionsort_first_entry", -1, QOSA_Versionsort(s_noEnt, &s_ent)),
    CASE("QOSA_Alphasort_second_entry", 1, QOSA_Alphasort(&s_ent, s_noEnt)),
    CASE("QOSA_ChDir", -1, QOSA_ChDir("")),
    CASE("QOSA_MkDir", -1, QOSA_MkDir("", 0755)),
    CASE("QOSA_Remove", -1, QOSA_Remove("")),
    CASE("QOSA_Rename_old", -1, QOSA_Rename(nullptr, "/x")),
    CASE("QOSA_Rename_new", -1, QOSA_Rename("/x", "")),
    CASE("QOSA_Fopen_path", 0, QOSA_Fopen("", "r")),
    CASE("QOSA_Fopen_mode", 0, QOSA_Fopen("/qosa-never-made", "")),
    CASE("QOSA_Fopen_nullmode", 0, QOSA_Fopen("/qosa-never-made", nullptr)),
    CASE("QOSA_Fprintf_stream", -1, QOSA_Fprintf(nullptr, "%d", 1)),
    CASE("QOSA_Fprintf_empty", -1, QOSA_Fprintf(stdout, "")),
    CASE("QOSA_Fprintf_null", -1, QOSA_Fprintf(stdout, nullptr)),
    CASE("QOSA_Printf", -1, QOSA_Printf(nullptr)),
    EACH_MISSING(0, (s_buf, sizeof s_buf, s_stream), QOSA_Fgets),
    EACH_MISSING(-1, (s_text, s_stream), QOSA_Fputs),
    EACH_MISSING(0, (s_buf, 1, 8, s_stream), QOSA_Fread, QOSA_Fwrite),
    EACH_MISSING(-1, (s_stream, s_pos), QOSA_Fgetpos, QOSA_Fsetpos),
    CASE("QOSA_Open", -1, QOSA_Open("", 0, 0)),
    CASE("QOSA_GetFileSize_size", 0xFFFFFFFF, QOSA_GetFileSize("/", nullptr)),
    CASE("QOSA_GetFileSize_path", 0xFFFFFFFF, QOSA_GetFileSize("", s_count)),
    EACH_MISSING(0xFFFFFFFF, (s_path, s_record), QOSA_Stat),
    CASE("QOSA_MkDir_P_empty", -1, QOSA_MkDir_P("", 0755)),
    EACH_MISSING(1, (s_path, s_buf, sizeof s_buf), QOSA_RelPath),
    CASE("QOSA_CopyFile_source", -1, QOSA_CopyFile("", "/qosa-never-made")),
    CASE("QOSA_CopyFile_destination", -1, QOSA_CopyFile("/etc/hostname", nullptr)),
    CASE("QOSA_DestoryNameList", 0, QOSA_DestoryNameList(nullptr, 5)),
    // The timer service. None of these rows starts the service: the refusals come before any set-up.
    WITHOUT_ARGS(-1, tsklet_init, tsklet_invokeall),
    WITHOUT_ARGS(22, tsklet_delinit, petimer_deregister_tickhook, petimer_stop_reltimer_safe, petimer_free_reltimer,
                 petimer_stop_abstimer_safe, petimer_free_abstimer, petimer_relAbsIndex, QOSA_StopAbsTimer_Safe,
                 QOSA_StopRelTimer_Safe, QOSA_FreeAbsTimer, QOSA_FreeRelTimer),
    CASE("tsklet_invokelater", 22, tsklet_invokelater(nullptr, proc, nullptr)),
    CASE("tsklet_invokefirst", 22, tsklet_invokefirst(nullptr, proc, nullptr)),
    CASE("petimer_start_reltimer", 22, petimer_start_reltimer(nullptr, 10, nullptr)),
    CASE("QOSA_StartRelTimer", 22, QOSA_StartRelTimer(nullptr, 10, nullptr)),
    EACH_MISSING(22, (s_handle, nullptr, nullptr, s_outArg), QOSA_StopAbsTimer_SafeEx, QOSA_StopRelTimer_SafeEx,
                 petimer_stop_reltimer_safeEx, petimer_stop_abstimer_safeEx),
    CASE("petimer_register_tickhook_NoHook", 22, petimer_register_tickhook(nullptr, 1)),
    CASE("petimer_register_tickhook_Period0", 22, petimer_register_tickhook(tick, 0)),
    EACH_MISSING(22, (s_handle, s_tm, nullptr), petimer_start_abstimer),
    EACH_MISSING(22, (s_handle, &s_when, nullptr), QOSA_StartAbsTimer),
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
    CASE("QOSA_InitReltimerGrp_NoProc", 0x20160037, QOSA_InitReltimerGrp(s_grp, 1, nullptr)),
    CASE("QOSA_StartRelTimerofGrp", 0x20160039, QOSA_StartRelTimerofGrp(nullptr, 0, 10, 0, 0)),
    CASE("QOSA_StopRelTimerofGrp", 0x20160040, QOSA_StopRelTimerofGrp(nullptr, 0)),
    CASE("QOSA_FreeRelTimerGrp", 0x20160046, QOSA_FreeRelTimerGrp(nullptr)),
    CASE("QOSA_TimeoutFuncOfGrp", 0, QOSA_TimeoutFuncOfGrp(nullptr)),
    // The memory tracker and its reports.
    WITHOUT_ARGS(0, QOSA_MemTypeFreeD, MemRecordMemRecFun, sysMemCheckUserAddr, sysMemGetErrMemLog, sysMemSortMemInfo,
                 sysMemScanErrMemInfo),
    WITHOUT_ARGS(1, QOSA_MemGetMemStatus, QOSA_MemGetMemRec, QOSA_MemGetMemScan, QOSA_MemGetMemoryUseMonitor,
                 MemGetMemStats, MemGetMemRec, MemGetMemScan, MemGetMemoryUseMonitor, sysMemSortByAddr,
                 sysMemSortBySize),
    WITHOUT_ARGS(-1, sysMemProtect, sysMemUnProtect),
    CASE("sysMemDeleteUserMem", 4, sysMemDeleteUserMem(nullptr)),
    CASE("sysMemCopyUserMem_dst", 1, sysMemCopyUserMem(nullptr, &s_notBlock[2])),
    CASE("sysMemCopyUserMem_src", 1, sysMemCopyUserMem(&s_notBlock[2], nullptr)),
    CASE("sysMemPrintMemInfo", 0, sysMemPrintMemInfo(1, nullptr, 100, s_rec, 1)),
    CASE("sysMemLogStringCat", 0, sysMemLogStringCat(nullptr, 100, "%d", 1)),
    CASE("sysMemLogStringCat_format", 0, sysMemLogStringCat(s_buf, sizeof s_buf, nullptr)),
    EACH_MISSING(0, (s_text, s_pattern), sysMemStrcasestr),
    // Text conversions.
    WITHOUT_ARGS(0, unicode_to_utf8, get_utf8_strlen, get_unicode_strlen, unicodeStr_to_utf8Str, ORV_Utf8ToUnicodeW,
                 ORV_Utf8ToUnicodeA, ORV_UnicodeToUtf8, ORV_UnicodeToLocale, ORV_LocaleToUnicodeW, ORV_LocaleToUtf8,
                 ORV_Utf8ToLocale, ORV_StrMemFree),
    CASE("ORV_Utf8Check", 1, ORV_Utf8Check(nullptr, 16)),
    EACH_MISSING(0, (s_utf8, s_unicode), utf8_to_unicode),
    // Statistics calls given a null out-pointer (or a result pointer already set): 3, and nothing is read.
    WITHOUT_ARGS(3, QOSA_OS_GetCPUBusyRateAll),
    EACH_MISSING(3, (s_count, s_records), QOSA_OS_GetCPUBusyRate),
    EACH_MISSING(3, (s_total, s_free, s_count, s_records), QOSA_OS_GetMEMAllocRate),
    CASE("QOSA_OS_GetMEMAllocRate_set", 3, QOSA_OS_GetMEMAllocRate(s_total, s_free, s_count, &s_already)),
    EACH_MISSING(3, (s_name, s_count, s_threads), QOSA_OS_GetProcThread),
});

#pragma GCC diagnostic pop

const std::vector<GuardCase>& guard_table() { return s_guardTable; }
