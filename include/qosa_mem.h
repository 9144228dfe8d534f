/* Tracked memory: the allocation front end, the record table and the reports.
 *
 * Tracking is off at start: the front end then maps straight onto malloc and
 * free. QOSA_MemInitMemMange switches it on for the rest of the process
 * (call it once, before other threads allocate). From then on every block is
 * a guarded block entered in the record table: misuse is kept as error
 * records, and the report functions list, scan and dump both tables. Blocks
 * obtained while tracking is on must be released with QOSA_MemTypeFreeD,
 * never free; blocks obtained before the switch must not be released through
 * it afterwards (they are reported as unknown and kept). */
#ifndef QOSA_MEM_H
#define QOSA_MEM_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

#if defined(__GNUC__) || defined(__clang__)
#define QOSA_MEM_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define QOSA_MEM_PRINTF_LIKE(fmt, args)
#endif

/* Memory types: the index into the report's type names. The library's own
 * allocations use QOSA_MEM_DYN. */
#define QOSA_MEM_DYN 0u
#define QOSA_MEM_FIXED 1u
#define QOSA_MEM_CACHE 2u
#define QOSA_MEM_ALN 3u
#define QOSA_MEM_SD 4u
#define QOSA_MEM_IS 5u

/* Status of a live record (its latest guard check) and error number of an
 * error record. */
#define QOSA_MEM_GOOD 0u
#define QOSA_MEM_DOWN_OVERFLOW 1u /* tail guard damaged */
#define QOSA_MEM_UP_OVERFLOW 2u   /* head guard damaged */
#define QOSA_MEM_UPDOWN_OVERFLOW 3u
#define QOSA_MEM_NOT_FOUND 4u /* released pointer is no live tracked block */
#define QOSA_MEM_FIX 5u
#define QOSA_MEM_INVALID 6u
#define QOSA_MEM_LENGTH 7u
#define QOSA_MEM_NO_MEM 8u /* allocation failed or the table is full */
#define QOSA_MEM_REALLOC 9u
#define QOSA_MEM_REALLOC_OLD 10u
#define QOSA_MEM_INVALID_MEM 11u /* the block does not lead back to its record */

/* Capacity of the record table and of the error-record table. */
#define QOSA_MEM_MAX_RECORDS 200000u
#define QOSA_MEM_MAX_ERR_RECORDS 600u
/* Guard word before and after the caller's data of a tracked block. */
#define QOSA_MEM_GUARD_WORD 0xABBADEEDu

/* One record: a live block (record table) or a misuse (error table). */
typedef struct QOSA_MEM_REC_S {
    void* pAddr;       /* live: start of the underlying allocation (NULL: slot free); error: the address */
    u32 ulAlignSize;   /* live: requested size rounded up to the alignment */
    u32 ulSize;        /* requested size (0 for error 4) */
    u32 ulHeadOffset;  /* live: distance from pAddr to the caller's pointer */
    u64 ulThread;      /* live: allocating thread; error: 0 */
    u32 ulPos;         /* live: place in the position table; error: 0 */
    u32 ulStatus;      /* live: latest guard check; error: the error number */
    u32 ulType;        /* memory type */
    u32 ulTime;        /* live: seconds since the epoch at allocation */
    u32 ulLine;        /* source line */
    const char* pFile; /* source file name past its last separator (not a copy) */
} QOSA_MEM_REC_S;

/* Receives one piece of a report: a text and its length. The result is
 * ignored. */
typedef int (*QOSA_MemPrintProc)(char* text, u32 len);

/* ---- front end ----
 * file must live as long as the process (the record keeps a pointer into it);
 * string literals such as __FILE__ do. */
/* NULL for size 0; with tracking off also for type QOSA_MEM_CACHE. */
QOSA_API void* QOSA_MemTypeMallocD(u32 size, u32 type, u32 line, const char* file);
/* As QOSA_MemTypeMallocD, every byte set to the low byte of fill. */
QOSA_API void* QOSA_MemTypeMallocS(u32 size, int fill, u32 type, u32 line, const char* file);
/* NULL p: nothing. Tracking on: a damaged block is kept (error 1 or 2), an
 * unknown pointer is kept (error 4). */
QOSA_API void QOSA_MemTypeFreeD(void* p, u32 type, u32 line, const char* file);
/* Aligned allocation is not offered through this entry point: always NULL. */
QOSA_API void* QOSA_MemAlignD(u32 size, u32 type, u32 line, const char* file);
QOSA_API int QOSA_MemCmp(const void* a, const void* b, u32 len);
/* A new block holding a copy of source (an empty string for NULL), recorded
 * against the caller's line and file. */
QOSA_API char* QOSA_StrDupEx(const char* source, u32 line, const char* file);
/* Switches tracking on for the rest of the process; later calls do nothing. */
QOSA_API void QOSA_MemInitMemMange(void);
/* Reports; 1 while tracking is off (or for a null print function), else the
 * result of the report below. */
QOSA_API u32 QOSA_MemGetMemStatus(QOSA_MemPrintProc print);
QOSA_API u32 QOSA_MemGetMemRec(u32 mode, u32 sortMode, char* filter, QOSA_MemPrintProc print);
QOSA_API u32 QOSA_MemGetMemScan(QOSA_MemPrintProc print);
QOSA_API u32 QOSA_MemGetMemoryUseMonitor(QOSA_MemPrintProc print);

