/** @file
 * Tracked memory: the allocation front end, the record table and the reports.
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

/** @def QOSA_MEM_PRINTF_LIKE(fmt, args)
 * Lets the compiler check a printf-style format (argument fmt) against the
 * arguments from args on. */
#if defined(__GNUC__) || defined(__clang__)
#define QOSA_MEM_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define QOSA_MEM_PRINTF_LIKE(fmt, args)
#endif

/** @name Memory types
 * The index into the reports' type names. The library's own allocations use
 * QOSA_MEM_DYN. */
/** @{ */
#define QOSA_MEM_DYN 0u   /**< "Dyn": the library's own allocations */
#define QOSA_MEM_FIXED 1u /**< "Fixed" */
#define QOSA_MEM_CACHE 2u /**< "Cache": refused (NULL) while tracking is off */
#define QOSA_MEM_ALN 3u   /**< "Aln": MemAlignMem's blocks */
#define QOSA_MEM_SD 4u    /**< "SD" */
#define QOSA_MEM_IS 5u    /**< "IS" */
/** @} */

/** @name Status and error numbers
 * Status of a live record (its latest guard check) and error number of an
 * error record; the reports print the names in quotes. */
/** @{ */
#define QOSA_MEM_GOOD 0u            /**< "Good": guard words intact */
#define QOSA_MEM_DOWN_OVERFLOW 1u   /**< "Down": tail guard damaged */
#define QOSA_MEM_UP_OVERFLOW 2u     /**< "Up": head guard damaged */
#define QOSA_MEM_UPDOWN_OVERFLOW 3u /**< "Updown" (not produced) */
#define QOSA_MEM_NOT_FOUND 4u       /**< "Nofound": released pointer is no live tracked block */
#define QOSA_MEM_FIX 5u             /**< "Fix" (not produced) */
#define QOSA_MEM_INVALID 6u         /**< "Invaid" (not produced) */
#define QOSA_MEM_LENGTH 7u          /**< "Length" (not produced) */
#define QOSA_MEM_NO_MEM 8u          /**< "NoMem": allocation failed or the table is full */
#define QOSA_MEM_REALLOC 9u         /**< "Realloc" (not produced) */
#define QOSA_MEM_REALLOC_OLD 10u    /**< "Realloc" (not produced) */
#define QOSA_MEM_INVALID_MEM 11u    /**< "InvaidMem": the block does not lead back to its record */
/** @} */

#define QOSA_MEM_MAX_RECORDS 200000u    /**< Capacity of the record table (live blocks). */
#define QOSA_MEM_MAX_ERR_RECORDS 600u   /**< Capacity of the error-record table; later errors are dropped. */
#define QOSA_MEM_GUARD_WORD 0xABBADEEDu /**< Guard word before and after the caller's data of a tracked block. */

/** One record: a live block (record table) or a misuse (error table). */
typedef struct QOSA_MEM_REC_S {
    void* pAddr;       /**< live: start of the underlying allocation (NULL: slot free); error: the address */
    u32 ulAlignSize;   /**< live: requested size rounded up to the alignment */
    u32 ulSize;        /**< requested size (0 for error 4) */
    u32 ulHeadOffset;  /**< live: distance from pAddr to the caller's pointer */
    u64 ulThread;      /**< live: allocating thread; error: 0 */
    u32 ulPos;         /**< live: place in the position table; error: 0 */
    u32 ulStatus;      /**< live: latest guard check; error: the error number */
    u32 ulType;        /**< memory type */
    u32 ulTime;        /**< live: seconds since the epoch at allocation */
    u32 ulLine;        /**< source line */
    const char* pFile; /**< source file name past its last separator (not a copy) */
} QOSA_MEM_REC_S;

/** Receives one piece of a report. Called on the reporting thread, never with
 * a table lock held.
 * @param text the piece (NUL-terminated)
 * @param len its length in bytes
 * @return ignored */
typedef int (*QOSA_MemPrintProc)(char* text, u32 len);

