// The tracker with tracking on: layout, guards, error records, slots, realloc, threads.
#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "internal/mem_switch.h"
#include "internal/mem_table.h"
#include "qosa_file.h"
#include "qosa_mem.h"

using qosa::mem::word_at;

namespace {

const char kFile[] = "/src/deep/dir\\tracked_unit.c";
const auto& T = qosa::mem::g_MemMonitorRecord;
constexpr u32 kGuard = 0xABBADEEDu;

std::uintptr_t page_offset(const void* p) { return reinterpret_cast<std::uintptr_t>(p) % 4096; }
u32 slot_of(const void* p) { return word_at(static_cast<const char*>(p) - 8); }
const QOSA_MEM_REC_S& rec_of(const void* p) { return T.astRec[slot_of(p)]; }
const QOSA_MEM_REC_S& last_error() { return T.astErrRec[T.ulErrCnt - 1]; }
char* alloc(u32 size) { return static_cast<char*>(MemAllocMem(kFile, 0, size, QOSA_MEM_DYN)); }
u32 release(void* p) { return MemFreeMem(kFile, __LINE__, p, QOSA_MEM_DYN); }

class MemTracked : public ::testing::Test {
  protected:
    void SetUp() override {
        QOSA_MemInitMemMange();
        ASSERT_TRUE(qosa::mem::tracking());
        live_ = T.ulCurCnt, bytes_ = T.ulUserMem;
    }
    // Counters restored (so no block leaked or went twice); every used position
    // names a slot pointing back, live ones first.
    void TearDown() override {
        EXPECT_EQ(T.ulCurCnt, live_);
        EXPECT_EQ(T.ulUserMem, bytes_);
        for (u32 p = 0; p < T.ulMaxCnt; ++p) {
            const QOSA_MEM_REC_S& r = T.astRec[T.aulPosTab[p]];
            ASSERT_TRUE(r.ulPos == p && (r.pAddr != nullptr) == (p < T.ulCurCnt)) << "position " << p;
        }
    }
    u32 live_ = 0, bytes_ = 0;
};

} // namespace

