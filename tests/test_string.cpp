// String utilities: case conversion, number parsing and formatting.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "qosa_error.h"
#include "qosa_string.h"

TEST(String, LengthAndForwarders) {
    EXPECT_EQ(QOSA_StrLen(nullptr), 0u);
    EXPECT_EQ(QOSA_StrLen("abc"), 3u);
    EXPECT_LT(QOSA_StrCmp("a", "b"), 0);
    EXPECT_EQ(QOSA_StriCmp("HeLLo", "hello"), 0);
    EXPECT_EQ(QOSA_StriNCmp("HeLLo!", "hello?", 5), 0);
    EXPECT_EQ(QOSA_StrNCmp("abcX", "abcY", 3), 0);
    EXPECT_EQ(QOSA_StrNCmp("abcX", "abcY", 0x80000000u), -1) << "the count is not taken as negative";
    const char* s = "a/b/c";
    EXPECT_EQ(QOSA_StrChr(s, '/'), s + 1);
    EXPECT_EQ(QOSA_StrrChr(s, '/'), s + 3);
    EXPECT_EQ(QOSA_StrStr(s, "b/"), s + 2);
    EXPECT_EQ(QOSA_StrToInt("-17x"), -17);
    EXPECT_FLOAT_EQ(QOSA_StrToFloat("2.5"), 2.5f);
    EXPECT_EQ(QOSA_Strtoul("ff", nullptr, 16), 255ul);
}

TEST(String, CaseConversion) {
    char t[] = "abc1";
    EXPECT_EQ(QOSA_StrToUper(t), t);
    EXPECT_STREQ(t, "ABC1");
    EXPECT_STREQ(QOSA_StrToLower(t), "abc1");
    char empty[] = "";
    EXPECT_EQ(QOSA_StrToUper(empty), empty);
    EXPECT_EQ(QOSA_StrToLower(nullptr), nullptr);
    EXPECT_EQ(QOSA_CharToUpper('q'), 'Q');
    EXPECT_EQ(QOSA_CharToLower('Q'), 'q');
    EXPECT_EQ(QOSA_CharToLower(0x141), 0x41) << "results are cut to a signed char";
}

TEST(String, StrToInt32) {
    s32 v = 5;
    EXPECT_EQ(QOSA_StrToInt32("0x1F", &v), 0u);
    EXPECT_EQ(v, 31);
    EXPECT_EQ(QOSA_StrToInt32("010", &v), 0u);
    EXPECT_EQ(v, 8);
    EXPECT_EQ(QOSA_StrToInt32("abc", &v), 1u);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(QOSA_StrToInt32("12abc", &v), 0u);
    EXPECT_EQ(v, 12);
    EXPECT_EQ(QOSA_StrToInt32("99999999999999999999", &v), 1u);
    EXPECT_EQ(v, -1);
    EXPECT_EQ(QOSA_GetLastErr(), 0u) << "a failure clears the last error";
    EXPECT_EQ(QOSA_StrToInt32("4294967297", &v), 0u) << "inside 64 bits: the low 32 bits";
    EXPECT_EQ(v, 1);
    EXPECT_EQ(QOSA_StrToInt32("-2147483648", &v), 0u);
    EXPECT_EQ(v, INT_MIN);
    QOSA_SetLastErr(ERANGE);
    EXPECT_EQ(QOSA_StrToInt32("7", &v), 0u) << "a stale range error does not fail a good conversion";
    EXPECT_EQ(v, 7);
    EXPECT_EQ(QOSA_StrToInt32(nullptr, &v), 1u);
    EXPECT_EQ(QOSA_StrToInt32("1", nullptr), 1u);
}

TEST(String, IntAndFloatTexts) {
    char b[11];
    EXPECT_STREQ(QOSA_IntToStr(2147483647, b), "2147483647");
    EXPECT_STREQ(QOSA_IntToStr(-999999999, b), "-999999999");
    EXPECT_STREQ(QOSA_IntToStr(INT_MIN, b), "");
    EXPECT_STREQ(QOSA_IntToStr(-1000000000, b), "");
    EXPECT_STREQ(QOSA_FloatToStr(b, 999.5f), "999.500000");
    EXPECT_STREQ(QOSA_FloatToStr(b, 1000.0f), "");
    EXPECT_STREQ(QOSA_FloatToStr(b, -99.25f), "-99.250000");
    EXPECT_STREQ(QOSA_FloatToStr(b, -100.0f), "");
}

TEST(String, Ultostr) {
    char b[16];
    EXPECT_EQ(QOSA_Ultostr(b, sizeof b, 255, 16), 2);
    EXPECT_STREQ(b, "ff");
    EXPECT_EQ(QOSA_Ultostr(b, sizeof b, 0xFFFFFFFFu, 8), 11);
    EXPECT_STREQ(b, "37777777777");
    EXPECT_EQ(QOSA_Ultostr(b, sizeof b, 0xFFFFFFFFu, 10), 10);
    EXPECT_EQ(QOSA_Ultostr(b, sizeof b, 5, 2), 1);
    EXPECT_STREQ(b, "5") << "other radixes write decimal";
    EXPECT_EQ(QOSA_Ultostr(b, 3, 1000, 10), -1);
    EXPECT_EQ(QOSA_Ultostr(b, 0, 1, 10), -1);
    EXPECT_EQ(QOSA_Ultostr(nullptr, 8, 1, 10), -1);
    // At most 12 bytes are touched, whatever size is claimed.
    char big[32];
    std::memset(big, 'x', sizeof big);
    EXPECT_EQ(QOSA_Ultostr(big, ~0ull, 0xFFFFFFFFu, 8), 11);
    EXPECT_EQ(big[12], 'x');
}

TEST(String, Tokeniser) {
    char t[] = "a,b,,c";
    char* ctx = nullptr;
    EXPECT_STREQ(QOSA_StrTok_S(t, ",", &ctx), "a");
    EXPECT_STREQ(QOSA_StrTok_S(nullptr, ",", &ctx), "b");
    EXPECT_STREQ(QOSA_StrTok_S(nullptr, ",", &ctx), "c");
    EXPECT_EQ(QOSA_StrTok_S(nullptr, ",", &ctx), nullptr);
}
