// The tracker with tracking on: its reports (counters, listings, sorting,
// filter, scan, self-check, dumps), then guards, error records, slots,
// realloc, threads, and the blocks other units take through it.

#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <random>

#include "internal/mem_switch.h"
#include "internal/mem_table.h"
#include "support.h"

namespace {

const char kFile[] = "/src/deep/dir\\tracked_unit.c";
const auto& T = qosa::mem::g_MemMonitorRecord;

std::uintptr_t page_offset(const void* p) { return reinterpret_cast<std::uintptr_t>(p) % 4096; }
const QOSA_MEM_REC_S& rec_of(const void* p) { return T.astRec[qosa::mem::word_at(static_cast<const char*>(p) - 8)]; }
const QOSA_MEM_REC_S& last_error() { return T.astErrRec[T.ulErrCnt - 1]; }
char* alloc(u32 size) { return static_cast<char*>(MemAllocMem(kFile, 0, size, QOSA_MEM_DYN)); }
u32 release(void* p) { return MemFreeMem(kFile, __LINE__, p, QOSA_MEM_DYN); }

struct MemTracked : ::testing::Test {
    void SetUp() override {
        QOSA_MemInitMemMange();
        ASSERT_TRUE(qosa::mem::tracking());
        live_ = T.ulCurCnt, bytes_ = T.ulUserMem, errors_ = T.ulErrCnt;
        ASSERT_EQ(live_, 0u) << "every test starts from an empty table (the reports' figures count on it)";
    }
    // Nothing leaked or freed twice; every used position names a slot pointing back, live ones first.
    void TearDown() override {
        for (void* p : blocks_)
            EXPECT_EQ(MemFreeMem(__FILE__, __LINE__, p, 0), 0u);
        EXPECT_EQ(T.ulCurCnt, live_);
        EXPECT_EQ(T.ulUserMem, bytes_);
        for (u32 p = 0; p < T.ulMaxCnt; ++p) {
            const QOSA_MEM_REC_S& r = T.astRec[T.aulPosTab[p]];
            ASSERT_TRUE(r.ulPos == p && (r.pAddr != nullptr) == (p < T.ulCurCnt)) << "position " << p;
        }
    }
    // A block released at the end, allocated at line 100, 101, ...
    char* keep(u32 size, const char* file = "report_unit.c", u32 type = QOSA_MEM_DYN) {
        auto* p = static_cast<char*>(QOSA_MemTypeMallocD(size, type, 100 + static_cast<u32>(blocks_.size()), file));
        blocks_.push_back(p);
        return p;
    }
    u32 live_ = 0, bytes_ = 0, errors_ = 0;
    std::vector<void*> blocks_;
};

const std::string kHeader =
    "\r\nRecID    Address       Length     Line File                            Type   Status     Thread\r\n";
using Pieces = std::vector<std::string>;

Pieces s_printed;
int capture(char* text, u32 len) {
    s_printed.emplace_back(text, len);
    return 0;
}
// The pieces a report hands to its print function.
template <class Report>
Pieces printed(Report report) {
    s_printed.clear();
    EXPECT_EQ(report(capture), 0u);
    return s_printed;
}
Pieces listing(u32 mode, u32 sort, const char* filter = nullptr) {
    return printed([=](QOSA_MemPrintProc p) { return QOSA_MemGetMemRec(mode, sort, const_cast<char*>(filter), p); });
}
// The number of record lines in a listing piece.
long records(const std::string& piece) {
    EXPECT_EQ(piece.rfind(kHeader, 0), 0u) << "every piece starts with the header";
    return std::count(piece.begin(), piece.end(), '\n') - 2;
}
std::string totals(u32 count, u32 bytes) {
    return "\r\nTotal malloc mem: " + std::to_string(count) + "\r\nThis User malloc mem : " + std::to_string(bytes) +
           " (bytes)\r\n";
}

using MemReports = MemTracked;

} // namespace

