// The memory reports with tracking on: counters, listings, sorting, filter, scan, self-check, dumps.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "internal/mem_table.h"
#include "qosa_mem.h"

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
Pieces printed(u32 (*report)(QOSA_MemPrintProc)) {
    s_printed.clear();
    EXPECT_EQ(report(capture), 0u);
    return s_printed;
}
Pieces report(u32 mode, u32 sortMode, const char* filter = nullptr) {
    std::string f = filter ? filter : "";
    s_printed.clear();
    EXPECT_EQ(QOSA_MemGetMemRec(mode, sortMode, filter ? f.data() : nullptr, capture), 0u);
    return s_printed;
}
// The record lines of a listing piece, each cut into its columns:
// position, size, line, file, type, status, thread.
std::vector<std::vector<std::string>> rows(const std::string& piece) {
    EXPECT_EQ(piece.rfind(kHeader, 0), 0u) << "every piece starts with the header";
    std::vector<std::vector<std::string>> out;
    std::istringstream lines(piece.substr(kHeader.size()));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        out.emplace_back(std::istream_iterator<std::string>(words), std::istream_iterator<std::string>());
    }
    return out;
}
std::string totals(u32 count, u32 bytes) {
    return "\r\nTotal malloc mem: " + std::to_string(count) + "\r\nThis User malloc mem : " + std::to_string(bytes) +
           " (bytes)\r\n";
}

class MemReports : public ::testing::Test {
  protected:
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
    EXPECT_EQ(report(0, 0), Pieces{totals(0, 0)}) << "no listing call for an empty table";
    keep(5);
    keep(100);
    EXPECT_EQ(printed(QOSA_MemGetMemStatus),
              Pieces{"Current mem record cnt: 2\n\rMax mem record cnt: " + std::to_string(T.ulMaxCnt) +
                     "\n\rMax mem record limit : 200000\n\rUser malloc mem:   108 (Bytes)\n\r"});
    for (u32 n : {24u, 25u, 48u, 49u}) { // 24 records a piece
        while (blocks_.size() < n)
            keep(3);
        Pieces pieces = report(0, 2);
        ASSERT_EQ(pieces.size(), (n + 23) / 24 + 1) << n << " blocks";
        for (u32 i = 0; i + 1 < pieces.size(); ++i)
            EXPECT_EQ(rows(pieces[i]).size(), std::min(24u, n - 24 * i));
        EXPECT_EQ(pieces.back(), totals(n, 8 + 100 + 4 * (n - 2)));
    }
}

TEST_F(MemReports, SortOrdersAndFilter) {
    const u32 sizes[] = {700, 20, 5000, 1, 333, 64, 9000, 2};
    for (u32 s : sizes)
        keep(s, s % 2 ? "src/minikarbo_queue.c" : "/a/b/Other.c");
    auto listed = [](u32 sortMode, const char* filter = nullptr, u32 mode = 0) {
        std::vector<u32> out;
        Pieces pieces = report(mode, sortMode, filter);
        for (std::size_t i = 0; i + 1 < pieces.size(); ++i)
            for (const auto& r : rows(pieces[i]))
                out.push_back(static_cast<u32>(std::stoul(r[1])));
        return out;
    };
    EXPECT_EQ(listed(1), (std::vector<u32>{1, 2, 20, 64, 333, 700, 5000, 9000}));
    std::vector<void*> byAddr = blocks_;
    std::sort(byAddr.begin(), byAddr.end());
    std::vector<u32> expected;
    for (void* p : byAddr)
        expected.push_back(sizes[std::find(blocks_.begin(), blocks_.end(), p) - blocks_.begin()]);
    EXPECT_EQ(listed(0), expected);
    MemFreeMem(__FILE__, __LINE__, blocks_[1], 0); // the last live block takes its position
    blocks_.erase(blocks_.begin() + 1);
    EXPECT_EQ(listed(2), (std::vector<u32>{700, 2, 5000, 1, 333, 64, 9000}));

    EXPECT_EQ(listed(1, "QUEUE", 1), (std::vector<u32>{1, 333})) << "any case";
    EXPECT_EQ(report(1, 1, "QUEUE").back(), totals(2, 4 + 336));
    EXPECT_EQ(report(1, 0, "nomatch"), Pieces{totals(0, 0)});
    EXPECT_EQ(listed(0, "nomatch", 0).size(), 7u) << "mode 0 takes no filter";
    EXPECT_EQ(report(2, 0), Pieces{totals(0, 0)}) << "other modes list nothing";
}

