// The memory reports with tracking on: counters, listings, sorting, filter, scan, self-check, dumps.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "internal/mem_table.h"
#include "qosa_mem.h"
#include "support.h"

namespace {

const auto& T = qosa::mem::g_MemMonitorRecord;
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

struct MemReports : ::testing::Test {
    void SetUp() override {
        QOSA_MemInitMemMange();
        ASSERT_EQ(T.ulCurCnt, 0u) << "the reports are checked against an empty table";
    }
    void TearDown() override {
        for (void* p : blocks_)
            EXPECT_EQ(MemFreeMem(__FILE__, __LINE__, p, 0), 0u);
    }
    char* keep(u32 size, const char* file = "test_mem_report.cpp", u32 type = QOSA_MEM_DYN) {
        auto* p = static_cast<char*>(QOSA_MemTypeMallocD(size, type, 100 + static_cast<u32>(blocks_.size()), file));
        blocks_.push_back(p);
        return p;
    }
    std::vector<void*> blocks_;
};

} // namespace

TEST_F(MemReports, CountersAndPieces) {
    EXPECT_EQ(listing(0, 0), Pieces{totals(0, 0)}) << "no listing call for an empty table";
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
        QOSA_MEM_REC_S* recs = nullptr;
        std::vector<u32> out;
        for (u32 i = 0, n = sysMemSortMemInfo(&recs, const_cast<char*>(filter), sortMode); i < n; ++i)
            out.push_back(recs[i].ulSize);
        std::free(recs);
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
    EXPECT_EQ(listing(1, 0, "nomatch"), Pieces{totals(0, 0)});
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
    struct stat st {};
    bool made = stat("/data", &st) != 0 && mkdir("/data", 0755) == 0;
    if (access("/data", W_OK) != 0) GTEST_SKIP() << "/data cannot be written";
    const char *recPath = "/data/mem_rec.txt", *oomPath = "/data/out_of_memery.txt";
    bool hadRec = access(recPath, F_OK) == 0;
    using qosa_test::slurp;
    char* down = keep(5, "a/dump.c", QOSA_MEM_FIXED);
    keep(64);
    down[5] = 0; // found by the self-check run first
    sysMemLogMemErr(reinterpret_cast<void*>(0x1000), 3, "err.c", 9, 0, QOSA_MEM_NOT_FOUND);
    std::ofstream(recPath) << "stale";
    EXPECT_EQ(printed(QOSA_MemGetMemoryUseMonitor), Pieces{"Save to /data/mem_rec.txt"});
    std::string text = slurp(recPath), tid = std::to_string(static_cast<u32>(pthread_self())) + "\r\n";
    EXPECT_EQ(text.substr(0, text.find("-------ErrMem")),
              "\r\n-------MemInfo 2----\r\n" + kHeader +
                  "0        5          100   dump.c                          Fixed    Down      " + tid +
                  "1        64         101   test_mem_report.cpp             Dyn    Good      " + tid + "\r\n")
        << "written afresh";
    EXPECT_NE(text.find("\r\n-------ErrMem " + std::to_string(T.ulErrCnt) + "----\r\n" + kHeader), std::string::npos);
    EXPECT_TRUE(text.ends_with("0        3          9     err.c                           Dyn    Nofound   0\r\n"))
        << "error records in the order made";

    std::remove(oomPath);
    EXPECT_EQ(QOSA_MemTypeMallocD(0xFFFFFFFFu, QOSA_MEM_DYN, 12, "x/oom.c"), nullptr);
    std::string oom = slurp(oomPath);
    EXPECT_NE(oom.find("-------MemInfo 2----"), oom.npos) << "the first failure dumps both tables";
    EXPECT_NE(oom.find("4294967295 12    oom.c                           Dyn    NoMem"), oom.npos);
    std::remove(oomPath);
    EXPECT_EQ(MemAllocMem("x/oom.c", 13, 0xFFFFFFF0u, 0), nullptr);
    EXPECT_NE(access(oomPath, F_OK), 0) << "and only the first";
    down[5] = static_cast<char>(0xED);
    if (!hadRec) std::remove(recPath);
    if (made) rmdir("/data");
}