TEST_F(MemTracked, BlockLayout) {
    char* a = static_cast<char*>(QOSA_MemTypeMallocD(12, QOSA_MEM_FIXED, 321, kFile));
    ASSERT_NE(a, nullptr);
    const QOSA_MEM_REC_S& ra = rec_of(a);
    EXPECT_EQ(page_offset(a), 4096u - 12) << "the data ends where the guard page starts";
    EXPECT_TRUE(static_cast<char*>(ra.pAddr) + 4096 - 12 == a && ra.ulHeadOffset == 4096 - 12 && ra.ulAlignSize == 12);
    EXPECT_TRUE(ra.ulType == QOSA_MEM_FIXED && ra.ulLine == 321 && ra.ulThread == static_cast<u64>(pthread_self()));
    EXPECT_EQ(ra.pFile, kFile + sizeof kFile - 15) << "points past the last separator of the caller's text";
    EXPECT_TRUE(word_at(a - 4) == kGuard && word_at(a + 12) == kGuard) << "the tail guard lies in the guard page";
    // Writing inside the block works, past its rounded end faults.
    pid_t child = fork();
    if (child == 0) {
        signal(SIGSEGV, SIG_DFL); // not the sanitizer's handler
        static_cast<volatile char*>(a)[11] = 1;
        static_cast<volatile char*>(a)[12] = 1;
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << "status " << status;

    char* b = alloc(4089);
    ASSERT_NE(b, nullptr);
    EXPECT_TRUE(rec_of(b).ulAlignSize == 4092 && rec_of(b).ulHeadOffset == 8192 - 4092 && page_offset(b + 4092) == 0);
    EXPECT_EQ(word_at(b + 4089), kGuard) << "unaligned, right after the requested size";

    char* c = static_cast<char*>(MemAlignMem(kFile, __LINE__, 999, 100));
    ASSERT_NE(c, nullptr);
    EXPECT_TRUE(page_offset(c) == 4096 - 128 && rec_of(c).ulType == QOSA_MEM_ALN);
    EXPECT_EQ(T.ulUserMem, bytes_ + 12 + 4092 + 128);
    for (char* p : {a, b, c})
        EXPECT_EQ(release(p), 0u);
}

TEST_F(MemTracked, DamagedAndForeignBlocks) {
    char* down = static_cast<char*>(QOSA_MemTypeMallocD(5, QOSA_MEM_SD, 77, kFile));
    ASSERT_NE(down, nullptr);
    down[5] = 'x';
    EXPECT_EQ(MemFreeMem("other.c", 1, down, 0), 1u);
    const QOSA_MEM_REC_S& e = last_error();
    EXPECT_TRUE(e.pAddr == down && e.ulSize == 5 && e.ulStatus == QOSA_MEM_DOWN_OVERFLOW);
    EXPECT_TRUE(e.ulLine == 77 && e.ulType == QOSA_MEM_SD && e.ulThread == 0) << "the allocation's position";
    EXPECT_STREQ(e.pFile, "tracked_unit.c");
    down[0] = 'y'; // kept allocated
    EXPECT_EQ(release(down), 0u) << "no longer live";
    EXPECT_EQ(last_error().ulStatus, QOSA_MEM_NOT_FOUND);

    for (u32 expected : {2u, 1u}) { // head only; both (the tail is tested first)
        char* q = alloc(6);
        q[-1] ^= 0x01;
        if (expected == 1) q[6] ^= 0x01;
        EXPECT_EQ(release(q), expected);
    }

    char* p = alloc(32);
    u32 errors = T.ulErrCnt;
    EXPECT_EQ(MemFreeMem("/x/freeing.c", 55, p + 4, QOSA_MEM_IS), 0u);
    ASSERT_EQ(T.ulErrCnt, errors + 1);
    const QOSA_MEM_REC_S& f = last_error();
    EXPECT_TRUE(f.pAddr == p + 4 && f.ulSize == 0 && f.ulLine == 55 && f.ulType == QOSA_MEM_IS);
    EXPECT_STREQ(f.pFile, "freeing.c") << "the freeing call's position";
    QOSA_MemTypeFreeD(nullptr, QOSA_MEM_DYN, __LINE__, kFile);
    EXPECT_EQ(T.ulErrCnt, errors + 1) << "NULL is no error";

    // A pointer at the start of a mapping: nothing is mapped in front of it.
    auto* pages = static_cast<char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(munmap(pages, 4096), 0);
    errno = 0;
    EXPECT_TRUE(release(pages + 4096) == 0 && last_error().pAddr == pages + 4096 && errno == 0);
    munmap(pages + 4096, 4096);

    EXPECT_EQ(sysMemCheckUserAddr(p), &rec_of(p));
    EXPECT_EQ(release(p), 0u);
}

TEST_F(MemTracked, SlotsReusedMostRecentFirstAndFoundAtPageEdges) {
    char *a = alloc(10), *b = alloc(20), *c = alloc(30);
    u32 slotA = slot_of(a), slotB = slot_of(b);
    release(a);
    release(b);
    char *d = alloc(40), *e = alloc(50);
    EXPECT_TRUE(slot_of(d) == slotB && slot_of(e) == slotA);
    for (char* p : {c, d, e})
        EXPECT_EQ(release(p), 0u);

    // Blocks starting at (or 4 bytes past) a page start keep their slot number on the page before.
    std::vector<char*> blocks;
    for (u32 i = 0; i < 3000; ++i) {
        blocks.push_back(alloc(i % 3 == 0 ? 4096 : i % 3 == 1 ? 4089 : 8192));
        ASSERT_LT(page_offset(blocks.back()), 8u);
    }
    std::shuffle(blocks.begin(), blocks.end(), std::mt19937(5));
    for (char* p : blocks)
        ASSERT_EQ(release(p), 0u);
}

TEST_F(MemTracked, FrontEndAndCalloc) {
    EXPECT_EQ(QOSA_MemTypeMallocD(0, QOSA_MEM_DYN, __LINE__, kFile), nullptr);
    auto* cache = static_cast<char*>(QOSA_MemTypeMallocS(16, 0x1AB, QOSA_MEM_CACHE, __LINE__, kFile));
    ASSERT_NE(cache, nullptr) << "type 2 is served while tracking";
    EXPECT_TRUE(cache[15] == '\xAB' && word_at(cache + 16) == kGuard) << "the fill stops at the requested size";
    QOSA_MemTypeFreeD(cache, QOSA_MEM_CACHE, __LINE__, kFile);

    char* dup = QOSA_StrDupEx(nullptr, 888, "callers/place.c");
    ASSERT_NE(dup, nullptr);
    EXPECT_TRUE(rec_of(dup).ulSize == 1 && rec_of(dup).ulLine == 888 && *dup == '\0');
    EXPECT_STREQ(rec_of(dup).pFile, "place.c");
    QOSA_MemTypeFreeD(dup, QOSA_MEM_DYN, __LINE__, kFile);

    const int refused[][2] = {{0, 4}, {-1, 4}, {0x10000, 0x10000}}; // the last is 2^32
    for (const auto& r : refused)
        EXPECT_EQ(MemCallocMem(kFile, __LINE__, r[0], r[1]), nullptr) << r[0];
    auto* zeroed = static_cast<char*>(MemCallocMem(kFile, __LINE__, 3, 4));
    ASSERT_NE(zeroed, nullptr);
    EXPECT_EQ(rec_of(zeroed).ulSize, 12u);
    EXPECT_EQ(std::string(zeroed, 12), std::string(12, '\0'));
    EXPECT_EQ(release(zeroed), 0u);
}

TEST_F(MemTracked, Reallocation) {
    const char bytes[] = "\1\2\3\4\5\6\7\10\11\12\13\14\15\16\17\20";
    char* p = alloc(16);
    std::memcpy(p, bytes, 16);
    char* shrunk = static_cast<char*>(MemReAllocMem(kFile, 11, p, 8));
    ASSERT_NE(shrunk, nullptr);
    EXPECT_TRUE(rec_of(shrunk).ulSize == 8 && rec_of(shrunk).ulLine == 11 && word_at(shrunk + 8) == kGuard);
    EXPECT_EQ(std::memcmp(shrunk, bytes, 8), 0);

    char* grown = static_cast<char*>(MemReAllocMem(kFile, __LINE__, shrunk, 32));
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(std::memcmp(grown, bytes, 8), 0);
    EXPECT_EQ(MemReAllocMem(kFile, __LINE__, grown, 0), nullptr) << "size 0 releases";

    void* empty = MemReAllocMem(kFile, __LINE__, nullptr, 0);
    ASSERT_NE(empty, nullptr);
    void* fromEmpty = MemReAllocMem(kFile, __LINE__, empty, 16);
    EXPECT_NE(fromEmpty, nullptr) << "nothing to copy is a successful copy";

    char* damaged = alloc(6);
    damaged[6] = 0;
    u32 live = T.ulCurCnt;
    EXPECT_EQ(MemReAllocMem(kFile, __LINE__, damaged, 64), nullptr);
    EXPECT_EQ(T.ulCurCnt, live) << "the old block stays, the new one goes";
    damaged[6] = static_cast<char>(0xED); // the guard word's first byte: repaired

    char foreign[64] = {};
    EXPECT_EQ(MemReAllocMem("r/realloc.c", 99, foreign + 16, 0), nullptr);
    EXPECT_TRUE(last_error().pAddr == foreign + 16 && last_error().ulType == QOSA_MEM_DYN);
    EXPECT_TRUE(release(fromEmpty) == 0 && release(damaged) == 0);
}

TEST_F(MemTracked, ConcurrentUseKeepsTheTableConsistent) {
    u32 errors = T.ulErrCnt;
    std::atomic<int> failures{0};
    auto worker = [&](unsigned seed) {
        std::mt19937 rng(seed);
        char* held[16] = {};
        for (int i = 0; i < 50000; ++i) {
            char*& slot = held[rng() % 16];
            if (slot != nullptr) {
                failures += release(slot) != 0;
                slot = nullptr;
            } else if (u32 size = rng() % 9000; (slot = alloc(size)) == nullptr) {
                ++failures;
            } else if (size != 0) {
                slot[size - 1] = 1;
            }
        }
        for (char* p : held)
            failures += p != nullptr && release(p) != 0;
    };
    std::vector<std::thread> threads;
    for (unsigned s = 1; s <= 4; ++s)
        threads.emplace_back(worker, s);
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(T.ulErrCnt, errors);
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

// Library calls that take memory for themselves give it all back, and a
// directory listing (the platform's malloc) is released without an error record.
TEST_F(MemTracked, PathUtilitiesLeaveNothingBehind) {
    char dir[] = "/tmp/qosa-tracked-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    u32 errors = T.ulErrCnt;
    std::string nested = std::string(dir) + "/a//b\\c/";
    EXPECT_EQ(QOSA_MkDir_P(nested.c_str(), 0700), 0);
    char out[PATH_MAX + 1];
    EXPECT_EQ(QOSA_RelPath((std::string(dir) + "/a/b/../b/c").c_str(), out, sizeof out), 0);
    struct dirent** list = nullptr;
    int n = QOSA_ScanDir(dir, &list, nullptr, QOSA_Alphasort);
    ASSERT_GE(n, 3); // ".", "..", "a"
    QOSA_DestoryNameList(list, static_cast<u32>(n));
    EXPECT_EQ(T.ulErrCnt, errors);
    std::string rm = std::string("rm -rf ") + dir;
    EXPECT_EQ(std::system(rm.c_str()), 0);
}
