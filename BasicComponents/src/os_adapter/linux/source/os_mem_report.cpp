// Reports of the memory tracker: counters, sorted and filtered listings, the
// scan for damaged blocks, the self-check and the file dump.
//
// Listings copy what they need under the table's mutexes and call the print
// function after releasing them. The tracker's own scratch memory (text
// buffers, copies of the tables) comes from malloc, so that a report never
// shows up in the listing it makes.
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <utility>

#include "internal/common.h"
#include "internal/mem_table.h"

using namespace qosa::mem;

namespace {

constexpr u32 kTextBuf = 10240;
constexpr u32 kChunk = 24;

char s_recordDump[] = "/data/mem_rec.txt";

constexpr const char* kHeader =
    "\r\nRecID    Address       Length     Line File                            Type   Status     Thread\r\n";
constexpr const char* kSummary =
    "\n\rCurrent mem exception record cnt:       %u\n\rError info ID introduction:\n\r"
    "1: down overflow 2: up overflow 3: down/up overflow 4: release mem addr not from malloc 5: release local mem "
    "addr\n\r6: release err mem of mem space 7: malloc erro size mem 8: malloc mem fail\n\r9: realloc err params\t  "
    "10: search ReAlloc old buffer fail\n\r";

MemMonitor& T = g_MemMonitorRecord;

// The tracker's malloc'ed scratch, freed at the end of its scope.
struct Free {
    void operator()(void* p) const { std::free(p); }
};
template <class E>
using Scratch = std::unique_ptr<E[], Free>;
template <class E>
Scratch<E> scratch(std::size_t n) {
    return Scratch<E>(static_cast<E*>(std::malloc(n * sizeof(E))));
}

// Appends the text that write(at, room) formats to buf; the bytes added, 0
// when nothing fits.
template <class Write>
u32 append_with(char* buf, u32 bufSize, const char* fmt, Write write) {
    u32 len = qosa::str_len(buf);
    if (buf == nullptr || fmt == nullptr || len >= bufSize) return 0;
    int n = write(buf + len, bufSize - len - 1);
    return n < 0 ? 0 : static_cast<u32>(n);
}

template <class... Args>
u32 string_cat(char* buf, u32 bufSize, const char* fmt, Args... args) {
    return append_with(buf, bufSize, fmt, [&](char* at, u32 room) { return sprintf_s(at, room, fmt, args...); });
}

const char* type_name(u32 type) { return type < std::size(g_MemTypeDiscr) ? g_MemTypeDiscr[type] : "Unknown"; }
const char* status_name(u32 status) { return status < std::size(g_MemStatus) ? g_MemStatus[status] : "Unknown"; }

// One record line, appended to buf.
u32 append_record(char* buf, u32 bufSize, const QOSA_MEM_REC_S& r) {
    return string_cat(buf, bufSize, "%-7u  %-10u %-5u %-31s %s    %-9s %u\r\n", r.ulPos, r.ulSize, r.ulLine,
                      r.pFile != nullptr ? r.pFile : "(null)", type_name(r.ulType), status_name(r.ulStatus),
                      static_cast<u32>(r.ulThread));
}

// Hands a listing to print in pieces of at most kChunk records, each after
// the header.
void print_listing(QOSA_MemPrintProc print, char* buf, QOSA_MEM_REC_S* recs, u32 count) {
    for (u32 i = 0; i < count; i += kChunk) {
        u32 n = count - i < kChunk ? count - i : kChunk;
        u32 len = qosa::mem::print_info(1, buf, kTextBuf, recs + i, n);
        print(buf, len);
    }
}

// Writes one table to the dump file under its title, a line at a time, with
// the table's mutex held: count(), then record(i) for each i below it.
template <class Count, class Record>
void dump_table(FILE* f, char* buf, QosaMutex* mutex, const char* title, Count count, Record record) {
    MutexGuard lock(mutex);
    const u32 n = lock.locked() ? count() : 0; // GCOVR_EXCL_BR_LINE: see MutexGuard
    std::fprintf(f, title, n);
    std::fprintf(f, "%s", kHeader);
    for (u32 i = 0; i < n; ++i) {
        buf[0] = '\0';
        append_record(buf, kTextBuf, record(i));
        std::fprintf(f, "%s", buf);
    }
}

const QOSA_MEM_REC_S& record_of(const void* slot) {
    static const QOSA_MEM_REC_S none{};
    u32 s = slot != nullptr ? *static_cast<const u32*>(slot) : kMaxRec;
    return s < kMaxRec ? T.astRec[s] : none;
}

} // namespace

u32 qosa::mem::print_info(int withHeader, char* buf, u32 bufSize, QOSA_MEM_REC_S* recs, u32 count) {
    if (buf == nullptr || bufSize == 0) return 0;
    buf[0] = '\0';
    u32 total = withHeader != 0 ? string_cat(buf, bufSize, "%s", kHeader) : 0;
    for (u32 i = 0; recs != nullptr && i < count; ++i)
        total += append_record(buf, bufSize, recs[i]);
    return total;
}

