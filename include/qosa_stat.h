/** @file
 * System statistics from /proc: CPU busy rates, memory figures and the
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

/** One process: its name and a figure, the busy rate or the memory figure.
 * Processes are told apart by name only. */
typedef struct QOSA_OS_PROC_INFO_S {
    char szProcName[18]; /**< at most 17 characters of the kernel's name, NUL-terminated */
    u32 ulValue;         /**< the busy rate or the memory figure */
} QOSA_OS_PROC_INFO_S;

/** One thread of a process and the code of its state letter. */
typedef struct QOSA_OS_THREAD_INFO_S {
    s32 iThreadId; /**< the thread's number (its /proc entry) */
    s32 iState;    /**< QOSA_THREAD_STATE_... */
} QOSA_OS_THREAD_INFO_S;

/** @name Thread state codes
 * From the state letter: R, S, D, T, W; every other letter (Z, X, I, t, ...)
 * gives QOSA_THREAD_STATE_OTHER. */
/** @{ */
#define QOSA_THREAD_STATE_RUNNING 0   /**< R */
#define QOSA_THREAD_STATE_SLEEPING 1  /**< S */
#define QOSA_THREAD_STATE_DISK_WAIT 2 /**< D */
#define QOSA_THREAD_STATE_OTHER 3     /**< any other letter */
#define QOSA_THREAD_STATE_STOPPED 4   /**< T */
#define QOSA_THREAD_STATE_PAGING 5    /**< W */
/** @} */

/** The machine's busy rate over one second (the call sleeps that long), from
 * the user, nice, system and idle counters of /proc/stat.
 * @param rate receives the rate; 0 until the second sample is in
 * @retval 0 success
 * @retval 2 /proc/stat cannot be read or parsed
 * @retval 3 a null rate */
QOSA_API u32 QOSA_OS_GetCPUBusyRateAll(u32* rate);

/** The busy rate of every process over one second (the call sleeps that
 * long); only processes present at both scans are reported.
 * @param count receives the number of records; 0 unless the call returns 0
 * @param records receives the array, a tracked block released with
 *        QOSA_MemTypeFreeD; NULL unless the call returns 0
 * @retval 0 success
 * @retval 1 no process was found, one could not be read in the first scan, or
 *         memory was short (callers retry)
 * @retval 2 /proc/stat or /proc cannot be read
 * @retval 3 a null pointer */
QOSA_API u32 QOSA_OS_GetCPUBusyRate(u32* count, QOSA_OS_PROC_INFO_S** records);

/** Total and free memory and, for every process, the low 32 bits of its
 * virtual size in bytes plus its resident set in pages. A process whose stat
 * file cannot be opened ends the scan: the processes before it are delivered.
 * @param total receives MemTotal of /proc/meminfo, in kB
 * @param freeMem receives MemFree, in kB
 * @param count receives the number of records
 * @param records must be NULL on entry; receives the array, a tracked block
 *        released with QOSA_MemTypeFreeD
 * @retval 0 success
 * @retval 1 no process was recorded or memory was short
 * @retval 2 /proc/meminfo or /proc cannot be read, or a stat line is
 *         malformed
 * @retval 3 a null pointer or a non-NULL *records */
QOSA_API u32 QOSA_OS_GetMEMAllocRate(u32* total, u32* freeMem, u32* count, QOSA_OS_PROC_INFO_S** records);

/** The threads of a process, in /proc/PID/task order, with their state codes.
 * Of several processes of that name the first whose parent has another name
 * is taken.
 * @param name the process name; names of 16 characters or more are found
 *        through the kernel's 15-character form
 * @param count receives the number of records
 * @param records receives the array, a tracked block released with
 *        QOSA_MemTypeFreeD
 * @retval 0 success
 * @retval 1 memory is short or the task directory is empty
 * @retval 2 /proc cannot be listed, no process qualifies, or a candidate's
 *         parent cannot be read
 * @retval 3 a null pointer */
QOSA_API u32 QOSA_OS_GetProcThread(const char* name, u32* count, QOSA_OS_THREAD_INFO_S** records);

QOSA_EXTERN_C_END

#endif /* QOSA_STAT_H */
