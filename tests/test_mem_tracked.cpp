// The tracker with tracking switched on: block layout, guard checks, error
// records, slot reuse, reallocation and concurrent use of the table.
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
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "internal/mem_switch.h"
#include "internal/mem_table.h"
#include "qosa_mem.h"

using qosa::mem::g_MemMonitorRecord;
using qosa::mem::word_at;

namespace {

const char kFile[] = "/src/deep/dir\\tracked_unit.c";
const auto& T = g_MemMonitorRecord;

std::uintptr_t page_offset(const void* p) { return reinterpret_cast<std::uintptr_t>(p) % 4096; }
u32 slot_of(const void* p) { return word_at(static_cast<const char*>(p) - 8); }
const QOSA_MEM_REC_S& rec_of(const void* p) { return T.astRec[slot_of(p)]; }
const QOSA_MEM_REC_S& last_error() { return T.astErrRec[T.ulErrCnt - 1]; }
char* alloc(u32 size, u32 line = 0) { return static_cast<char*>(MemAllocMem(kFile, line, size, QOSA_MEM_DYN)); }
u32 release(void* p) { return MemFreeMem(kFile, __LINE__, p, QOSA_MEM_DYN); }

class MemTracked : public ::testing::Test {
  protected:
    void SetUp() override {
        QOSA_MemInitMemMange();
        ASSERT_TRUE(qosa::mem::tracking());
        live_ = T.ulCurCnt;
        bytes_ = T.ulUserMem;
    }
    // Counters back where they were, and every used position names a slot
    // whose record points back to it (live ones hold a block, the rest not).
    void TearDown() override {
        EXPECT_EQ(T.ulCurCnt, live_);
        EXPECT_EQ(T.ulUserMem, bytes_);
        for (u32 p = 0; p < T.ulMaxCnt; ++p) {
            const QOSA_MEM_REC_S& r = T.astRec[T.aulPosTab[p]];
            ASSERT_EQ(r.ulPos, p);
            ASSERT_EQ(r.pAddr != nullptr, p < T.ulCurCnt) << "position " << p;
        }
    }
    u32 live_ = 0, bytes_ = 0;
};

} // namespace

TEST_F(MemTracked, BlockLayout) {
    char* a = static_cast<char*>(QOSA_MemTypeMallocD(12, QOSA_MEM_FIXED, 321, kFile));
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(page_offset(a), 4096u - 12) << "the data ends where the guard page starts";
    const QOSA_MEM_REC_S& ra = rec_of(a);
    EXPECT_EQ(static_cast<char*>(ra.pAddr) + 4096 - 12, a);
    EXPECT_EQ(ra.ulHeadOffset, 4096u - 12);
    EXPECT_EQ(ra.ulAlignSize, 12u);
    EXPECT_EQ(ra.ulType, QOSA_MEM_FIXED);
    EXPECT_EQ(ra.ulLine, 321u);
    EXPECT_EQ(ra.pFile, kFile + sizeof kFile - 15) << "points past the last separator of the caller's text";
    EXPECT_EQ(ra.ulThread, static_cast<u64>(pthread_self()));
    EXPECT_EQ(word_at(a - 4), 0xABBADEEDu);
    EXPECT_EQ(word_at(a + 12), 0xABBADEEDu) << "the tail guard lies in the guard page";

    char* b = alloc(4089);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(rec_of(b).ulAlignSize, 4092u);
    EXPECT_EQ(rec_of(b).ulHeadOffset, 8192u - 4092);
    EXPECT_EQ(page_offset(b + 4092), 0u);
    EXPECT_EQ(word_at(b + 4089), 0xABBADEEDu) << "unaligned, right after the requested size";

    char* c = static_cast<char*>(MemAlignMem(kFile, __LINE__, 999, 100));
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(page_offset(c), 4096u - 128);
    EXPECT_EQ(rec_of(c).ulType, QOSA_MEM_ALN);
    EXPECT_EQ(T.ulUserMem, bytes_ + 12 + 4092 + 128);
    for (char* p : {a, b, c})
        EXPECT_EQ(release(p), 0u);
}

