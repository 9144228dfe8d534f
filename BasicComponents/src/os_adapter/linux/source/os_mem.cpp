// The allocation front end. With tracking off every call is one test of the
// switch and a direct malloc or free; with tracking on the calls hand over to
// the record table.
#include <cstdlib>
#include <cstring>

#include "internal/common.h"
#include "internal/lock.h"
#include "internal/mem_switch.h"
#include "internal/mem_table.h"
#include "qosa_mem.h"

namespace qosa::mem {
u8 g_EnableMemMonitor = 0;
}

using qosa::mem::log_error;
using qosa::mem::tracking;

namespace {

// Set once the first failed allocation has been dumped.
u8 s_Record = 0;
// Set by the first caller of QOSA_MemInitMemMange, so that only it
// initialises the table.
u8 s_initStarted = 0;

char s_outOfMemoryDump[] = "/data/out_of_memery.txt";

// memset_s takes at most 2 GiB - 1 bytes a call.
void fill(void* p, u32 size, int c) {
    constexpr u32 kStep = 0x40000000u;
    auto* b = static_cast<char*>(p);
    while (size != 0) {
        u32 n = size < kStep ? size : kStep;
        memset_s(b, n, c, n);
        b += n;
        size -= n;
    }
}

// Releases a block on the reallocation path; an unknown address is kept as an
// error record.
void release_for_realloc(void* p, const char* file, u32 line) {
    if (qosa::mem::delete_block(p) == QOSA_MEM_NOT_FOUND) log_error(p, 0, file, line, QOSA_MEM_DYN, QOSA_MEM_NOT_FOUND);
}

} // namespace

void* qosa::mem::alloc(u32 size, u32 type, u32 line, const char* file) {
    if (!tracking()) [[likely]]
        return size == 0 || type == QOSA_MEM_CACHE ? nullptr : std::malloc(size);
    return size == 0 ? nullptr : alloc_mem(file, line, size, type);
}

void qosa::mem::release(void* p, u32 type, u32 line, const char* file) {
    if (!tracking()) [[likely]] {
        std::free(p); // nothing for NULL
        return;
    }
    if (p != nullptr) free_mem(file, line, p, type);
}

extern "C" {

void* QOSA_MemTypeMallocD(u32 size, u32 type, u32 line, const char* file) {
    return qosa::mem::alloc(size, type, line, file);
}
void* QOSA_MemTypeMallocS(u32 size, int fill_byte, u32 type, u32 line, const char* file) {
    void* p = qosa::mem::alloc(size, type, line, file);
    if (p != nullptr) fill(p, size, fill_byte);
    return p;
}
void QOSA_MemTypeFreeD(void* p, u32 type, u32 line, const char* file) { qosa::mem::release(p, type, line, file); }

void* QOSA_MemAlignD(u32 /*size*/, u32 /*type*/, u32 /*line*/, const char* /*file*/) { return nullptr; }

int QOSA_MemCmp(const void* a, const void* b, u32 len) { return std::memcmp(a, b, len); }

char* QOSA_StrDupEx(const char* source, u32 line, const char* file) {
    u32 length = qosa::str_len(source);
    u32 size = length + 1;
    // The text and its terminator fill the block: nothing to clear first.
    auto* copy = static_cast<char*>(qosa::mem::alloc(size, QOSA_MEM_DYN, line, file));
    if (copy == nullptr) return nullptr;
    if (length != 0) memcpy_s(copy, size, source, length);
    copy[length] = '\0';
    return copy;
}

void QOSA_MemInitMemMange(void) {
    if (tracking() || __atomic_exchange_n(&s_initStarted, 1, __ATOMIC_ACQ_REL) != 0) return;
    qosa::mem::init_manage();
    __atomic_store_n(&qosa::mem::g_EnableMemMonitor, 1, __ATOMIC_RELEASE);
}

u32 QOSA_MemGetMemStatus(QOSA_MemPrintProc print) { return tracking() ? qosa::mem::report_stats(print) : 1; }
u32 QOSA_MemGetMemRec(u32 mode, u32 sortMode, char* filter, QOSA_MemPrintProc print) {
    return tracking() ? qosa::mem::report_records(mode, sortMode, filter, print) : 1;
}
u32 QOSA_MemGetMemScan(QOSA_MemPrintProc print) { return tracking() ? qosa::mem::report_scan(print) : 1; }
u32 QOSA_MemGetMemoryUseMonitor(QOSA_MemPrintProc print) { return tracking() ? qosa::mem::report_use(print) : 1; }

} // extern "C"

// ---- tracker primitives ----------------------------------------------------

int qosa::mem::init_manage(void) {
    qosa::mem::MemMonitor& t = qosa::mem::g_MemMonitorRecord;
    qosa::lock::init(&t.hErrMutex, nullptr);
    return qosa::lock::init(&t.hMutex, nullptr);
}

void* qosa::mem::alloc_mem(const char* file, u32 line, u32 size, u32 type) {
    void* p = qosa::mem::add_block(size, 4, file, line, type);
    if (p == nullptr && __atomic_exchange_n(&s_Record, 1, __ATOMIC_ACQ_REL) == 0)
        qosa::mem::dump_records(s_outOfMemoryDump);
    return p;
}

extern "C" {

void* MemCallocMem(const char* file, u32 line, int count, int size) {
    if (count <= 0 || size <= 0) return nullptr;
    u64 bytes = u64(count) * u64(size);
    if (bytes > 0xFFFFFFFFu) return nullptr;
    auto n = static_cast<u32>(bytes);
    void* p = qosa::mem::add_block(n, 4, file, line, QOSA_MEM_DYN);
    if (p != nullptr) fill(p, n, 0);
    return p;
}

void* MemAlignMem(const char* file, u32 line, u32 /*spare*/, u32 size) {
    return qosa::mem::add_block(size, 128, file, line, QOSA_MEM_ALN);
}

void* MemReAllocMem(const char* file, u32 line, void* old, u32 newSize) {
    if (old != nullptr && newSize == 0) {
        release_for_realloc(old, file, line);
        return nullptr;
    }
    void* fresh = qosa::mem::add_block(newSize, 4, file, line, QOSA_MEM_DYN);
    if (old == nullptr || fresh == nullptr) return fresh;
    if (qosa::mem::copy_block(fresh, old) == 0) {
        release_for_realloc(old, file, line);
        return fresh;
    }
    release_for_realloc(fresh, file, line); // the old block stays valid
    return nullptr;
}

} // extern "C"

u32 qosa::mem::free_mem(const char* file, u32 line, void* p, u32 type) {
    u32 result = qosa::mem::delete_block(p);
    if (result != QOSA_MEM_NOT_FOUND) return result;
    log_error(p, 0, file, line, type, QOSA_MEM_NOT_FOUND);
    return 0;
}

// The tracker's exported entry points.
extern "C" {

int MemInitManage(void) { return qosa::mem::init_manage(); }
void* MemAllocMem(const char* file, u32 line, u32 size, u32 type) {
    return qosa::mem::alloc_mem(file, line, size, type);
}
u32 MemFreeMem(const char* file, u32 line, void* p, u32 type) { return qosa::mem::free_mem(file, line, p, type); }

} // extern "C"
