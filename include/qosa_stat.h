/* System statistics from /proc: CPU busy rates, memory figures and the
 * thread census of a process.
 *
 * Rates are in hundredths of a percent of the whole machine (10000 = 100 %).
 * Result arrays are tracked blocks that belong to the caller: release them
 * with QOSA_MemTypeFreeD. Result codes: 0 success, 1 nothing found or no
 * memory, 2 /proc could not be read, 3 a bad argument. Only the first 512
 * bytes of each /proc file are looked at. */
#ifndef QOSA_STAT_H
#define QOSA_STAT_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* One process: its name (at most 17 characters of the kernel's name) and a
 * figure, the busy rate or the memory figure. Processes are told apart by
 * name only. */
typedef struct QOSA_OS_PROC_INFO_S {
    char szProcName[18];
    u32 ulValue;
} QOSA_OS_PROC_INFO_S;

/* One thread of a process and the code of its state letter. */
typedef struct QOSA_OS_THREAD_INFO_S {
    s32 iThreadId;
    s32 iState;
} QOSA_OS_THREAD_INFO_S;

/* Thread state codes: R, S, D, T, W; every other letter (Z, X, I, t, ...)
 * gives QOSA_THREAD_STATE_OTHER. */
#define QOSA_THREAD_STATE_RUNNING 0
#define QOSA_THREAD_STATE_SLEEPING 1
#define QOSA_THREAD_STATE_DISK_WAIT 2
#define QOSA_THREAD_STATE_OTHER 3
#define QOSA_THREAD_STATE_STOPPED 4
#define QOSA_THREAD_STATE_PAGING 5

/* The machine's busy rate over one second (the call sleeps that long),
 * from the user, nice, system and idle counters of /proc/stat. *rate is 0
 * until the second sample is in. 0, 2 when /proc/stat cannot be read or
 * parsed, 3 for a null rate. */
QOSA_API u32 QOSA_OS_GetCPUBusyRateAll(u32* rate);

/* The busy rate of every process over one second (the call sleeps that
 * long); only processes present at both scans are reported. *count and
 * *records are 0 and NULL unless the call returns 0. 0; 1 when no process
 * was found, one could not be read in the first scan, or memory was short;
 * 2 when /proc/stat or /proc cannot be read; 3 for a null pointer. */
QOSA_API u32 QOSA_OS_GetCPUBusyRate(u32* count, QOSA_OS_PROC_INFO_S** records);

/* Total and free memory in kB (MemTotal, MemFree of /proc/meminfo) and, for
 * every process, the low 32 bits of its virtual size in bytes plus its
 * resident set in pages. *records must be NULL on entry. 0; 1 when no process
 * was recorded or memory was short; 2 when /proc/meminfo or /proc cannot be
 * read or a stat line is malformed; 3 for a null pointer or a non-NULL
 * *records. A process whose stat file cannot be opened ends the scan: the
 * processes before it are delivered. */
QOSA_API u32 QOSA_OS_GetMEMAllocRate(u32* total, u32* freeMem, u32* count, QOSA_OS_PROC_INFO_S** records);

/* The threads of the process called name, in /proc/PID/task order, with
 * their state codes. Of several processes of that name the first whose
 * parent has another name is taken. Names of 16 characters or more are
 * found through the kernel's 15-character form. 0; 1 when memory is short or
 * the task directory is empty; 2 when /proc cannot be listed, no process
 * qualifies, or a candidate's parent cannot be read; 3 for a null pointer. */
QOSA_API u32 QOSA_OS_GetProcThread(const char* name, u32* count, QOSA_OS_THREAD_INFO_S** records);

QOSA_EXTERN_C_END

#endif /* QOSA_STAT_H */
