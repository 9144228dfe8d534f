// The memory tracker's record table: guarded blocks, their records, and the
// error records. All bookkeeping is O(1) and lives in one static structure.
#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "internal/clock.h"
#include "internal/common.h"
#include "internal/mem_table.h"

static_assert(sizeof(void*) == 8, "records hold 64-bit pointers");
static_assert(offsetof(QOSA_MEM_REC_S, pAddr) == 0);
static_assert(offsetof(QOSA_MEM_REC_S, ulAlignSize) == 8);
static_assert(offsetof(QOSA_MEM_REC_S, ulSize) == 12);
static_assert(offsetof(QOSA_MEM_REC_S, ulHeadOffset) == 16);
static_assert(offsetof(QOSA_MEM_REC_S, ulThread) == 24);
static_assert(offsetof(QOSA_MEM_REC_S, ulPos) == 32);
static_assert(offsetof(QOSA_MEM_REC_S, ulStatus) == 36);
static_assert(offsetof(QOSA_MEM_REC_S, ulType) == 40);
static_assert(offsetof(QOSA_MEM_REC_S, ulTime) == 44);
static_assert(offsetof(QOSA_MEM_REC_S, ulLine) == 48);
static_assert(offsetof(QOSA_MEM_REC_S, pFile) == 56);
static_assert(sizeof(QOSA_MEM_REC_S) == 64);

