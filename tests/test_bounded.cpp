// The bounds-checked layer: results and what a violation leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "internal/bounded.h"

using namespace qosa::bounded;

namespace {
// sscanf_s with the same int pointer 32 times.
template <std::size_t... I>
int scan_ints(const char* text, const char* fmt, int* v, std::index_sequence<I...>) {
    return sscanf_s(text, fmt, ((void)I, v)...);
}
int scan_ints(const char* text, const char* fmt, int* v) {
    return scan_ints(text, fmt, v, std::make_index_sequence<32>{});
}
} // namespace

TEST(Bounded, MemoryCopiesAndFills) {
    char d[8] = "xxxxxxx";
    EXPECT_EQ(memcpy_s(d, sizeof d, "abc", 4), 0);
    EXPECT_STREQ(d, "abc");
    EXPECT_EQ(memcpy_s(d, sizeof d, "q", 0), 0);
    EXPECT_EQ(memcpy_s(d, sizeof d, d, 4), 0) << "a copy onto itself changes nothing";
    EXPECT_STREQ(d, "abc");
    EXPECT_NE(memcpy_s(nullptr, 8, "a", 1), 0);
    EXPECT_NE(memcpy_s(d, 0, "a", 1), 0);
    EXPECT_NE(memcpy_s(d, kMaxDest + 1, "a", 1), 0);
    std::memset(d, 'x', sizeof d);
    EXPECT_NE(memcpy_s(d, sizeof d, nullptr, 1), 0);
    EXPECT_EQ(std::count(d, d + sizeof d, 0), 8) << "a refused copy clears the destination";
    std::memset(d, 'x', sizeof d);
    EXPECT_NE(memcpy_s(d, sizeof d, "0123456789", 9), 0);
    EXPECT_EQ(std::count(d, d + sizeof d, 0), 8);
    std::memcpy(d, "abcdefg", 8);
    char* volatile alias = d; // hides the overlap from the compiler's own checks
    EXPECT_EQ(memcpy_s(alias + 1, 7, alias, 4), kEOverlap);

    std::memset(d, 0, sizeof d);
    EXPECT_EQ(memset_s(d, 4, 'a', 4), 0);
    EXPECT_EQ(std::string(d, 5), std::string("aaaa\0", 5));
    EXPECT_NE(memset_s(d, 3, 'b', 5), 0) << "fills the destination, still reports";
    EXPECT_EQ(std::string(d, 5), std::string("bbba\0", 5));
    EXPECT_NE(memset_s(nullptr, 3, 0, 3), 0);
    EXPECT_NE(memset_s(d, 0, 0, 0), 0);
    EXPECT_EQ(memset_s(d, kMaxDest + 1, 0, 1), kEInval);
}

TEST(Bounded, StringCopiesNeedRoomForTheTerminator) {
    char d[5] = "zzzz";
    EXPECT_EQ(strncpy_s(d, sizeof d, "abcd", 4), 0);
    EXPECT_STREQ(d, "abcd");
    EXPECT_EQ(strncpy_s(d, sizeof d, "abcdefgh", 2), 0);
    EXPECT_STREQ(d, "ab");
    EXPECT_EQ(strncpy_s(d, sizeof d, "xy", 10), 0) << "a short source ends the copy";
    EXPECT_STREQ(d, "xy");
    EXPECT_NE(strncpy_s(d, sizeof d, "abcde", 5), 0);
    EXPECT_STREQ(d, "");
    std::strcpy(d, "q");
    EXPECT_NE(strncpy_s(d, sizeof d, nullptr, 1), 0);
    EXPECT_STREQ(d, "");

    char c[8] = "ab";
    EXPECT_EQ(strcat_s(c, sizeof c, "cd"), 0);
    EXPECT_EQ(strncat_s(c, sizeof c, "efghij", 2), 0);
    EXPECT_EQ(strcat_s(c, sizeof c, "g"), 0);
    EXPECT_STREQ(c, "abcdefg");
    EXPECT_NE(strcat_s(c, sizeof c, "h"), 0);
    EXPECT_STREQ(c, "");
    char unterminated[4] = {'a', 'b', 'c', 'd'};
    EXPECT_NE(strcat_s(unterminated, sizeof unterminated, "x"), 0);
    EXPECT_EQ(unterminated[0], 0);

    // Each violation on "xyz" and the byte it must leave NUL.
    const struct {
        int (*call)(char*);
        int err, emptied;
    } violations[] = {
        {[](char* x) { return strncpy_s(x, 8, "ab", kMaxDest + 1); }, kEInval, 0},
        {[](char* x) { return strncpy_s(x + 1, 7, x, 3); }, kEOverlap, 1},
        {[](char* x) { return strncat_s(x, 8, nullptr, 1); }, kEInval, 0},
        {[](char* x) { return strncat_s(x, 8, "ab", kMaxDest + 1); }, kEInval, 0},
        {[](char* x) { return strncat_s(x, 8, x + 1, 2); }, kEOverlap, 0},
    };
    for (const auto& v : violations) {
        char x[8] = "xyz";
        EXPECT_EQ(v.call(x), v.err) << &v - violations;
        EXPECT_EQ(x[v.emptied], '\0') << &v - violations;
    }
    EXPECT_EQ(strncpy_s(nullptr, 8, "a", 1), kEInval);
    EXPECT_EQ(strncat_s(c, 0, "a", 1), kEInval);
}

