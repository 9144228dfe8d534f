// String utilities: case conversion, number parsing and formatting.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>

#include "qosa_error.h"
#include "qosa_string.h"

TEST(String, ForwardersAndCase) {
    EXPECT_EQ(QOSA_StriNCmp("HeLLo!", "hello?", 5), 0);
    EXPECT_TRUE(QOSA_StriCmp("HeLLo", "hello") == 0 && QOSA_StriCmp("a", "B") < 0);
    EXPECT_FLOAT_EQ(QOSA_StrToFloat(" 2.5e1x"), 25.0f);
    EXPECT_LT(QOSA_StrNCmp("abcX", "abcY", 0x80000000u), 0) << "the count is not taken as negative";
    char t[] = "abc1", empty[] = "";
    EXPECT_TRUE(QOSA_StrToUper(t) == t && std::string(t) == "ABC1" && QOSA_StrToUper(empty) == empty);
    EXPECT_STREQ(QOSA_StrToLower(t), "abc1");
    EXPECT_EQ(QOSA_CharToUpper('q'), 'Q');
    EXPECT_EQ(QOSA_CharToLower(0x141), 0x41) << "results are cut to a signed char";
}

TEST(QOSA_StrToInt32, ValueResultAndLastError) {
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
    const std::pair<int, const char*> ints[] = {
        {2147483647, "2147483647"}, {-999999999, "-999999999"}, {INT_MIN, ""}, {-1000000000, ""}};
    for (auto [v, want] : ints)
        EXPECT_STREQ(QOSA_IntToStr(v, b), want) << v;
    const std::pair<float, const char*> floats[] = {
        {999.5f, "999.500000"}, {1000.0f, ""}, {-99.25f, "-99.250000"}, {-100.0f, ""}};
    for (auto [v, want] : floats)
        EXPECT_STREQ(QOSA_FloatToStr(b, v), want) << v;
    EXPECT_TRUE(QOSA_Ultostr(b, sizeof b, 255, 16) == 2 && std::string(b) == "ff");
    EXPECT_EQ(QOSA_Ultostr(b, sizeof b, 0xFFFFFFFFu, 10), 10);
    EXPECT_TRUE(QOSA_Ultostr(b, sizeof b, 5, 2) == 1 && std::string(b) == "5") << "other radixes write decimal";
    EXPECT_TRUE(QOSA_Ultostr(b, 3, 1000, 10) == -1 && QOSA_Ultostr(b, 0, 1, 10) == -1);
    // At most 12 bytes are touched, whatever size is claimed.
    char big[32];
    std::memset(big, 'x', sizeof big);
    EXPECT_EQ(QOSA_Ultostr(big, ~0ull, 0xFFFFFFFFu, 8), 11);
    EXPECT_TRUE(std::string(big) == "37777777777" && big[12] == 'x');
}
