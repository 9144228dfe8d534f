// String utilities: case conversion, number parsing and formatting.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <tuple>

#include "qosa_error.h"
#include "qosa_string.h"

TEST(String, ForwardersAndCase) {
    EXPECT_EQ(QOSA_StriNCmp("HeLLo!", "hello?", 5), 0);
    EXPECT_TRUE(QOSA_StriCmp("HeLLo", "hello") == 0 && QOSA_StriCmp("a", "B") < 0);
    EXPECT_FLOAT_EQ(QOSA_StrToFloat(" 2.5e1x"), 25.0f);
    EXPECT_LT(QOSA_StrNCmp("abcX", "abcY", 0x80000000u), 0) << "the count is not taken as negative";
    char t[] = "abc1", empty[] = "";
    EXPECT_EQ(QOSA_StrToUper(t), t);
    EXPECT_STREQ(t, "ABC1");
    EXPECT_STREQ(QOSA_StrToLower(t), "abc1");
    EXPECT_EQ(QOSA_StrToUper(empty), empty);
    EXPECT_EQ(QOSA_CharToUpper('q'), 'Q');
    EXPECT_EQ(QOSA_CharToLower(0x141), 0x41) << "results are cut to a signed char";
}

TEST(String, StrToInt32) {
    // Every row starts with a stale range error, which must not fail a good conversion.
    const std::tuple<const char*, u32, s32> rows[] = {{"0x1F", 0, 31},
                                                      {"010", 0, 8},
                                                      {"abc", 1, 0},
                                                      {"12abc", 0, 12},
                                                      {"4294967297", 0, 1},
                                                      {"-2147483648", 0, INT_MIN},
                                                      {"99999999999999999999", 1, -1}};
    for (auto [text, result, value] : rows) {
        s32 v = 5;
        QOSA_SetLastErr(ERANGE);
        EXPECT_EQ(QOSA_StrToInt32(text, &v), result) << text;
        EXPECT_EQ(v, value) << text;
        EXPECT_TRUE(result == 0 || QOSA_GetLastErr() == 0) << text << ": a failure clears the last error";
    }
}

TEST(String, NumberTexts) {
    char b[11];
    EXPECT_STREQ(QOSA_IntToStr(2147483647, b), "2147483647");
    EXPECT_STREQ(QOSA_IntToStr(-999999999, b), "-999999999");
    EXPECT_STREQ(QOSA_IntToStr(INT_MIN, b), "");
    EXPECT_STREQ(QOSA_IntToStr(-1000000000, b), "");
    EXPECT_STREQ(QOSA_FloatToStr(b, 999.5f), "999.500000");
    EXPECT_STREQ(QOSA_FloatToStr(b, 1000.0f), "");
    EXPECT_STREQ(QOSA_FloatToStr(b, -99.25f), "-99.250000");
    EXPECT_STREQ(QOSA_FloatToStr(b, -100.0f), "");

    EXPECT_EQ(QOSA_Ultostr(b, sizeof b, 255, 16), 2);
    EXPECT_STREQ(b, "ff");
    EXPECT_EQ(QOSA_Ultostr(b, sizeof b, 0xFFFFFFFFu, 10), 10);
    EXPECT_EQ(QOSA_Ultostr(b, sizeof b, 5, 2), 1);
    EXPECT_STREQ(b, "5") << "other radixes write decimal";
    EXPECT_EQ(QOSA_Ultostr(b, 3, 1000, 10), -1);
    EXPECT_EQ(QOSA_Ultostr(b, 0, 1, 10), -1);
    // At most 12 bytes are touched, whatever size is claimed.
    char big[32];
    std::memset(big, 'x', sizeof big);
    EXPECT_EQ(QOSA_Ultostr(big, ~0ull, 0xFFFFFFFFu, 8), 11);
    EXPECT_STREQ(big, "37777777777");
    EXPECT_EQ(big[12], 'x');
}
