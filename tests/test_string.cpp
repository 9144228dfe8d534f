// String utilities (case conversion, number parsing and formatting) and the
// bounds-checked layer under them: results and what a violation leaves behind.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>

#include "internal/bounded.h"
#include "qosa_error.h"
#include "qosa_string.h"

using namespace qosa::bounded;
using namespace std::string_literals;

namespace {
// sscanf_s with the same int pointer 32 times.
template <std::size_t... I>
int scan_ints(const char* text, const char* fmt, int* v, std::index_sequence<I...>) {
    return sscanf_s(text, fmt, ((void)I, v)...);
}
int scan_ints(const char* text, const char* fmt, int* v) {
    return scan_ints(text, fmt, v, std::make_index_sequence<32>{});
}
constexpr int kFails = -1000;          // any non-zero result
const char* volatile g_none = nullptr; // a null format the compiler cannot see
} // namespace

// Each call on an 8-byte destination holding "xyz": its result and the bytes
// it must leave at the start ("" when they do not matter).
TEST(Bounded, CopiesFillsAndFormatsOnAnEightByteDestination) {
    const struct {
        int (*call)(char*);
        int result;
        std::string after;
    } rows[] = {
        {[](char* d) { return memcpy_s(d, 8, "abc", 4); }, 0, "abc\0"s},
        {[](char* d) { return memcpy_s(d, 8, "q", 0); }, 0, "xyz\0"s},
        {[](char* d) { return memcpy_s(d, 8, d, 4); }, 0, "xyz\0"s}, // onto itself: nothing changes
        {[](char*) { return memcpy_s(nullptr, 8, "a", 1); }, kFails, ""},
        {[](char* d) { return memcpy_s(d, 0, "a", 1); }, kFails, "xyz"},
        {[](char* d) { return memcpy_s(d, kMaxDest + 1, "a", 1); }, kFails, "xyz"},
        {[](char* d) { return memcpy_s(d, 8, nullptr, 1); }, kFails, std::string(8, '\0')}, // cleared
        {[](char* d) { return memcpy_s(d, 8, "0123456789", 9); }, kFails, std::string(8, '\0')},
        {[](char* d) {
             char* volatile a = d; // hides the overlap from the compiler's own checks
             return memcpy_s(a + 1, 7, a, 4);
         },
         kEOverlap, ""},
        {[](char* d) { return memset_s(d, 4, 'a', 4); }, 0, "aaaa\0"s},
        {[](char* d) { return memset_s(d, 3, 'b', 5); }, kFails, "bbb\0"s}, // fills the destination, reports
        {[](char*) { return memset_s(nullptr, 3, 0, 3); }, kFails, ""},
        {[](char* d) { return memset_s(d, 0, 0, 0); }, kFails, "xyz"},
        {[](char* d) { return memset_s(d, kMaxDest + 1, 0, 1); }, kEInval, "xyz"},
        // The string copies need room for the terminator.
        {[](char* d) { return strncpy_s(d, 5, "abcd", 4); }, 0, "abcd\0"s},
        {[](char* d) { return strncpy_s(d, 5, "abcdefgh", 2); }, 0, "ab\0"s},
        {[](char* d) { return strncpy_s(d, 5, "xy", 10); }, 0, "xy\0"s}, // a short source ends the copy
        {[](char* d) { return strncpy_s(d, 5, "abcde", 5); }, kFails, "\0"s},
        {[](char* d) { return strncpy_s(d, 5, nullptr, 1); }, kFails, "\0"s},
        {[](char* d) { return strncpy_s(d, 8, "ab", kMaxDest + 1); }, kEInval, "\0"s},
        {[](char* d) { return strncpy_s(d + 1, 7, d, 3); }, kEOverlap, "x\0"s},
        {[](char*) { return strncpy_s(nullptr, 8, "a", 1); }, kEInval, ""},
        {[](char* d) { return strcat_s(d, 8, "cd"); }, 0, "xyzcd\0"s},
        {[](char* d) { return strcat_s(d, 8, "abcd"); }, 0, "xyzabcd\0"s},
        {[](char* d) { return strcat_s(d, 8, "abcde"); }, kFails, "\0"s},
        {[](char* d) { return std::memset(d, 'u', 8), strcat_s(d, 8, "x"); }, kFails, "\0"s}, // unterminated
        {[](char* d) { return strncat_s(d, 8, "efghij", 2); }, 0, "xyzef\0"s},
        {[](char* d) { return strncat_s(d, 8, nullptr, 1); }, kEInval, "\0"s},
        {[](char* d) { return strncat_s(d, 8, "ab", kMaxDest + 1); }, kEInval, "\0"s},
        {[](char* d) { return strncat_s(d, 8, d + 1, 2); }, kEOverlap, "\0"s},
        {[](char* d) { return strncat_s(d, 0, "a", 1); }, kEInval, ""},
        // Formatting refuses, or cuts what does not fit.
        {[](char* d) { return sprintf_s(d, 6, "%d", 12345); }, 5, "12345\0"s},
        {[](char* d) { return sprintf_s(d, 6, "%d", 123456); }, -1, "\0"s},
        {[](char*) { return sprintf_s(nullptr, 6, "x"); }, -1, ""},
        {[](char* d) { return snprintf_s(d, 8, 3, "%s", "abcdef"); }, -1, "abc\0"s}, // what fits stays
        {[](char* d) { return snprintf_s(d, 8, 7, "%s", "abcdefg"); }, 7, "abcdefg\0"s},
        {[](char* d) { return snprintf_s(d, 8, 8, "%s", "a"); }, -1, "\0"s}, // the count leaves room for the NUL
        // A format the C library cannot print (no wide text in the C locale), and none.
        {[](char* d) { return snprintf_s(d, 8, 7, "%ls", L"\x3A9"); }, -1, "\0"s},
        {[](char* d) { return sprintf_s(d, 8, "%ls", L"\x3A9"); }, -1, "\0"s},
        {[](char* d) { return snprintf_s(d, 8, 7, g_none, 1); }, -1, ""},
        {[](char*) { return snprintf_s(nullptr, 8, 7, "x"); }, -1, ""},
        {[](char* d) { return sprintf_s(d, 8, g_none, 1); }, -1, ""},
    };
    for (const auto& row : rows) {
        char d[8] = "xyz";
        const int got = row.call(d);
        EXPECT_TRUE(row.result == kFails ? got != 0 : got == row.result) << "row " << &row - rows << ": " << got;
        EXPECT_EQ(std::string(d, row.after.size()), row.after) << "row " << &row - rows;
    }
}