namespace qosa::mem {

using M = MemMonitor;
static_assert(offsetof(M, ulErrCnt) == 0);
static_assert(offsetof(M, hErrMutex) > offsetof(M, ulErrCnt));
static_assert(offsetof(M, astErrRec) > offsetof(M, hErrMutex));
static_assert(offsetof(M, ulCurCnt) == offsetof(M, astErrRec) + kMaxErrRec * sizeof(QOSA_MEM_REC_S));
static_assert(offsetof(M, ulMaxCnt) == offsetof(M, ulCurCnt) + 4);
static_assert(offsetof(M, ulUserMem) == offsetof(M, ulMaxCnt) + 4);
static_assert(offsetof(M, hMutex) > offsetof(M, ulUserMem));
static_assert(offsetof(M, aulPosTab) > offsetof(M, hMutex));
static_assert(offsetof(M, astRec) >= offsetof(M, aulPosTab) + kMaxRec * sizeof(u32));
static_assert(std::size(g_MemTypeDiscr) == 6 && std::size(g_MemStatus) == 12);

MemMonitor g_MemMonitorRecord;

namespace {

MemMonitor& T = g_MemMonitorRecord;

// Addresses below the first page are never blocks; testing for them keeps a
// null or near-null pointer from being read.
bool could_be_block(const void* p) { return reinterpret_cast<std::uintptr_t>(p) >= kPage + 8; }

// Blocks whose caller's pointer lies within 8 bytes of a page start (sizes
// just under or at a multiple of the page) have their slot number on the page
// before. For a pointer that is no block that page need not be mapped, so
// such pointers are first looked up here: a static open-addressing set of the
// live edge blocks (slot + 1, 0 empty), with linear probing and
// backward-shift removal. Changed under hMutex; at most 200,000 entries in
// 2^19 buckets.
constexpr u32 kEdgeBits = 19;
constexpr u32 kEdgeMask = (1u << kEdgeBits) - 1;
u32 s_edge[kEdgeMask + 1];

bool at_page_edge(const void* p) { return (reinterpret_cast<std::uintptr_t>(p) & (kPage - 1)) < 8; }
u32 edge_home(const void* p) {
    return static_cast<u32>((reinterpret_cast<std::uintptr_t>(p) * 0x9E3779B97F4A7C15ull) >> (64 - kEdgeBits));
}

u32* edge_find(const void* p) {
    for (u32 i = edge_home(p);; i = (i + 1) & kEdgeMask) {
        u32 e = s_edge[i];
        if (e == 0) return nullptr;
        if (caller_ptr(T.astRec[e - 1]) == p) return &s_edge[i];
    }
}

void edge_insert(const void* p, u32 slot) {
    u32 i = edge_home(p);
    while (s_edge[i] != 0)
        i = (i + 1) & kEdgeMask;
    s_edge[i] = slot + 1;
}

// Empties a bucket, moving back later entries of the run that may no longer
// be found past the hole.
void edge_erase(u32* at) {
    auto hole = static_cast<u32>(at - s_edge);
    for (u32 j = (hole + 1) & kEdgeMask; s_edge[j] != 0; j = (j + 1) & kEdgeMask) {
        u32 home = edge_home(caller_ptr(T.astRec[s_edge[j] - 1]));
        if (((j - home) & kEdgeMask) >= ((j - hole) & kEdgeMask)) {
            s_edge[hole] = s_edge[j];
            hole = j;
        }
    }
    s_edge[hole] = 0;
}

// Each read-only guard page splits a heap mapping in two, so past the
// kernel's map budget (vm.max_map_count) mprotect refuses further ones. The
// block is served all the same, without its guard page: its guard words
// still catch overflows at release, copy, scan and self-check. The first
// refusal is said once per process.
u8 s_guardRefused = 0;

void guard_page_refused() {
    if (__atomic_exchange_n(&s_guardRefused, u8{1}, __ATOMIC_RELAXED) != 0) return;
    std::printf("memory tracker: no guard pages past %u guarded blocks (mprotect refused one); later blocks are "
                "checked by their guard words only; sysctl vm.max_map_count raises the limit\n",
                load(T.ulCurCnt) - 1);
    std::fflush(stdout);
}

// Sizes of a block: the requested size rounded up to the alignment, and the
// span of data pages in front of the guard page. False when they do not fit
// the record's 32-bit fields.
bool block_sizes(u32 size, u32 align, u32* rounded, u32* span) {
    u64 up = u64{size} + align - 1;
    up -= up % align;
    u64 pages = (up + kPage + 7) & ~u64{kPage - 1};
    if (pages + kPage > 0xFFFFFFFFu) return false;
    *rounded = static_cast<u32>(up);
    *span = static_cast<u32>(pages);
    return true;
}

// Takes a record out of the live positions: the last live position moves
// into its place and it goes just after the live ones, where the next
// allocation picks it up. Called with hMutex held.
void remove_position(QOSA_MEM_REC_S* r) {
    u32 last = T.ulCurCnt - 1;
    u32 pos = r->ulPos;
    u32 slot = T.aulPosTab[pos];
    u32 lastSlot = T.aulPosTab[last];
    T.aulPosTab[pos] = lastSlot;
    T.aulPosTab[last] = slot;
    T.astRec[lastSlot].ulPos = pos;
    r->ulPos = last;
    store(T.ulCurCnt, last);
    store(T.ulUserMem, T.ulUserMem - r->ulAlignSize);
}

// The word in front of a pointer that need not be a block at all: read on
// purpose, also when it belongs to someone else's memory.
__attribute__((no_sanitize("address", "thread"))) u32 peek_word(const unsigned char* at) {
    const volatile unsigned char* b = at;
    return u32{b[0]} | u32{b[1]} << 8 | u32{b[2]} << 16 | u32{b[3]} << 24;
}

} // namespace

const char* base_name(const char* file) {
    if (file == nullptr) return nullptr;
    const char* name = file;
    for (const char* c = file; *c != '\0'; ++c)
        if (*c == '/' || *c == '\\') name = c + 1;
    return name;
}

u32 slot_word(const void* p) {
    if (!could_be_block(p) || (at_page_edge(p) && edge_find(p) == nullptr)) return kMaxRec;
    return peek_word(static_cast<const unsigned char*>(p) - 8);
}

QOSA_MEM_REC_S* live_record(const void* p) {
    u32 slot = slot_word(p);
    if (slot >= kMaxRec) return nullptr;
    QOSA_MEM_REC_S* r = &T.astRec[slot];
    if (r->pAddr == nullptr || caller_ptr(*r) != p || r->ulPos >= load(T.ulCurCnt)) return nullptr;
    return r;
}

u32 guard_check(QOSA_MEM_REC_S* r, const void* p) {
    const char* c = static_cast<const char*>(p);
    u32 result = QOSA_MEM_GOOD;
    if (word_at(c + r->ulSize) != kGuard)
        result = QOSA_MEM_DOWN_OVERFLOW;
    else if (word_at(c - 4) != kGuard)
        result = QOSA_MEM_UP_OVERFLOW;
    r->ulStatus = result;
    return result;
}

void log_error(const void* addr, u32 size, const char* file, u32 line, u32 type, u32 err) {
    qosa::mem::log_mem_err(const_cast<void*>(addr), size, base_name(file), line, type, err);
}

} // namespace qosa::mem

