// The memory tracker's record table, shared by the front end, the table
// primitives and the reports.
//
// A tracked block is one page-aligned allocation:
//
//   pAddr                         p - 8  p - 4  p            p + size   pAddr + span
//   |  ... unused ...             | slot | head | data ...   | tail ... |  guard page (read-only)  |
//
// p (the caller's pointer) = pAddr + span - rounded, so the data rounded up to
// the alignment ends exactly where the guard page starts. The slot number in
// front of the block finds its record without a search; the position table
// lists the live slots first (swap-with-last removal), then the used slots
// that are free again, most recently freed first.
//
// Locks: hMutex guards the counters, the position table and the records;
// hErrMutex the error records. hMutex is taken first when both are held. The
// counters are also read without a lock (statistics, quick emptiness tests),
// so they are written with atomic stores.
#pragma once

#include <cstddef>
#include <cstring>

#include "qosa_lock.h"
#include "qosa_mem.h"
#include "unaligned.h"

namespace qosa::mem {

inline constexpr u32 kMaxRec = QOSA_MEM_MAX_RECORDS;
inline constexpr u32 kMaxErrRec = QOSA_MEM_MAX_ERR_RECORDS;
inline constexpr u32 kGuard = QOSA_MEM_GUARD_WORD;
inline constexpr u32 kPage = 4096;

struct MemMonitor {
    u32 ulErrCnt;
    QosaMutex hErrMutex;
    QOSA_MEM_REC_S astErrRec[kMaxErrRec];
    u32 ulCurCnt;
    u32 ulMaxCnt;
    u32 ulUserMem;
    QosaMutex hMutex;
    u32 aulPosTab[kMaxRec];
    QOSA_MEM_REC_S astRec[kMaxRec];
};

extern MemMonitor g_MemMonitorRecord;

inline constexpr const char* g_MemTypeDiscr[] = {"Dyn", "Fixed", "Cache", "Aln", "SD", "IS"};
inline constexpr const char* g_MemStatus[] = {"Good",   "Down",   "Up",    "Updown",  "Nofound", "Fix",
                                              "Invaid", "Length", "NoMem", "Realloc", "Realloc", "InvaidMem"};

// Counters written under their mutex and read anywhere.
inline u32 load(const u32& v) { return __atomic_load_n(&v, __ATOMIC_RELAXED); }
inline void store(u32& v, u32 x) { __atomic_store_n(&v, x, __ATOMIC_RELAXED); }

// Words around a block; the tail guard may be unaligned.
inline u32 word_at(const void* p) { return load_unaligned<u32>(p); }
inline void put_word(void* p, u32 v) { store_unaligned(p, v); }

inline char* caller_ptr(const QOSA_MEM_REC_S& r) { return static_cast<char*>(r.pAddr) + r.ulHeadOffset; }

// The file name past its last '/' or '\'.
const char* base_name(const char* file);

// The slot number in front of p, or kMaxRec when p cannot be a block. p may be
// any pointer a caller hands back, so the word may belong to someone else.
u32 slot_word(const void* p);

// The record of the live block at p, or nullptr. Reads the slot number in
// front of p; call with hMutex held (sysMemCheckUserAddr does not).
QOSA_MEM_REC_S* live_record(const void* p);

// Guard check of the live block p of record r: 0 intact, 1 tail damaged, 2
// head damaged; stored in r's status.
u32 guard_check(QOSA_MEM_REC_S* r, const void* p);

// An error record with the file name shortened.
void log_error(const void* addr, u32 size, const char* file, u32 line, u32 type, u32 err);

// What the tracker's exported entry points do, called by the library's own
// code. The table (os_mem_record):
void* align_alloc(u32 alignment, u32 size);                                           // sysMemAlignAlloc
int protect(void* page);                                                              // sysMemProtect
int unprotect(void* page);                                                            // sysMemUnProtect
int log_mem_err(void* addr, u32 size, const char* file, u32 line, u32 type, u32 err); // sysMemLogMemErr
u32 err_log(void** out);                                                              // sysMemGetErrMemLog
void* add_block(u32 size, u32 align, const char* file, u32 line, u32 type);           // sysMemAddUserMem
u32 delete_block(void* p);                                                            // sysMemDeleteUserMem
u32 copy_block(void* dst, void* src);                                                 // sysMemCopyUserMem
// The front end (os_mem):
int init_manage();                                               // MemInitManage
void* alloc_mem(const char* file, u32 line, u32 size, u32 type); // MemAllocMem
u32 free_mem(const char* file, u32 line, void* p, u32 type);     // MemFreeMem
// The reports (os_mem_report):
u32 print_info(int withHeader, char* buf, u32 bufSize, QOSA_MEM_REC_S* recs, u32 count); // sysMemPrintMemInfo
char* find_nocase(char* text, const char* pattern);                                      // sysMemStrcasestr
u32 sort_info(QOSA_MEM_REC_S** out, char* filter, int sortMode);                         // sysMemSortMemInfo
u32 scan_damaged(QOSA_MEM_REC_S** out);                                                  // sysMemScanErrMemInfo
int self_check();                                                                        // MemSelfCheck
void dump_records(char* path);                                                           // MemRecordMemRecFun
u32 report_stats(QOSA_MemPrintProc print);                                               // MemGetMemStats
u32 report_records(u32 mode, u32 sortMode, char* filter, QOSA_MemPrintProc print);       // MemGetMemRec
u32 report_scan(QOSA_MemPrintProc print);                                                // MemGetMemScan
u32 report_use(QOSA_MemPrintProc print);                                                 // MemGetMemoryUseMonitor

} // namespace qosa::mem