TEST_F(MemReports, CountersAndPieces) {
    keep(5);
    keep(100);
    EXPECT_EQ(printed(QOSA_MemGetMemStatus),
              Pieces{"Current mem record cnt: 2\n\rMax mem record cnt: " + std::to_string(T.ulMaxCnt) +
                     "\n\rMax mem record limit : 200000\n\rUser malloc mem:   108 (Bytes)\n\r"});
    for (u32 n : {24u, 25u, 49u}) { // 24 records a piece
        while (blocks_.size() < n)
            keep(3);
        Pieces pieces = listing(0, 2);
        ASSERT_EQ(pieces.size(), (n + 23) / 24 + 1) << n << " blocks";
        for (u32 i = 0; i + 1 < pieces.size(); ++i)
            EXPECT_EQ(records(pieces[i]), std::min(24u, n - 24 * i));
        EXPECT_EQ(pieces.back(), totals(n, 8 + 100 + 4 * (n - 2)));
    }
}

TEST_F(MemReports, SortOrdersAndFilter) {
    const std::vector<u32> sizes = {700, 20, 5000, 1, 333, 64, 9000, 2};
    for (u32 s : sizes)
        keep(s, s % 2 ? "src/minikarbo_queue.c" : "/a/b/Other.c");
    auto listed = [](int sortMode, const char* filter = nullptr) {
        std::vector<u32> out;
        for (const QOSA_MEM_REC_S& r : qosa_test::tracked_records(filter, sortMode))
            out.push_back(r.ulSize);
        return out;
    };
    EXPECT_EQ(listed(1), (std::vector<u32>{1, 2, 20, 64, 333, 700, 5000, 9000}));
    EXPECT_EQ(listed(2), sizes) << "unsorted: in the order allocated";
    std::vector<void*> byAddr;
    for (u32 s : listed(0))
        byAddr.push_back(blocks_[std::find(sizes.begin(), sizes.end(), s) - sizes.begin()]);
    EXPECT_TRUE(byAddr.size() == 8 && std::is_sorted(byAddr.begin(), byAddr.end()));
    EXPECT_EQ(listed(1, "QUEUE"), (std::vector<u32>{1, 333})) << "any case";
    EXPECT_EQ(listing(0, 1)[0].substr(kHeader.size(), 20), "3        1          ") << "sorted by size";
    Pieces other = listing(1, 1, "other");
    EXPECT_EQ(other[0].substr(kHeader.size(), 20), "7        2          ") << "filtered and sorted by size";
    EXPECT_EQ(other.back(), totals(6, 700 + 20 + 5000 + 64 + 9000 + 4));
    EXPECT_EQ(listing(1, 0, "nomatch"), Pieces{totals(0, 0)}) << "no listing call for no record";
    EXPECT_EQ(listing(0, 0, "nomatch").back(), totals(8, 15128)) << "mode 0 takes no filter";
    EXPECT_EQ(listing(2, 0), Pieces{totals(0, 0)}) << "other modes list nothing";
}

TEST_F(MemReports, ScanAndSelfCheck) {
    u32 logged = T.ulErrCnt;
    keep(16);
    char* down = keep(5, "scan.c", QOSA_MEM_SD);
    char* lost = keep(7);
    down[5] = 0;
    lost[-8] ^= 0x7F; // the slot number in front of the block
    Pieces scan = printed(QOSA_MemGetMemScan);
    ASSERT_EQ(scan.size(), 1 + (logged + 23) / 24 + 1);
    EXPECT_TRUE(records(scan[0]) == 1 && scan[0].find(" scan.c                          SD    Down ") != scan[0].npos)
        << "the block whose slot number was overwritten is skipped";
    EXPECT_EQ(scan.back(), "\n\rCurrent mem exception record cnt:       " + std::to_string(1 + logged) +
                               "\n\rError info ID introduction:\n\r1: down overflow 2: up overflow 3: down/up overflow "
                               "4: release mem addr not from malloc 5: release local mem addr\n\r6: release err mem of "
                               "mem space 7: malloc erro size mem 8: malloc mem fail\n\r9: realloc err params\t  10: "
                               "search ReAlloc old buffer fail\n\r");
    EXPECT_EQ(MemSelfCheck(), 0);
    EXPECT_NE(listing(0, 2)[0].find(" Dyn    InvaidMem "), std::string::npos);
    down[5] = static_cast<char>(0xED);
    lost[-8] ^= 0x7F;
    QOSA_MEM_REC_S* none = nullptr;
    EXPECT_TRUE(sysMemScanErrMemInfo(&none) == 0 && none == nullptr) << "nothing damaged, no copy";
}