/* ---- tracker primitives (they work on the record table whatever the
 * switch says) ---- */
/* Initialises the two table mutexes; the result of the second init. */
QOSA_API int MemInitManage(void);
/* A tracked block (alignment 4); the first failure of the process dumps both
 * tables to /data/out_of_memery.txt. */
QOSA_API void* MemAllocMem(const char* file, u32 line, u32 size, u32 type);
/* A zeroed tracked block of count * size bytes; NULL when either is not
 * positive or the product does not fit in 32 bits. */
QOSA_API void* MemCallocMem(const char* file, u32 line, int count, int size);
/* A tracked block aligned to 128 bytes, type QOSA_MEM_ALN; spare is unused. */
QOSA_API void* MemAlignMem(const char* file, u32 line, u32 spare, u32 size);
/* newSize 0 releases old and gives NULL; old NULL allocates. On failure the
 * old block stays valid. */
QOSA_API void* MemReAllocMem(const char* file, u32 line, void* old, u32 newSize);
/* 0 released (or unknown pointer, kept as error 4); 1 or 2 guard damaged. */
QOSA_API u32 MemFreeMem(const char* file, u32 line, void* p, u32 type);

/* ---- record table ---- */
/* The caller's pointer of a new guarded block, or NULL (error record 8).
 * align must be 1 to 4096; the data ends where the read-only guard page
 * starts. */
QOSA_API void* sysMemAddUserMem(u32 size, u32 align, const char* file, u32 line, u32 type);
/* 0 released; 1 or 2 guard damaged (record removed, block kept, error
 * record made); 4 not a live tracked block. */
QOSA_API u32 sysMemDeleteUserMem(void* p);
/* Copies min(both requested sizes) bytes from src to dst when both are live
 * blocks with intact guards: 0, else 1. */
QOSA_API u32 sysMemCopyUserMem(void* dst, void* src);
/* The record of a live block after a guard check, or NULL. Takes no lock. */
QOSA_API QOSA_MEM_REC_S* sysMemCheckUserAddr(void* p);
/* Adds an error record (file kept as given): 0, or 1 when the table is full. */
QOSA_API int sysMemLogMemErr(void* addr, u32 size, const char* file, u32 line, u32 type, u32 err);
/* A malloc'd copy of the error records in *out (release with free) and their
 * count; 0 when there are none. */
QOSA_API u32 sysMemGetErrMemLog(void** out);
QOSA_API void* sysMemAlignAlloc(u32 alignment, u32 size);
/* mprotect of one page: read-only / read-write again. */
QOSA_API int sysMemProtect(void* page);
QOSA_API int sysMemUnProtect(void* page);

/* ---- reports ----
 * Listings reach the print function in pieces of at most 24 records, each
 * with the column header. The print function is never called with a table
 * lock held. */
/* Counters of the record table in one piece. */
QOSA_API u32 MemGetMemStats(QOSA_MemPrintProc print);
/* Live blocks (mode 0: all, 1: those whose file contains filter, any case;
 * other modes list nothing) sorted by address (sortMode 0), by requested
 * size (1) or in table order (other values), then their totals. */
QOSA_API u32 MemGetMemRec(u32 mode, u32 sortMode, char* filter, QOSA_MemPrintProc print);
/* Damaged live blocks, the error records, then a summary with the legend; 1
 * when the text buffer cannot be had. */
QOSA_API u32 MemGetMemScan(QOSA_MemPrintProc print);
/* Self-check, dump to /data/mem_rec.txt, then "Save to <path>". */
QOSA_API u32 MemGetMemoryUseMonitor(QOSA_MemPrintProc print);
/* Writes both tables to path, replacing the file; skipped when it cannot be
 * opened. */
QOSA_API void MemRecordMemRecFun(char* path);
/* Guard check of every live block; marks a block that does not lead back to
 * its record QOSA_MEM_INVALID_MEM. The result of the final unlock. */
QOSA_API int MemSelfCheck(void);
/* A malloc'd copy of the live records (release with free), sorted as
 * MemGetMemRec does and kept when their file contains filter (NULL or empty:
 * all); the count, 0 with *out NULL when none. */
QOSA_API u32 sysMemSortMemInfo(QOSA_MEM_REC_S** out, char* filter, int sortMode);
/* qsort comparisons of two slot numbers: ascending address / requested size;
 * never 0. */
QOSA_API int sysMemSortByAddr(const void* a, const void* b);
QOSA_API int sysMemSortBySize(const void* a, const void* b);
/* A malloc'd copy of the records of damaged live blocks (at most 600). */
QOSA_API u32 sysMemScanErrMemInfo(QOSA_MEM_REC_S** out);
/* Formats count records (after the header when withHeader is non-zero) into
 * buf; the length written. */
QOSA_API u32 sysMemPrintMemInfo(int withHeader, char* buf, u32 bufSize, QOSA_MEM_REC_S* recs, u32 count);
/* Appends formatted text to the string in buf: the characters added, 0 when
 * the text does not fit (nothing is added then). */
QOSA_API u32 sysMemLogStringCat(char* buf, u32 bufSize, const char* fmt, ...) QOSA_MEM_PRINTF_LIKE(3, 4);
/* First place of pattern in text, compared without regard to case; text for
 * an empty pattern; NULL when not found or either is NULL. */
QOSA_API char* sysMemStrcasestr(char* text, const char* pattern);

QOSA_EXTERN_C_END

#endif /* QOSA_MEM_H */
