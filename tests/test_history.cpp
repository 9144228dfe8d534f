// The operate-history ring and its dump.
#include <sstream>

#include "support.h"

namespace {

const std::string kTitle = "Vaneth Operate History: \n            Time     Operate     Param1     Param2   Tid TName\n";
using Rows = std::vector<std::string>;

s32 add(s32 op, s32 time, u32 param1) {
    QOSA_OPERATE_REC_S r{op, time, 42, "worker", param1, 0xBEEF};
    return QOSA_AddOperateRec(&r);
}
// Dumps into a buffer of the given size; the rows below the title.
Rows dump(s32* result = nullptr, u32 size = 1 << 16) {
    std::string buf(size, 'x');
    s32 n = QOSA_DumpOperateHistory(buf.data(), size);
    if (result) *result = n;
    EXPECT_EQ(buf.rfind(kTitle, 0), 0u);
    Rows out;
    std::istringstream in(buf.c_str() + kTitle.size());
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

} // namespace

// Rows newest first, empty operations left out; the ring keeps the last 512, and a short buffer is filled.
TEST(QOSA_DumpOperateHistory, RowsNewestFirstOfTheLast512) {
    QOSA_InitOperateHistory();
    s32 length = 0;
    EXPECT_TRUE(dump(&length).empty() && length == static_cast<s32>(kTitle.size())) << length;
    EXPECT_EQ(add(1, 0, 0x12) | add(2, 9006199, 0xABCDEF01) | add(0, 5, 1) | add(7, 4567891, 3), 0); // op 0: not shown
    EXPECT_EQ(add(-1, 1, 4), 0);
    EXPECT_EQ(dump(), (Rows{"  0000:00:00(010)  undefined 0x00000004 0x0000beef    42 worker",
                            "  0012:41:18(910)  undefined 0x00000003 0x0000beef    42 worker",
                            "  0025:01:01(990)   DeleteTm 0xabcdef01 0x0000beef    42 worker",
                            "  0000:00:00(000)   CreateTm 0x00000012 0x0000beef    42 worker"}));

    for (u32 i = 1; i <= 513; ++i)
        add(1, 0, i);
    Rows all = dump();
    ASSERT_EQ(all.size(), 512u);
    EXPECT_TRUE(all.front().find("0x00000201") != std::string::npos &&
                all.back().find("0x00000002") != std::string::npos)
        << "newest (513th) first, oldest survivor (2nd) last";
    // Room for the title and half a row: the row is cut and reported.
    s32 result = 0;
    EXPECT_EQ(dump(&result, static_cast<u32>(kTitle.size() + 20)), Rows{all[0].substr(0, 19)});
    EXPECT_EQ(result, -1);
    // Exactly the title and one row: the walk stops at the full buffer.
    u32 oneRow = static_cast<u32>(kTitle.size() + all[0].size() + 2);
    EXPECT_EQ(dump(&result, oneRow), Rows{all[0]});
    EXPECT_EQ(result, static_cast<s32>(oneRow - 1));
}

TEST(QOSA_AddOperateRec, ConcurrentAddsNeverShareASlot) {
    for (int round = 0; round < 50; ++round) {
        QOSA_InitOperateHistory();
        std::vector<std::thread> threads;
        for (u32 t = 0; t < 4; ++t)
            threads.emplace_back([t] {
                for (u32 i = 0; i < 100; ++i)
                    add(1, 0, t * 100 + i);
            });
        for (auto& th : threads)
            th.join();
        ASSERT_EQ(dump().size(), 400u) << "each add in a slot of its own, round " << round;
    }
}