// The only test that writes files: the dumps go to /data, made here when missing.
TEST_F(MemReports, DumpFiles) {
    bool made = mkdir("/data", 0755) == 0;
    if (access("/data", W_OK) != 0) GTEST_SKIP() << "/data cannot be written";
    const char *recPath = "/data/mem_rec.txt", *oomPath = "/data/out_of_memery.txt";
    bool hadRec = access(recPath, F_OK) == 0;
    char* down = keep(5, "a/dump.c", QOSA_MEM_FIXED);
    keep(64);
    down[5] = 0; // found by the self-check run first
    sysMemLogMemErr(reinterpret_cast<void*>(0x1000), 3, "err.c", 9, 0, QOSA_MEM_NOT_FOUND);
    std::ofstream(recPath) << "stale";
    EXPECT_EQ(printed(QOSA_MemGetMemoryUseMonitor), Pieces{"Save to /data/mem_rec.txt"});
    std::string text = qosa_test::slurp(recPath), tid = std::to_string(static_cast<u32>(pthread_self())) + "\r\n";
    EXPECT_EQ(text.substr(0, text.find("-------ErrMem")),
              "\r\n-------MemInfo 2----\r\n" + kHeader +
                  "0        5          100   dump.c                          Fixed    Down      " + tid +
                  "1        64         101   report_unit.c                   Dyn    Good      " + tid + "\r\n")
        << "written afresh";
    EXPECT_NE(text.find("\r\n-------ErrMem " + std::to_string(T.ulErrCnt) + "----\r\n" + kHeader), std::string::npos);
    EXPECT_TRUE(text.ends_with("0        3          9     err.c                           Dyn    Nofound   0\r\n"))
        << "error records in the order made";

    std::remove(oomPath);
    EXPECT_EQ(QOSA_MemTypeMallocD(0xFFFFFFFFu, QOSA_MEM_DYN, 12, "x/oom.c"), nullptr);
    std::string oom = qosa_test::slurp(oomPath);
    EXPECT_NE(oom.find("-------MemInfo 2----"), oom.npos) << "the first failure dumps both tables";
    EXPECT_NE(oom.find("4294967295 12    oom.c                           Dyn    NoMem"), oom.npos);
    std::remove(oomPath);
    EXPECT_EQ(MemAllocMem("x/oom.c", 13, 0xFFFFFFF0u, 0), nullptr);
    EXPECT_NE(access(oomPath, F_OK), 0) << "and only the first";
    down[5] = static_cast<char>(0xED);
    if (!hadRec) std::remove(recPath);
    if (made) rmdir("/data");
}

TEST_F(MemTracked, BlocksEndAtTheirGuardPage) {
    auto* a = static_cast<char*>(QOSA_MemTypeMallocS(12, 0x1AB, QOSA_MEM_CACHE, 321, kFile));
    char* b = alloc(4089);
    auto* c = static_cast<char*>(MemAlignMem(kFile, __LINE__, 999, 100));
    ASSERT_TRUE(a && b && c) << "type 2 is served while tracking";
    EXPECT_TRUE(page_offset(a + 12) == 0 && page_offset(b + 4092) == 0 && page_offset(c + 128) == 0);
    EXPECT_EQ(T.ulUserMem, bytes_ + 12 + 4092 + 128) << "sizes rounded up to the alignment";
    EXPECT_TRUE(rec_of(a).ulType == QOSA_MEM_CACHE && rec_of(a).ulLine == 321 && rec_of(c).ulType == QOSA_MEM_ALN);
    EXPECT_EQ(std::string(a, 12), std::string(12, '\xAB'));
    EXPECT_EXIT(
        {
            signal(SIGSEGV, SIG_DFL); // not a sanitizer's handler
            static_cast<volatile char*>(a)[11] = 1;
            static_cast<volatile char*>(a)[12] = 1;
        },
        testing::KilledBySignal(SIGSEGV), "")
        << "the last byte is writable, the one past the end faults on the guard page";
    QOSA_MemTypeFreeD(a, QOSA_MEM_CACHE, __LINE__, kFile);
    std::memset(b, 0x5A, 4089);
    for (char* p : {b, c})
        EXPECT_EQ(release(p), 0u);
    char* zeroed = static_cast<char*>(MemCallocMem(kFile, __LINE__, 4089, 1)); // likely on the pages b left
    EXPECT_EQ(std::string(zeroed, 4089), std::string(4089, '\0'));
    EXPECT_EQ(release(zeroed), 0u);
    EXPECT_EQ(QOSA_MemTypeMallocD(0, QOSA_MEM_DYN, __LINE__, kFile), nullptr);
    const int refused[][2] = {{0, 4}, {-1, 4}, {4, 0}, {0x10000, 0x10000}}; // the last is 2^32
    for (const auto& r : refused)
        EXPECT_EQ(MemCallocMem(kFile, __LINE__, r[0], r[1]), nullptr) << r[0];
    EXPECT_EQ(T.ulErrCnt, errors_);
}