TEST(Bounded, ScanBoundsStringsAndTokensKeepTheirPlace) {
    unsigned a = 0, b = 0;
    char word[4], set[65];
    char c = 0;
    EXPECT_TRUE(sscanf_s("cpu 1 2", "cpu %u %u", &a, &b) == 2 && a + b == 3);
    EXPECT_EQ(sscanf_s("", "%u", &a), -1);
    EXPECT_EQ(sscanf_s("toolong x", "%s %c", word, sizeof word, &c, std::size_t{1}), 2);
    EXPECT_STREQ(word, "too") << "a long field is cut to its buffer";
    EXPECT_EQ(sscanf_s("12: 0100007F:1F90 rest", "%u: %64[0-9A-Fa-f]:%x", &a, set, sizeof set, &b), 3);
    EXPECT_TRUE(std::string(set) == "0100007F" && b == 0x1F90u);
    EXPECT_EQ(sscanf_s("ab", "%2c", &c, std::size_t{1}), -1) << "a %c wider than its buffer";
    EXPECT_TRUE(sscanf_s("5 x", "%*d %c", &c, std::size_t{1}) == 1 && c == 'x');
    EXPECT_EQ(sscanf_s(nullptr, "%u", &a), -1);
    EXPECT_EQ(sscanf_s("1", nullptr), -1);

    int n = 0;
    char w[8], w2[8];
    EXPECT_EQ(sscanf_s("100% abcdef", "%u%% %3s%n", &a, w, sizeof w, &n), 2);
    EXPECT_TRUE(a == 100 && std::string(w) == "abc" && n == 8) << a << w << n;
    EXPECT_EQ(sscanf_s("]x^]", "%[]x]%[^]]", w, sizeof w, w2, sizeof w2), 2) << "a ']' first is in the set";
    EXPECT_EQ(std::string(w) + w2, "]x^");
    // Refused before anything is read: no room, no buffer, a broken or too long format.
    const std::pair<const char*, std::size_t> refused[] = {{"%s", 0}, {"%s", 1},    {"%[a]", 1},         {"%2c", 1},
                                                           {"%", 8},  {"%[abc", 8}, {"%99999999999s", 8}};
    for (auto [fmt, size] : refused)
        EXPECT_EQ(sscanf_s("abc", fmt, w, size), -1) << fmt << ' ' << size;
    EXPECT_EQ(sscanf_s("abc", "%s", static_cast<char*>(nullptr), sizeof w), -1);
    EXPECT_EQ(sscanf_s("abc", (std::string(1100, ' ') + "%s").c_str(), w, sizeof w), -1);
    // 32 conversions take pointers; a 33rd is refused.
    std::string ones, d32;
    for (int i = 0; i < 33; ++i)
        ones += "1 ", d32 += "%d";
    EXPECT_EQ(scan_ints(ones.c_str(), d32.substr(2).c_str(), &n), 32);
    EXPECT_EQ(scan_ints(ones.c_str(), d32.c_str(), &n), -1);

    char text[] = "//a\\b//c";
    char* ctx = nullptr;
    std::string seen;
    for (char* t = strtok_s(text, "/\\", &ctx); t; t = strtok_s(nullptr, "/\\", &ctx))
        seen += std::string(t) + ",";
    EXPECT_EQ(seen, "a,b,c,");
    EXPECT_EQ(strtok_s(nullptr, "/", &ctx), nullptr);
    EXPECT_EQ(strtok_s(text, "/", nullptr), nullptr);
    EXPECT_EQ(strtok_s(text, nullptr, &ctx), nullptr);
    char* noContext = nullptr;
    EXPECT_EQ(strtok_s(nullptr, "/", &noContext), nullptr) << "no text and no place to go on from";
}

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
