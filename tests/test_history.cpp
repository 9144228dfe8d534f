// The operate-history ring and its dump.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qosa_history.h"

namespace {

QOSA_OPERATE_REC_S rec(s32 op, s32 time, u32 p1, const char* name = "worker") {
    QOSA_OPERATE_REC_S r{};
    r.operate = op;
    r.time = time;
    r.tid = 42;
    std::strncpy(r.tname, name, sizeof r.tname - 1);
    r.param1 = p1;
    r.param2 = 0xBEEF;
    return r;
}

const std::string kTitle = "Vaneth Operate History: \n            Time     Operate     Param1     Param2   Tid TName\n";

std::vector<std::string> rows(const std::string& dump) {
    std::vector<std::string> out;
    std::istringstream in(dump.substr(kTitle.size()));
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

struct History : ::testing::Test {
    void SetUp() override { QOSA_InitOperateHistory(); }
    std::string dump(u32 size = 1 << 16) {
        std::string buf(size, 'x');
        last = QOSA_DumpOperateHistory(buf.data(), size);
        return buf.c_str();
    }
    s32 last = 0;
};

} // namespace

TEST_F(History, EmptyRingDumpsTheTitleAlone) {
    EXPECT_EQ(dump(), kTitle);
    EXPECT_EQ(last, static_cast<s32>(kTitle.size()));
}

TEST_F(History, RowsShowTimeNameAndParameters) {
    auto a = rec(1, 0, 0x12);
    auto b = rec(2, 9006199, 0xABCDEF01);
    auto c = rec(7, 4567891, 3);
    auto d = rec(-1, 1, 4);
    for (auto* r : {&a, &b, &c, &d})
        EXPECT_EQ(QOSA_AddOperateRec(r), 0);
    auto r = rows(dump());
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(r[0], "  0000:00:00(010)  undefined 0x00000004 0x0000beef    42 worker");
    EXPECT_EQ(r[1], "  0012:41:18(910)  undefined 0x00000003 0x0000beef    42 worker");
    EXPECT_EQ(r[2], "  0025:01:01(990)   DeleteTm 0xabcdef01 0x0000beef    42 worker");
    EXPECT_EQ(r[3], "  0000:00:00(000)   CreateTm 0x00000012 0x0000beef    42 worker");
}

TEST_F(History, EmptyOperationIsStoredButNotShown) {
    auto none = rec(0, 5, 1);
    auto one = rec(1, 5, 2);
    QOSA_AddOperateRec(&one);
    QOSA_AddOperateRec(&none);
    EXPECT_EQ(s_stOperateHistory.lNext, 2);
    EXPECT_EQ(rows(dump()).size(), 1u);
}

TEST_F(History, RingWrapsAfter512) {
    for (u32 i = 1; i <= 513; ++i) {
        auto r = rec(1, 0, i);
        QOSA_AddOperateRec(&r);
    }
    EXPECT_EQ(s_stOperateHistory.lNext, 1);
    EXPECT_EQ(s_stOperateHistory.astRec[0].param1, 513u);
    auto r = rows(dump());
    ASSERT_EQ(r.size(), 512u);
    EXPECT_NE(r.front().find("0x00000201"), std::string::npos) << "newest (513th) first";
    EXPECT_NE(r.back().find("0x00000002"), std::string::npos) << "oldest survivor (2nd) last";
}

TEST_F(History, SmallBuffers) {
    EXPECT_NE(QOSA_DumpOperateHistory(nullptr, 64), 0) << "the clearing fails first";
    std::string tiny(10, 'x');
    EXPECT_LE(QOSA_DumpOperateHistory(tiny.data(), 10), 0) << "the title does not fit";
    for (int i = 0; i < 3; ++i) {
        auto r = rec(1, i, i);
        QOSA_AddOperateRec(&r);
    }
    // Room for the title and half a row: the row is cut and reported.
    u32 size = static_cast<u32>(kTitle.size() + 20);
    std::string buf(size, 'x');
    EXPECT_EQ(QOSA_DumpOperateHistory(buf.data(), size), -1);
    EXPECT_EQ(std::strlen(buf.c_str()), size - 1u);
    // Exactly the title and one row: the walk stops at the full buffer.
    std::string full = dump();
    u32 oneRow = static_cast<u32>(full.find('\n', kTitle.size()) + 2);
    std::string b2(oneRow, 'x');
    EXPECT_EQ(QOSA_DumpOperateHistory(b2.data(), oneRow), static_cast<s32>(oneRow - 1));
}

TEST_F(History, NullRecordClearsTheSlotAndAdvances) {
    auto r = rec(1, 0, 1);
    QOSA_AddOperateRec(&r);
    s_stOperateHistory.lNext = 0;
    EXPECT_NE(QOSA_AddOperateRec(nullptr), 0);
    EXPECT_EQ(s_stOperateHistory.astRec[0].operate, 0);
    EXPECT_EQ(s_stOperateHistory.lNext, 1);
}

TEST_F(History, ConcurrentAddsNeverShareASlot) {
    std::vector<std::thread> threads;
    for (u32 t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (u32 i = 0; i < 100; ++i) {
                auto r = rec(1, 0, t * 1000 + i);
                QOSA_AddOperateRec(&r);
            }
        });
    for (auto& th : threads)
        th.join();
    std::vector<int> seen(4000, 0);
    for (const auto& r : s_stOperateHistory.astRec)
        if (r.operate) ++seen[r.param1];
    int total = 0;
    for (int s : seen) {
        EXPECT_LE(s, 1);
        total += s;
    }
    EXPECT_EQ(total, 400);
    EXPECT_EQ(s_stOperateHistory.lNext, 400);
}