TEST_F(MemTracked, DamagedAndForeignBlocks) {
    const u32 damages[][4] = {{6, 1, 0, 2}, {4089, 0, 1, 1}, {5, 1, 1, 1}}; // size, head hit, tail hit, result
    for (const auto& [size, head, tail, result] : damages) {
        auto* q = static_cast<char*>(QOSA_MemTypeMallocD(size, QOSA_MEM_SD, 77, kFile));
        if (head) q[-1] ^= 1;
        if (tail) q[size] ^= 1; // an unaligned tail guard for 4089 and 5
        EXPECT_EQ(MemFreeMem("other.c", 1, q, 0), result) << size;
        const QOSA_MEM_REC_S& e = last_error(); // where it was allocated
        EXPECT_TRUE(e.pAddr == q && e.ulSize == size && e.ulStatus == result && e.ulLine == 77 &&
                    e.ulType == QOSA_MEM_SD && std::string(e.pFile) == "tracked_unit.c")
            << size;
        q[0] = 'y'; // kept allocated, but no longer live
        EXPECT_TRUE(release(q) == 0 && last_error().ulStatus == QOSA_MEM_NOT_FOUND);
    }
    char* p = alloc(32);
    u32 errors = T.ulErrCnt;
    EXPECT_EQ(MemFreeMem("/x/freeing.c", 55, p + 4, QOSA_MEM_IS), 0u);
    const QOSA_MEM_REC_S& f = last_error(); // where it was freed
    EXPECT_TRUE(T.ulErrCnt == errors + 1 && f.pAddr == p + 4 && f.ulLine == 55 && f.ulType == QOSA_MEM_IS &&
                std::string(f.pFile) == "freeing.c");
    // Nothing is mapped in front of a pointer at the start of a mapping.
    auto* pages = static_cast<char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_TRUE(pages != MAP_FAILED && munmap(pages, 4096) == 0);
    EXPECT_TRUE(release(pages + 4096) == 0 && last_error().pAddr == pages + 4096);
    munmap(pages + 4096, 4096);
    EXPECT_EQ(sysMemCheckUserAddr(p), &rec_of(p));
    EXPECT_EQ(release(p), 0u);
}

// Blocks starting at (or 4 bytes past) a page start keep their slot number on the page before.
TEST_F(MemTracked, SlotsReusedAndFoundAtPageEdges) {
    u32 used = 0;
    for (unsigned round = 0; round < 2; ++round) {
        std::vector<char*> blocks;
        for (u32 i = 0; i < 3000; ++i) {
            blocks.push_back(alloc(i % 3 == 0 ? 4096 : i % 3 == 1 ? 4089 : 8192));
            ASSERT_LT(page_offset(blocks.back()), 8u);
        }
        std::shuffle(blocks.begin(), blocks.end(), std::mt19937(round));
        for (char* p : blocks)
            ASSERT_EQ(release(p), 0u);
        EXPECT_TRUE(round == 0 || T.ulMaxCnt == used) << "freed slots are taken again";
        used = T.ulMaxCnt;
    }
    EXPECT_EQ(T.ulErrCnt, errors_) << "every block found again";
}