TEST_F(MemReports, ScanAndSelfCheck) {
    u32 logged = T.ulErrCnt;
    keep(16);
    char* down = keep(5, "scan.c", QOSA_MEM_SD);
    char* lost = keep(7);
    down[5] = 0;
    u32 lostSlot = qosa::mem::word_at(lost - 8);
    lost[-8] ^= 0x7F; // the slot number in front of the block

    Pieces scan = printed(QOSA_MemGetMemScan);
    ASSERT_EQ(scan.size(), 1 + (logged + 23) / 24 + 1);
    auto damaged = rows(scan[0]);
    ASSERT_EQ(damaged.size(), 1u) << "the block whose slot number was overwritten is skipped";
    EXPECT_EQ(damaged[0][3] + " " + damaged[0][4] + " " + damaged[0][5], "scan.c SD Down");
    EXPECT_EQ(scan.back(), "\n\rCurrent mem exception record cnt:       " + std::to_string(1 + logged) +
                               "\n\rError info ID introduction:\n\r1: down overflow 2: up overflow 3: down/up overflow "
                               "4: release mem addr not from malloc 5: release local mem addr\n\r6: release err mem of "
                               "mem space 7: malloc erro size mem 8: malloc mem fail\n\r9: realloc err params\t  10: "
                               "search ReAlloc old buffer fail\n\r");

    EXPECT_EQ(MemSelfCheck(), 0);
    EXPECT_EQ(T.astRec[lostSlot].ulStatus, QOSA_MEM_INVALID_MEM);
    EXPECT_EQ(rows(report(0, 2)[0])[2][5], "InvaidMem");
    down[5] = static_cast<char>(0xED);
    lost[-8] ^= 0x7F;
}

// The only test that writes files: the dumps go to /data, made here when missing.
TEST_F(MemReports, DumpFiles) {
    struct stat st {};
    bool made = stat("/data", &st) != 0 && mkdir("/data", 0755) == 0;
    if (access("/data", W_OK) != 0) GTEST_SKIP() << "/data cannot be written";
    const char *recPath = "/data/mem_rec.txt", *oomPath = "/data/out_of_memery.txt";
    bool hadRec = access(recPath, F_OK) == 0;
    auto read = [](const char* path) {
        std::stringstream s;
        s << std::ifstream(path, std::ios::binary).rdbuf();
        return s.str();
    };
    auto line = [](u32 pos, u32 size, u32 line, const char* file, const char* type, const char* status, u32 tid) {
        char buf[256];
        std::snprintf(buf, sizeof buf, "%-7u  %-10u %-5u %-31s %s    %-9s %u\r\n", pos, size, line, file, type, status,
                      tid);
        return std::string(buf);
    };

    keep(5, "a/dump.c", QOSA_MEM_FIXED);
    keep(64);
    sysMemLogMemErr(reinterpret_cast<void*>(0x1000), 3, "err.c", 9, 0, QOSA_MEM_NOT_FOUND);
    std::ofstream(recPath) << "stale";
    EXPECT_EQ(printed(QOSA_MemGetMemoryUseMonitor), Pieces{"Save to /data/mem_rec.txt"});
    std::string text = read(recPath);
    auto tid = static_cast<u32>(pthread_self());
    EXPECT_EQ(text.substr(0, text.find("-------ErrMem")),
              "\r\n-------MemInfo 2----\r\n" + kHeader + line(0, 5, 100, "dump.c", "Fixed", "Good", tid) +
                  line(1, 64, 101, "test_mem_report.cpp", "Dyn", "Good", tid) + "\r\n")
        << "written afresh";
    EXPECT_NE(text.find("\r\n-------ErrMem " + std::to_string(T.ulErrCnt) + "----\r\n" + kHeader), std::string::npos);
    EXPECT_TRUE(text.ends_with(line(0, 3, 9, "err.c", "Dyn", "Nofound", 0))) << "error records in the order made";

    std::remove(oomPath);
    EXPECT_EQ(QOSA_MemTypeMallocD(0xFFFFFFFFu, QOSA_MEM_DYN, 12, "x/oom.c"), nullptr);
    const QOSA_MEM_REC_S& e = T.astErrRec[T.ulErrCnt - 1];
    EXPECT_TRUE(e.ulStatus == QOSA_MEM_NO_MEM && e.pAddr == nullptr && e.ulSize == 0xFFFFFFFFu);
    std::string oom = read(oomPath);
    EXPECT_TRUE(oom.find("-------MemInfo 2----") != oom.npos && oom.find("oom.c") != oom.npos)
        << "the first failure dumps both tables";
    std::remove(oomPath);
    EXPECT_EQ(MemAllocMem("x/oom.c", 13, 0xFFFFFFF0u, 0), nullptr);
    EXPECT_NE(access(oomPath, F_OK), 0) << "and only the first";

    if (!hadRec) std::remove(recPath);
    if (made) rmdir("/data");
}