/** @name Front end
 * The allocation entry points. file must live as long as the process (the
 * record keeps a pointer into it); string literals such as __FILE__ do. */
/** @{ */
/** Allocates a block. Release it with QOSA_MemTypeFreeD (never free once
 * tracking is on).
 * @param size bytes wanted
 * @param type memory type (QOSA_MEM_DYN ...)
 * @param line,file source position of the call, kept in the block's record
 * @return the block; NULL for size 0, when memory is short (tracking on:
 *         error record 8) and, with tracking off, for type QOSA_MEM_CACHE */
QOSA_API void* QOSA_MemTypeMallocD(u32 size, u32 type, u32 line, const char* file);
/** As QOSA_MemTypeMallocD, every byte set to the low byte of fill.
 * @param size bytes wanted @param fill the fill value
 * @param type memory type @param line,file source position of the call
 * @return the block, released with QOSA_MemTypeFreeD; NULL as for
 *         QOSA_MemTypeMallocD */
QOSA_API void* QOSA_MemTypeMallocS(u32 size, int fill, u32 type, u32 line, const char* file);
/** Releases a block of QOSA_MemTypeMallocD and the functions that hand out
 * tracked blocks. With tracking on, a damaged block is kept (error record 1
 * or 2) and an unknown pointer releases nothing (error record 4).
 * @param p the block; NULL does nothing
 * @param type memory type @param line,file source position of the call */
QOSA_API void QOSA_MemTypeFreeD(void* p, u32 type, u32 line, const char* file);
/** Aligned allocation is not offered through this entry point; nothing is
 * allocated. @param size,type,line,file not read @return NULL */
QOSA_API void* QOSA_MemAlignD(u32 size, u32 type, u32 line, const char* file);
/** memcmp. @param a,b the blocks @param len bytes compared
 * @return below, equal to or above 0 as a sorts before, with or after b */
QOSA_API int QOSA_MemCmp(const void* a, const void* b, u32 len);
/** Duplicates a string into a new block recorded against the caller's line
 * and file. @param source the string; NULL copies as ""
 * @param line,file source position of the call
 * @return the copy, released with QOSA_MemTypeFreeD; NULL when memory is
 *         short */
QOSA_API char* QOSA_StrDupEx(const char* source, u32 line, const char* file);
/** Switches tracking on for the rest of the process; later calls do nothing.
 * Call it once, before other threads allocate. */
QOSA_API void QOSA_MemInitMemMange(void);
/** Counters of the record table (MemGetMemStats).
 * @param print receives the report
 * @return 0; 1 while tracking is off or for a null print */
QOSA_API u32 QOSA_MemGetMemStatus(QOSA_MemPrintProc print);
/** Listing of the live blocks (MemGetMemRec).
 * @param mode 0 all, 1 those whose file contains filter, else none
 * @param sortMode 0 by address, 1 by requested size, else table order
 * @param filter the file-name text of mode 1 (any case)
 * @param print receives the report
 * @return 0; 1 while tracking is off or for a null print */
QOSA_API u32 QOSA_MemGetMemRec(u32 mode, u32 sortMode, char* filter, QOSA_MemPrintProc print);
/** Damaged blocks and error records (MemGetMemScan).
 * @param print receives the report
 * @return 0; 1 while tracking is off, for a null print or when the text
 *         buffer cannot be had */
QOSA_API u32 QOSA_MemGetMemScan(QOSA_MemPrintProc print);
/** Self-check and dump to /data/mem_rec.txt (MemGetMemoryUseMonitor).
 * @param print receives "Save to <path>"
 * @return 0; 1 while tracking is off or for a null print */
QOSA_API u32 QOSA_MemGetMemoryUseMonitor(QOSA_MemPrintProc print);
/** @} */

/** @name Tracker primitives
 * They work on the record table whatever the switch says; their blocks are
 * released with MemFreeMem (or QOSA_MemTypeFreeD while tracking is on). */