TEST_F(MemTracked, WritePastTheRoundedEndFaults) {
    auto* p = static_cast<volatile char*>(alloc(12));
    ASSERT_NE(p, nullptr);
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        signal(SIGSEGV, SIG_DFL); // not the sanitizer's handler
        p[11] = 1;
        p[12] = 1;
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << "status " << status;
    EXPECT_EQ(release(const_cast<char*>(p)), 0u);
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

    char* up = alloc(6);
    up[-1] ^= 0x01;
    EXPECT_EQ(release(up), 2u);
    char* both = alloc(6);
    both[-1] ^= 0x01;
    both[6] ^= 0x01;
    EXPECT_EQ(release(both), 1u) << "the tail is tested first";

    char* p = alloc(32);
    u32 errors = T.ulErrCnt;
    EXPECT_EQ(MemFreeMem("/x/freeing.c", 55, p + 4, QOSA_MEM_IS), 0u);
    ASSERT_EQ(T.ulErrCnt, errors + 1);
    EXPECT_TRUE(last_error().pAddr == p + 4 && last_error().ulSize == 0 && last_error().ulLine == 55);
    EXPECT_EQ(last_error().ulType, QOSA_MEM_IS);
    EXPECT_STREQ(last_error().pFile, "freeing.c") << "the freeing call's position";
    QOSA_MemTypeFreeD(nullptr, QOSA_MEM_DYN, __LINE__, kFile);
    EXPECT_EQ(T.ulErrCnt, errors + 1) << "NULL is no error";

    // A pointer at the start of a mapping: nothing is mapped in front of it.
    auto* pages = static_cast<char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(munmap(pages, 4096), 0);
    errno = 0;
    EXPECT_EQ(release(pages + 4096), 0u);
    EXPECT_EQ(last_error().pAddr, pages + 4096);
    EXPECT_EQ(errno, 0);
    munmap(pages + 4096, 4096);

    EXPECT_EQ(sysMemCheckUserAddr(p), &rec_of(p));
    EXPECT_EQ(release(p), 0u);
}

TEST_F(MemTracked, FreedSlotsAreReusedMostRecentFirst) {
    char *a = alloc(10), *b = alloc(20), *c = alloc(30);
    u32 slotA = slot_of(a), slotB = slot_of(b);
    EXPECT_EQ(release(a), 0u);
    char* d = alloc(40);
    EXPECT_EQ(slot_of(d), slotA);
    EXPECT_EQ(release(d), 0u);
    EXPECT_EQ(release(b), 0u);
    char* e = alloc(50);
    EXPECT_EQ(slot_of(e), slotB);
    for (char* p : {c, e})
        EXPECT_EQ(release(p), 0u);
}

TEST_F(MemTracked, ManyBlocksStartingAtAPageEdge) {
    // Sizes whose caller's pointer is at (or 4 bytes past) a page start: their
    // slot number lies on the page before.
    std::vector<char*> blocks;
    for (u32 i = 0; i < 3000; ++i) {
        blocks.push_back(alloc(i % 3 == 0 ? 4096 : i % 3 == 1 ? 4089 : 8192));
        ASSERT_LT(page_offset(blocks.back()), 8u);
    }
    std::shuffle(blocks.begin(), blocks.end(), std::mt19937(5));
    for (char* p : blocks)
        ASSERT_EQ(release(p), 0u) << "every one found again, whatever the order of release";
}