char* qosa::mem::find_nocase(char* text, const char* pattern) {
    if (text == nullptr || pattern == nullptr) return nullptr;
    auto textLen = static_cast<long long>(std::strlen(text));
    auto patternLen = static_cast<long long>(std::strlen(pattern));
    long long positions = textLen - patternLen + 1;
    if (positions < 1) return nullptr;
    if (patternLen == 0) return text;
    auto upper = [](char c) { return std::toupper(static_cast<unsigned char>(c)); };
    for (long long i = 0; i < positions; ++i) {
        long long j = 0;
        while (j < patternLen && upper(text[i + j]) == upper(pattern[j]))
            ++j;
        if (j == patternLen) return text + i;
    }
    return nullptr;
}

namespace {

// The orders of the record listing, as qsort comparisons of slot numbers.
int by_addr(const void* a, const void* b) { return record_of(a).pAddr < record_of(b).pAddr ? -1 : 1; }
int by_size(const void* a, const void* b) { return record_of(a).ulSize < record_of(b).ulSize ? -1 : 1; }

// Hands the n records in recs (malloc'ed) to *out and gives n; none are
// released and give 0.
u32 deliver(Scratch<QOSA_MEM_REC_S> recs, u32 n, QOSA_MEM_REC_S** out) {
    if (n != 0) *out = recs.release();
    return n;
}

} // namespace

extern "C" {
int sysMemSortByAddr(const void* a, const void* b) { return by_addr(a, b); }
int sysMemSortBySize(const void* a, const void* b) { return by_size(a, b); }
} // extern "C"

u32 qosa::mem::sort_info(QOSA_MEM_REC_S** out, char* filter, int sortMode) {
    if (out == nullptr) return 0;
    *out = nullptr;
    MutexGuard lock(&T.hMutex);
    u32 cur = lock.locked() ? T.ulCurCnt : 0; // GCOVR_EXCL_BR_LINE: see MutexGuard
    if (cur == 0) return 0;
    Scratch<QOSA_MEM_REC_S> recs = scratch<QOSA_MEM_REC_S>(cur);
    Scratch<u32> slots = scratch<u32>(cur);
    if (recs == nullptr || slots == nullptr ||
        memcpy_s(slots.get(), std::size_t{cur} * sizeof(u32), T.aulPosTab, std::size_t{cur} * sizeof(u32)) != 0)
        return 0;
    if (sortMode == 0) std::qsort(slots.get(), cur, sizeof(u32), by_addr);
    if (sortMode == 1) std::qsort(slots.get(), cur, sizeof(u32), by_size);
    bool all = qosa::str_len(filter) == 0;
    u32 kept = 0;
    for (u32 i = 0; i < cur; ++i) {
        const QOSA_MEM_REC_S& r = T.astRec[slots[i]];
        if (all || (r.pFile != nullptr && qosa::mem::find_nocase(const_cast<char*>(r.pFile), filter) != nullptr))
            recs[kept++] = r;
    }
    return deliver(std::move(recs), kept, out);
}

u32 qosa::mem::scan_damaged(QOSA_MEM_REC_S** out) {
    if (out == nullptr) return 0;
    *out = nullptr;
    Scratch<QOSA_MEM_REC_S> recs = scratch<QOSA_MEM_REC_S>(kMaxErrRec);
    if (recs == nullptr) return 0;
    u32 n = 0;
    {
        MutexGuard lock(&T.hMutex);
        for (u32 p = 0; lock.locked() && p < T.ulCurCnt && n < kMaxErrRec; ++p) { // GCOVR_EXCL_BR_LINE
            const void* block = caller_ptr(T.astRec[T.aulPosTab[p]]);
            QOSA_MEM_REC_S* r = live_record(block);
            if (r == nullptr) continue;
            u32 status = guard_check(r, block);
            if (status == QOSA_MEM_DOWN_OVERFLOW || status == QOSA_MEM_UP_OVERFLOW) recs[n++] = *r;
        }
    }
    return deliver(std::move(recs), n, out);
}

int qosa::mem::self_check(void) {
    // Gives the result of its unlock, so the pair is spelled out.
    if (const int r = qosa::lock::lock(&T.hMutex); r != 0) return r; // GCOVR_EXCL_BR_LINE: see MutexGuard
    for (u32 p = 0; p < T.ulCurCnt; ++p) {
        u32 slot = T.aulPosTab[p];
        const void* block = caller_ptr(T.astRec[slot]);
        QOSA_MEM_REC_S* r = live_record(block);
        if (r != nullptr)
            guard_check(r, block);
        else
            T.astRec[slot].ulStatus = QOSA_MEM_INVALID_MEM;
    }
    return qosa::lock::unlock(&T.hMutex);
}

void qosa::mem::dump_records(char* path) {
    std::remove(path);
    FILE* f = std::fopen(path, "a+");
    if (f == nullptr) return;
    Scratch<char> buf = scratch<char>(kTextBuf);
    if (buf == nullptr) {
        std::fclose(f);
        return;
    }
    dump_table(
        f, buf.get(), &T.hMutex, "\r\n-------MemInfo %u----\r\n", [] { return T.ulCurCnt; },
        [](u32 p) -> const QOSA_MEM_REC_S& { return T.astRec[T.aulPosTab[p]]; });
    dump_table(
        f, buf.get(), &T.hErrMutex, "\r\n-------ErrMem %u----\r\n", [] { return T.ulErrCnt; },
        [](u32 e) -> const QOSA_MEM_REC_S& { return T.astErrRec[e]; });
    std::fflush(f);
    std::fclose(f);
}