/** @{ */
/** Initialises the two table mutexes. @return the second init's result */
QOSA_API int MemInitManage(void);
/** A tracked block (alignment 4); the first failure of the process dumps both
 * tables to /data/out_of_memery.txt.
 * @param file,line source position of the call @param size bytes wanted
 * @param type memory type @return the block; NULL when memory is short */
QOSA_API void* MemAllocMem(const char* file, u32 line, u32 size, u32 type);
/** A zeroed tracked block of count * size bytes.
 * @param file,line source position of the call @param count,size the factors
 * @return the block; NULL when either is not positive, the product does not
 *         fit in 32 bits or memory is short */
QOSA_API void* MemCallocMem(const char* file, u32 line, int count, int size);
/** A tracked block aligned to 128 bytes, type QOSA_MEM_ALN.
 * @param file,line source position of the call @param spare not read
 * @param size bytes wanted @return the block; NULL when memory is short */
QOSA_API void* MemAlignMem(const char* file, u32 line, u32 spare, u32 size);
/** Resizes a tracked block: a new block receives min(old, new size) bytes and
 * old is released.
 * @param file,line source position of the call
 * @param old the block; NULL allocates
 * @param newSize bytes wanted; 0 releases old
 * @return the new block; NULL for newSize 0 and on failure (old then stays
 *         valid) */
QOSA_API void* MemReAllocMem(const char* file, u32 line, void* old, u32 newSize);
/** Releases a tracked block.
 * @param file,line source position of the call @param p the block
 * @param type memory type of an error record
 * @retval 0 released, or p is no live tracked block (kept as error 4)
 * @retval 1 tail guard damaged: the block stays allocated (error record 1)
 * @retval 2 head guard damaged: likewise (error record 2) */
QOSA_API u32 MemFreeMem(const char* file, u32 line, void* p, u32 type);
/** @} */

/** @name Record table */
/** @{ */
/** A new guarded block: its data ends where a read-only guard page starts.
 * @param size bytes wanted @param align 1 to 4096
 * @param file,line source position (file past its last separator is kept)
 * @param type memory type
 * @return the caller's pointer, released with sysMemDeleteUserMem; NULL
 *         (error record 8) on failure */
QOSA_API void* sysMemAddUserMem(u32 size, u32 align, const char* file, u32 line, u32 type);
/** Releases a guarded block. @param p the caller's pointer
 * @retval 0 released
 * @retval 1 tail guard damaged: record removed, block kept, error record made
 * @retval 2 head guard damaged: likewise
 * @retval 4 p is no live tracked block */
QOSA_API u32 sysMemDeleteUserMem(void* p);
/** Copies min(both requested sizes) bytes from src to dst.
 * @param dst,src live tracked blocks
 * @return 0; 1 when either is not live or a guard is damaged */
QOSA_API u32 sysMemCopyUserMem(void* dst, void* src);
/** Looks a block up and checks its guards (stored in its status); takes no
 * lock. @param p the caller's pointer
 * @return the block's record in the table, or NULL */
QOSA_API QOSA_MEM_REC_S* sysMemCheckUserAddr(void* p);
/** Adds an error record (file kept as given).
 * @param addr the address concerned @param size the requested size
 * @param file,line source position @param type memory type
 * @param err the error number (QOSA_MEM_...)
 * @return 0; 1 when the error table is full (the record is dropped) */
QOSA_API int sysMemLogMemErr(void* addr, u32 size, const char* file, u32 line, u32 type, u32 err);
/** Copies the error records. @param out receives a malloc'd copy, released
 * with free @return their count; 0 (out untouched) when there are none */
QOSA_API u32 sysMemGetErrMemLog(void** out);
/** posix_memalign. @param alignment a power of two, multiple of sizeof(void*)
 * @param size bytes wanted @return the block, released with free; NULL on
 * failure */
QOSA_API void* sysMemAlignAlloc(u32 alignment, u32 size);
/** Makes one page read-only (mprotect). @param page the page
 * @return 0; -1 with errno, or for NULL */
QOSA_API int sysMemProtect(void* page);
/** Makes one page read-write again (mprotect). @param page the page
 * @return 0; -1 with errno, or for NULL */