using namespace qosa::mem;

void* qosa::mem::align_alloc(u32 alignment, u32 size) {
    void* p = nullptr;
    return posix_memalign(&p, alignment, size) == 0 ? p : nullptr;
}

int qosa::mem::protect(void* page) {
    return guarded(-1, need(page), [=] { return mprotect(page, kPage, PROT_READ); });
}
int qosa::mem::unprotect(void* page) {
    return guarded(-1, need(page), [=] { return mprotect(page, kPage, PROT_READ | PROT_WRITE); });
}

int qosa::mem::log_mem_err(void* addr, u32 size, const char* file, u32 line, u32 type, u32 err) {
    MemMonitor& t = g_MemMonitorRecord;
    MutexGuard lock(&t.hErrMutex);
    u32 n = t.ulErrCnt;
    if (!lock.locked() || n >= kMaxErrRec) return 1; // GCOVR_EXCL_BR_LINE: see MutexGuard
    QOSA_MEM_REC_S& r = t.astErrRec[n];
    r = QOSA_MEM_REC_S{};
    r.pAddr = addr;
    r.ulSize = size;
    r.ulStatus = err;
    r.ulType = type;
    r.ulLine = line;
    r.pFile = file;
    store(t.ulErrCnt, n + 1);
    return 0;
}

u32 qosa::mem::err_log(void** out) {
    MemMonitor& t = g_MemMonitorRecord;
    if (out == nullptr || load(t.ulErrCnt) == 0) return 0;
    MutexGuard lock(&t.hErrMutex);
    if (!lock.locked()) return 0; // GCOVR_EXCL_BR_LINE: see MutexGuard
    u32 n = t.ulErrCnt;
    std::size_t bytes = std::size_t{n} * sizeof(QOSA_MEM_REC_S);
    void* copy = std::malloc(bytes);
    if (copy == nullptr) return 0;
    if (memcpy_s(copy, bytes, t.astErrRec, bytes) != 0) {
        std::free(copy);
        return 0;
    }
    *out = copy;
    return n;
}

void* qosa::mem::add_block(u32 size, u32 align, const char* file, u32 line, u32 type) {
    MemMonitor& t = g_MemMonitorRecord;
    u32 rounded = 0, span = 0;
    void* base = nullptr;
    if (align != 0 && align <= kPage && block_sizes(size, align, &rounded, &span))
        base = qosa::mem::align_alloc(kPage, span + kPage);
    if (base == nullptr) {
        log_error(nullptr, size, file, line, type, QOSA_MEM_NO_MEM);
        return nullptr;
    }
    u64 thread = static_cast<u64>(pthread_self());
    u32 now = qosa::clock::wall_sec();
    char* p = static_cast<char*>(base) + (span - rounded);
    // The guard words go in before the lock is taken (the block is nobody
    // else's yet), so the first touch of its pages does not happen under the
    // lock; the slot word is written again once the slot is known.
    put_word(p - 8, kMaxRec);
    put_word(p - 4, kGuard);
    put_word(p + size, kGuard);
    bool entered = false;
    {
        MutexGuard lock(&t.hMutex);
        u32 cur = t.ulCurCnt;
        if (lock.locked() && cur < kMaxRec) { // GCOVR_EXCL_BR_LINE: see MutexGuard
            u32 slot = cur;
            if (cur < t.ulMaxCnt) {
                slot = t.aulPosTab[cur];
            } else {
                t.aulPosTab[cur] = slot;
                t.astRec[slot].ulPos = cur;
            }
            QOSA_MEM_REC_S& r = t.astRec[slot];
            r.pAddr = base;
            r.ulAlignSize = rounded;
            r.ulSize = size;
            r.ulHeadOffset = span - rounded;
            r.ulType = type;
            r.ulTime = now;
            r.ulLine = line;
            r.pFile = base_name(file);
            r.ulThread = thread;
            put_word(p - 8, slot);
            if (at_page_edge(p)) edge_insert(p, slot);
            store(t.ulCurCnt, cur + 1);
            store(t.ulUserMem, t.ulUserMem + rounded);
            if (cur + 1 > t.ulMaxCnt) store(t.ulMaxCnt, cur + 1);
            entered = true;
        }
    }
    if (!entered) {
        log_error(nullptr, size, file, line, type, QOSA_MEM_NO_MEM);
        std::free(base);
        return nullptr;
    }
    if (qosa::mem::protect(p + rounded) != 0) guard_page_refused();
    return p;
}

