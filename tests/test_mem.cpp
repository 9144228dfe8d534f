// Allocation with tracking off (never switched on here) and the report text helpers.
#include "internal/mem_switch.h"
#include "internal/mem_table.h"
#include "support.h"

namespace {
int s_prints = 0;
int count_print(char*, u32) { return ++s_prints; }
} // namespace

TEST(MemOff, PlainHeapBlocks) {
    EXPECT_EQ(QOSA_MemTypeMallocD(0, QOSA_MEM_DYN, __LINE__, __FILE__), nullptr);
    EXPECT_EQ(QOSA_MemTypeMallocD(16, QOSA_MEM_CACHE, __LINE__, __FILE__), nullptr) << "type 2 is refused";
    EXPECT_EQ(QOSA_MemAlignD(64, QOSA_MEM_DYN, __LINE__, __FILE__), nullptr);
    auto* filled = static_cast<char*>(QOSA_MemTypeMallocS(10, 0x1AB, QOSA_MEM_IS, __LINE__, __FILE__));
    ASSERT_NE(filled, nullptr) << "type 5 is served";
    EXPECT_EQ(std::string(filled, 10), std::string(10, '\xAB')) << "only the low byte of the fill counts";
    QOSA_MemTypeFreeD(filled, QOSA_MEM_IS, __LINE__, __FILE__);
    char* empty = QOSA_StrDupEx(nullptr, __LINE__, __FILE__); // a copy of text is the fault sweep's
    EXPECT_TRUE(empty != nullptr && QOSA_MemCmp(empty, "", 1) == 0) << "NULL copies as empty text";
    QOSA_MemTypeFreeD(empty, QOSA_MEM_DYN, __LINE__, __FILE__);
    char filter[] = "x";
    EXPECT_TRUE(QOSA_MemGetMemStatus(count_print) == 1 && QOSA_MemGetMemRec(0, 0, filter, count_print) == 1 &&
                QOSA_MemGetMemScan(count_print) == 1 && QOSA_MemGetMemoryUseMonitor(count_print) == 1);
    EXPECT_TRUE(s_prints == 0 && !qosa::mem::tracking());
    EXPECT_EQ(qosa::mem::g_MemMonitorRecord.ulMaxCnt, 0u) << "nothing reached the table";
}

TEST(MemReportText, SearchAppendAndRecordLines) {
    char text[] = "xAbC", bytes[] = "\xC3\xA9t\xC3\xA9";
    const std::pair<const char*, char*> cases[] = {{"", text},         {"bc", text + 2}, {"XABC", text},
                                                   {"xAbCd", nullptr}, {"ba", nullptr},  {"\xC3", nullptr}};
    for (auto [pattern, found] : cases)
        EXPECT_EQ(sysMemStrcasestr(text, pattern), found) << pattern;
    EXPECT_EQ(sysMemStrcasestr(bytes, "T\xC3\xA9"), bytes + 2) << "bytes above 127 compare as themselves";

    char buf[16] = "abc"; // the second takes exactly the room left
    EXPECT_EQ(sysMemLogStringCat(buf, sizeof buf, "%d-%s", 42, "x"), 4u);
    EXPECT_TRUE(sysMemLogStringCat(buf, sizeof buf, "%s", "1234567") == 7 && !sysMemLogStringCat(buf, sizeof buf, "z"));
    EXPECT_STREQ(buf, "abc42-x1234567");

    QOSA_MEM_REC_S recs[2] = {
        {nullptr, 8, 5, 0, 0x123456789ull, 3, QOSA_MEM_DOWN_OVERFLOW, QOSA_MEM_FIXED, 0, 42, "unit.c"},
        {nullptr, 0, 0, 0, 0, 0, 12, 6, 0, 0, nullptr}}; // no file, names beyond the tables
    char out[512];
    const std::string expected =
        "3        5          42    unit.c                          Fixed    Down      591751049\r\n"
        "0        0          0     (null)                          Unknown    Unknown   0\r\n";
    EXPECT_EQ(sysMemPrintMemInfo(0, out, sizeof out, recs, 2), expected.size()) << "no header";
    EXPECT_EQ(std::string(out), expected) << "the thread's low 32 bits";
    EXPECT_EQ(sysMemPrintMemInfo(1, out, 0, recs, 1) + sysMemPrintMemInfo(0, out, sizeof out, nullptr, 1), 0u);
}