TEST(Bounded, FormattingRefusesOrCutsWhatDoesNotFit) {
    char d[8];
    EXPECT_EQ(sprintf_s(d, 6, "%d", 12345), 5);
    EXPECT_STREQ(d, "12345");
    EXPECT_EQ(sprintf_s(d, 6, "%d", 123456), -1);
    EXPECT_STREQ(d, "");
    EXPECT_EQ(sprintf_s(nullptr, 6, "x"), -1);
    EXPECT_EQ(snprintf_s(d, sizeof d, 3, "%s", "abcdef"), -1);
    EXPECT_STREQ(d, "abc") << "what fits stays";
    EXPECT_EQ(snprintf_s(d, sizeof d, 7, "%s", "abcdefg"), 7);
    EXPECT_EQ(snprintf_s(d, sizeof d, 8, "%s", "a"), -1) << "count must leave room for the NUL";
    EXPECT_STREQ(d, "");
    // A format the C library cannot print (no wide text in the C locale), and none.
    const char* volatile none = nullptr;
    std::strcpy(d, "old");
    EXPECT_EQ(snprintf_s(d, sizeof d, 7, "%ls", L"\x3A9"), -1);
    EXPECT_STREQ(d, "");
    std::strcpy(d, "old");
    EXPECT_EQ(sprintf_s(d, sizeof d, "%ls", L"\x3A9"), -1);
    EXPECT_STREQ(d, "");
    EXPECT_EQ(snprintf_s(d, sizeof d, 7, none, 1), -1);
    EXPECT_EQ(snprintf_s(nullptr, sizeof d, 7, "x"), -1);
    EXPECT_EQ(sprintf_s(d, sizeof d, none, 1), -1);
}

TEST(Bounded, ScanBoundsStringsAndTokensKeepTheirPlace) {
    unsigned a = 0, b = 0;
    char word[4], set[65];
    char c = 0;
    EXPECT_EQ(sscanf_s("cpu 1 2", "cpu %u %u", &a, &b), 2);
    EXPECT_EQ(a + b, 3u);
    EXPECT_EQ(sscanf_s("", "%u", &a), -1);
    EXPECT_EQ(sscanf_s("toolong x", "%s %c", word, sizeof word, &c, std::size_t{1}), 2);
    EXPECT_STREQ(word, "too") << "a long field is cut to its buffer";
    EXPECT_EQ(sscanf_s("12: 0100007F:1F90 rest", "%u: %64[0-9A-Fa-f]:%x", &a, set, sizeof set, &b), 3);
    EXPECT_STREQ(set, "0100007F");
    EXPECT_EQ(b, 0x1F90u);
    EXPECT_EQ(sscanf_s("ab", "%2c", &c, std::size_t{1}), -1) << "a %c wider than its buffer";
    EXPECT_EQ(sscanf_s("5 x", "%*d %c", &c, std::size_t{1}), 1);
    EXPECT_EQ(c, 'x');
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