u32 qosa::mem::report_stats(QOSA_MemPrintProc print) {
    if (print == nullptr) return 1;
    char buf[256] = {};
    u32 len = string_cat(buf, sizeof buf,
                         "Current mem record cnt: %u\n\rMax mem record cnt: %u\n\rMax mem record limit : %u\n\r"
                         "User malloc mem:   %u (Bytes)\n\r",
                         load(T.ulCurCnt), load(T.ulMaxCnt), kMaxRec, load(T.ulUserMem));
    print(buf, len);
    return 0;
}

u32 qosa::mem::report_records(u32 mode, u32 sortMode, char* filter, QOSA_MemPrintProc print) {
    if (print == nullptr) return 1;
    QOSA_MEM_REC_S* sorted = nullptr;
    u32 n = 0;
    if (mode == 0) n = qosa::mem::sort_info(&sorted, nullptr, static_cast<int>(sortMode));
    if (mode == 1) n = qosa::mem::sort_info(&sorted, filter, static_cast<int>(sortMode));
    Scratch<QOSA_MEM_REC_S> recs(sorted);
    Scratch<char> buf = scratch<char>(kTextBuf);
    if (buf == nullptr) return 0;
    print_listing(print, buf.get(), recs.get(), n);
    u32 bytes = 0;
    for (u32 i = 0; i < n; ++i)
        bytes += recs[i].ulAlignSize;
    char totals[512] = {};
    u32 len = string_cat(totals, sizeof totals, "\r\nTotal malloc mem: %u\r\nThis User malloc mem : %u (bytes)\r\n", n,
                         bytes);
    print(totals, len);
    return 0;
}

u32 qosa::mem::report_scan(QOSA_MemPrintProc print) {
    if (print == nullptr) return 1;
    Scratch<char> buf = scratch<char>(kTextBuf);
    if (buf == nullptr) return 1;
    QOSA_MEM_REC_S* damaged = nullptr;
    u32 nDamaged = qosa::mem::scan_damaged(&damaged);
    print_listing(print, buf.get(), Scratch<QOSA_MEM_REC_S>(damaged).get(), nDamaged);
    void* logged = nullptr;
    u32 nLogged = qosa::mem::err_log(&logged);
    print_listing(print, buf.get(), Scratch<QOSA_MEM_REC_S>(static_cast<QOSA_MEM_REC_S*>(logged)).get(), nLogged);
    buf[0] = '\0';
    u32 len = string_cat(buf.get(), kTextBuf, kSummary, nDamaged + nLogged);
    print(buf.get(), len);
    return 0;
}

u32 qosa::mem::report_use(QOSA_MemPrintProc print) {
    if (print == nullptr) return 1;
    qosa::mem::self_check();
    qosa::mem::dump_records(s_recordDump);
    char buf[512] = {};
    u32 len = string_cat(buf, sizeof buf, "Save to %s", s_recordDump);
    print(buf, len);
    return 0;
}

// The tracker's exported entry points.
extern "C" {

u32 sysMemLogStringCat(char* buf, u32 bufSize, const char* fmt, ...) {
    std::va_list args;
    va_start(args, fmt);
    u32 n = append_with(buf, bufSize, fmt, [&](char* at, u32 room) { return vsprintf_s(at, room, fmt, args); });
    va_end(args);
    return n;
}
u32 sysMemPrintMemInfo(int withHeader, char* buf, u32 bufSize, QOSA_MEM_REC_S* recs, u32 count) {
    return qosa::mem::print_info(withHeader, buf, bufSize, recs, count);
}
char* sysMemStrcasestr(char* text, const char* pattern) { return qosa::mem::find_nocase(text, pattern); }
u32 sysMemSortMemInfo(QOSA_MEM_REC_S** out, char* filter, int sortMode) {
    return qosa::mem::sort_info(out, filter, sortMode);
}
u32 sysMemScanErrMemInfo(QOSA_MEM_REC_S** out) { return qosa::mem::scan_damaged(out); }
int MemSelfCheck(void) { return qosa::mem::self_check(); }
void MemRecordMemRecFun(char* path) {
    guarded(nothing, need(as_path(path)), [=] { qosa::mem::dump_records(path); });
}
u32 MemGetMemStats(QOSA_MemPrintProc print) { return qosa::mem::report_stats(print); }
u32 MemGetMemRec(u32 mode, u32 sortMode, char* filter, QOSA_MemPrintProc print) {
    return qosa::mem::report_records(mode, sortMode, filter, print);
}
u32 MemGetMemScan(QOSA_MemPrintProc print) { return qosa::mem::report_scan(print); }
u32 MemGetMemoryUseMonitor(QOSA_MemPrintProc print) { return qosa::mem::report_use(print); }

} // extern "C"