QOSA_API int sysMemUnProtect(void* page);
/** @} */

/** @name Reports
 * Listings reach the print function in pieces of at most 24 records, each
 * with the column header. The print function is never called with a table
 * lock held. A null print function gives 1 and prints nothing. */
/** @{ */
/** Counters of the record table, in one piece. @param print receives it
 * @return 0; 1 for a null print */
QOSA_API u32 MemGetMemStats(QOSA_MemPrintProc print);
/** Live blocks, then their count and total size.
 * @param mode 0 all, 1 those whose file contains filter (any case), else none
 * @param sortMode 0 by address, 1 by requested size, else table order
 * @param filter the file-name text of mode 1
 * @param print receives the listing
 * @return 0; 1 for a null print */
QOSA_API u32 MemGetMemRec(u32 mode, u32 sortMode, char* filter, QOSA_MemPrintProc print);
/** Damaged live blocks, the error records, then a summary with the legend.
 * @param print receives the report
 * @return 0; 1 for a null print or when the text buffer cannot be had */
QOSA_API u32 MemGetMemScan(QOSA_MemPrintProc print);
/** Self-check, dump of both tables to /data/mem_rec.txt, then "Save to
 * <path>". @param print receives the last line @return 0; 1 for a null print */
QOSA_API u32 MemGetMemoryUseMonitor(QOSA_MemPrintProc print);
/** Writes both tables to a file, replacing it; skipped silently when it
 * cannot be opened. @param path the file */
QOSA_API void MemRecordMemRecFun(char* path);
/** Guard check of every live block; marks a block that does not lead back to
 * its record QOSA_MEM_INVALID_MEM. @return the result of the final unlock */
QOSA_API int MemSelfCheck(void);
/** Copies the live records, sorted as MemGetMemRec does.
 * @param out receives a malloc'd array, released with free; NULL when none
 * @param filter keeps the records whose file contains it (any case); NULL or
 *        "" keeps all
 * @param sortMode 0 by address, 1 by requested size, else table order
 * @return the number of records */
QOSA_API u32 sysMemSortMemInfo(QOSA_MEM_REC_S** out, char* filter, int sortMode);
/** qsort comparison of two slot numbers by the blocks' addresses.
 * @param a,b pointers to u32 slot numbers @return -1 when a's is lower, else 1
 *        (never 0) */
QOSA_API int sysMemSortByAddr(const void* a, const void* b);
/** qsort comparison of two slot numbers by requested size.
 * @param a,b pointers to u32 slot numbers @return -1 when a's is smaller,
 *        else 1 (never 0) */
QOSA_API int sysMemSortBySize(const void* a, const void* b);
/** Copies the records of damaged live blocks (at most 600).
 * @param out receives a malloc'd array, released with free; NULL when none
 * @return the number of records */
QOSA_API u32 sysMemScanErrMemInfo(QOSA_MEM_REC_S** out);
/** Formats records as listing lines.
 * @param withHeader non-zero: the column header first
 * @param buf receives the text (emptied first) @param bufSize its size
 * @param recs,count the records
 * @return the length written */
QOSA_API u32 sysMemPrintMemInfo(int withHeader, char* buf, u32 bufSize, QOSA_MEM_REC_S* recs, u32 count);
/** Appends formatted text to the string in buf.
 * @param buf the string @param bufSize its buffer's size
 * @param fmt printf format, then its arguments
 * @return the characters added; 0 when the text does not fit (nothing is
 *         added then) */
QOSA_API u32 sysMemLogStringCat(char* buf, u32 bufSize, const char* fmt, ...) QOSA_MEM_PRINTF_LIKE(3, 4);
/** Finds pattern in text without regard to case.
 * @param text the text searched @param pattern the text looked for
 * @return its first place in text; text for an empty pattern; NULL when not
 *         found or either is NULL */
QOSA_API char* sysMemStrcasestr(char* text, const char* pattern);
/** @} */

QOSA_EXTERN_C_END

#endif /* QOSA_MEM_H */