TEST_F(MemTracked, FrontEndAndCalloc) {
    EXPECT_EQ(QOSA_MemTypeMallocD(0, QOSA_MEM_DYN, __LINE__, kFile), nullptr);
    void* cache = QOSA_MemTypeMallocS(16, 0x1AB, QOSA_MEM_CACHE, __LINE__, kFile);
    ASSERT_NE(cache, nullptr) << "type 2 is served while tracking";
    EXPECT_EQ(static_cast<unsigned char*>(cache)[15], 0xAB);
    EXPECT_EQ(word_at(static_cast<char*>(cache) + 16), 0xABBADEEDu) << "the fill stops at the requested size";
    QOSA_MemTypeFreeD(cache, QOSA_MEM_CACHE, __LINE__, kFile);

    char* dup = QOSA_StrDupEx(nullptr, 888, "callers/place.c");
    ASSERT_NE(dup, nullptr);
    EXPECT_TRUE(rec_of(dup).ulSize == 1 && rec_of(dup).ulLine == 888 && *dup == '\0');
    EXPECT_STREQ(rec_of(dup).pFile, "place.c");
    QOSA_MemTypeFreeD(dup, QOSA_MEM_DYN, __LINE__, kFile);

    EXPECT_EQ(MemCallocMem(kFile, __LINE__, 0, 4), nullptr);
    EXPECT_EQ(MemCallocMem(kFile, __LINE__, -1, 4), nullptr);
    EXPECT_EQ(MemCallocMem(kFile, __LINE__, 0x10000, 0x10000), nullptr) << "2^32 does not fit";
    auto* zeroed = static_cast<unsigned char*>(MemCallocMem(kFile, __LINE__, 3, 4));
    ASSERT_NE(zeroed, nullptr);
    EXPECT_EQ(rec_of(zeroed).ulSize, 12u);
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(zeroed[i], 0);
    EXPECT_EQ(release(zeroed), 0u);
}

TEST_F(MemTracked, Reallocation) {
    auto make16 = [] {
        char* p = alloc(16);
        for (int i = 0; i < 16; ++i)
            p[i] = static_cast<char>(i + 1);
        return p;
    };
    char* p = make16();
    u32 oldSlot = slot_of(p);
    char* shrunk = static_cast<char*>(MemReAllocMem(kFile, 11, p, 8));
    ASSERT_NE(shrunk, nullptr);
    EXPECT_EQ(T.astRec[oldSlot].pAddr, nullptr) << "the old block is released";
    EXPECT_TRUE(rec_of(shrunk).ulSize == 8 && rec_of(shrunk).ulLine == 11);
    EXPECT_EQ(std::memcmp(shrunk, "\1\2\3\4\5\6\7\10", 8), 0);
    EXPECT_EQ(word_at(shrunk + 8), 0xABBADEEDu);

    char* grown = static_cast<char*>(MemReAllocMem(kFile, __LINE__, make16(), 32));
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(std::memcmp(grown, "\1\2\3\4\5\6\7\10\11\12\13\14\15\16\17\20", 16), 0);
    u32 live = T.ulCurCnt;
    EXPECT_EQ(MemReAllocMem(kFile, __LINE__, grown, 0), nullptr);
    EXPECT_EQ(T.ulCurCnt, live - 1) << "size 0 releases";

    void* empty = MemReAllocMem(kFile, __LINE__, nullptr, 0);
    ASSERT_NE(empty, nullptr);
    void* fromEmpty = MemReAllocMem(kFile, __LINE__, empty, 16);
    EXPECT_NE(fromEmpty, nullptr) << "nothing to copy is a successful copy";

    char* damaged = alloc(6);
    damaged[6] = 0;
    live = T.ulCurCnt;
    EXPECT_EQ(MemReAllocMem(kFile, __LINE__, damaged, 64), nullptr);
    EXPECT_EQ(T.ulCurCnt, live) << "the old block stays, the new one goes";
    damaged[6] = static_cast<char>(0xED); // the guard word's first byte: repaired

    char foreign[64] = {};
    EXPECT_EQ(MemReAllocMem("r/realloc.c", 99, foreign + 16, 0), nullptr);
    EXPECT_TRUE(last_error().pAddr == foreign + 16 && last_error().ulType == QOSA_MEM_DYN);
    for (void* q : {static_cast<void*>(shrunk), fromEmpty, static_cast<void*>(damaged)})
        EXPECT_EQ(release(q), 0u);
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
                continue;
            }
            u32 size = rng() % 9000;
            slot = alloc(size);
            if (slot == nullptr) ++failures;
            if (slot != nullptr && size != 0) slot[size - 1] = 1;
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
    EXPECT_EQ(T.ulErrCnt, 600u);
    void* copy = nullptr;
    ASSERT_EQ(sysMemGetErrMemLog(&copy), 600u);
    EXPECT_STREQ(static_cast<QOSA_MEM_REC_S*>(copy)[599].pFile, "600th.c");
    std::free(copy);
}