TEST_F(MemTracked, Reallocation) {
    char* p = alloc(16);
    char* shrunk = static_cast<char*>(MemReAllocMem(kFile, 11, p, 8));
    ASSERT_NE(shrunk, nullptr);
    EXPECT_TRUE(rec_of(shrunk).ulSize == 8 && rec_of(shrunk).ulLine == 11);
    char* grown = static_cast<char*>(MemReAllocMem(kFile, __LINE__, shrunk, 32));
    ASSERT_NE(grown, nullptr) << "the shrunk block's tail guard is intact";
    EXPECT_EQ(MemReAllocMem(kFile, __LINE__, grown, 0), nullptr) << "size 0 releases";
    void* fromEmpty = MemReAllocMem(kFile, __LINE__, MemReAllocMem(kFile, __LINE__, nullptr, 0), 16);
    EXPECT_NE(fromEmpty, nullptr) << "a block of 0 bytes, then nothing to copy is a successful copy";
    EXPECT_EQ(T.ulErrCnt, errors_);

    char* damaged = alloc(6);
    damaged[6] = 0;
    EXPECT_EQ(MemReAllocMem(kFile, __LINE__, damaged, 64), nullptr);
    char foreign[64] = {};
    EXPECT_EQ(MemReAllocMem("r/realloc.c", 99, foreign + 16, 0), nullptr);
    EXPECT_TRUE(last_error().pAddr == foreign + 16 && last_error().ulType == QOSA_MEM_DYN);
    EXPECT_EQ(release(fromEmpty), 0u);
    EXPECT_EQ(release(damaged), 1u) << "the old block stays (the new one went: see the counters)";
}

TEST_F(MemTracked, ConcurrentUseKeepsTheTableConsistent) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed)
        threads.emplace_back([&failures, seed] {
            std::mt19937 rng(seed);
            char* held[16] = {};
            for (int i = 0; i < 50000; ++i) {
                char*& slot = held[rng() % 16];
                if (slot == nullptr)
                    failures += (slot = alloc(rng() % 9000)) == nullptr;
                else
                    failures += release(std::exchange(slot, nullptr)) != 0;
            }
            for (char* p : held)
                failures += p != nullptr && release(p) != 0;
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(T.ulErrCnt, errors_);
}

// The statistics result arrays, released by the caller, are recorded under the statistics unit. One helper
// allocates every scan's array; that each is a tracked block is the fault sweep's finding.
TEST_F(MemTracked, StatisticsResultArraysNameTheirUnit) {
    u32 n = 0, total = 0, free = 0;
    QOSA_OS_PROC_INFO_S* memory = nullptr;
    ASSERT_EQ(QOSA_OS_GetMEMAllocRate(&total, &free, &n, &memory), 0u);
    const QOSA_MEM_REC_S* rec = sysMemCheckUserAddr(memory);
    EXPECT_STREQ(rec != nullptr ? rec->pFile : "not tracked", "os_run_config.c");
    QOSA_MemTypeFreeD(memory, QOSA_MEM_DYN, __LINE__, __FILE__);
}

// Fills the error table: keep this test last, later error records are dropped.
TEST_F(MemTracked, ErrorTableKeepsSixHundred) {
    while (T.ulErrCnt < 599)
        ASSERT_EQ(sysMemLogMemErr(nullptr, 1, "fill.c", 1, 0, QOSA_MEM_NOT_FOUND), 0);
    EXPECT_EQ(sysMemLogMemErr(nullptr, 2, "600th.c", 2, 0, QOSA_MEM_NOT_FOUND), 0);
    EXPECT_EQ(sysMemLogMemErr(nullptr, 3, "601st.c", 3, 0, QOSA_MEM_NOT_FOUND), 1);
    char plain[64] = {};
    EXPECT_EQ(release(plain + 16), 0u);
    void* copy = nullptr;
    ASSERT_EQ(sysMemGetErrMemLog(&copy), 600u);
    EXPECT_STREQ(static_cast<QOSA_MEM_REC_S*>(copy)[599].pFile, "600th.c");
    std::free(copy);
}