u32 qosa::mem::delete_block(void* p) {
    MemMonitor& t = g_MemMonitorRecord;
    void* base = nullptr;
    char* guardPage = nullptr;
    {
        MutexGuard lock(&t.hMutex);
        QOSA_MEM_REC_S* r = lock.locked() ? live_record(p) : nullptr; // GCOVR_EXCL_BR_LINE: see MutexGuard
        if (r == nullptr) return QOSA_MEM_NOT_FOUND;
        u32 result = guard_check(r, p);
        remove_position(r);
        if (at_page_edge(p)) edge_erase(edge_find(p));
        if (result != QOSA_MEM_GOOD) {
            // The block stays allocated (and its guard page read-only) so
            // that it can still be examined; the error record keeps it.
            qosa::mem::log_mem_err(p, r->ulSize, r->pFile, r->ulLine, r->ulType, result);
            r->pAddr = nullptr;
            return result;
        }
        base = r->pAddr;
        guardPage = static_cast<char*>(p) + r->ulAlignSize;
        r->pAddr = nullptr;
    }
    qosa::mem::unprotect(guardPage);
    std::free(base);
    return QOSA_MEM_GOOD;
}

u32 qosa::mem::copy_block(void* dst, void* src) {
    MemMonitor& t = g_MemMonitorRecord;
    MutexGuard lock(&t.hMutex);
    if (!lock.locked()) return 1; // GCOVR_EXCL_BR_LINE: see MutexGuard
    QOSA_MEM_REC_S* to = live_record(dst);
    if (to != nullptr) guard_check(to, dst);
    if (slot_word(src) >= kMaxRec) return 1;
    QOSA_MEM_REC_S* from = live_record(src);
    // A live source is checked (and its status stored) whatever the destination is.
    u32 fromCheck = from != nullptr ? guard_check(from, src) : QOSA_MEM_GOOD;
    if (to == nullptr || from == nullptr || fromCheck != QOSA_MEM_GOOD || to->ulStatus != QOSA_MEM_GOOD) return 1;
    u32 n = from->ulSize < to->ulSize ? from->ulSize : to->ulSize;
    // An empty source has nothing to copy: that is a successful copy.
    return n == 0 || memcpy_s(dst, n, src, n) == 0 ? 0 : 1;
}

// The tracker's exported entry points.
extern "C" {

QOSA_MEM_REC_S* sysMemCheckUserAddr(void* p) {
    QOSA_MEM_REC_S* r = live_record(p);
    if (r != nullptr) guard_check(r, p);
    return r;
}

void* sysMemAlignAlloc(u32 alignment, u32 size) { return qosa::mem::align_alloc(alignment, size); }
int sysMemProtect(void* page) { return qosa::mem::protect(page); }
int sysMemUnProtect(void* page) { return qosa::mem::unprotect(page); }
int sysMemLogMemErr(void* addr, u32 size, const char* file, u32 line, u32 type, u32 err) {
    return qosa::mem::log_mem_err(addr, size, file, line, type, err);
}
u32 sysMemGetErrMemLog(void** out) { return qosa::mem::err_log(out); }
void* sysMemAddUserMem(u32 size, u32 align, const char* file, u32 line, u32 type) {
    return qosa::mem::add_block(size, align, file, line, type);
}
u32 sysMemDeleteUserMem(void* p) { return qosa::mem::delete_block(p); }
u32 sysMemCopyUserMem(void* dst, void* src) { return qosa::mem::copy_block(dst, src); }

} // extern "C"
