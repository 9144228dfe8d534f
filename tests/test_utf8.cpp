// The permissive UTF-8 codec, and both codecs against glibc's iconv.
#include <gtest/gtest.h>

#include <iconv.h>

#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "qosa_text.h"

namespace {

using Units = std::wstring;

// Decodes a heap copy of exactly the string and its NUL, so that ASan sees a read past it.
template <typename T>
Units decode(T* (*fn)(const char*), const std::string& s) {
    std::vector<char> copy(s.c_str(), s.c_str() + s.size() + 1);
    T* p = fn(copy.data());
    Units u = p ? reinterpret_cast<const wchar_t*>(p) : L"<null>";
    ORV_StrMemFree(p);
    return u;
}
std::string text(char* p) {
    std::string s = p ? p : "<null>";
    ORV_StrMemFree(p);
    return s;
}
Units permissive(const std::string& s) { return decode(utf8Str_to_unicodeStr, s); }
Units validating(const std::string& s) { return decode(ORV_Utf8ToUnicodeW, s); }
std::string permissive(const Units& u) { return text(unicodeStr_to_utf8Str(reinterpret_cast<const u32*>(u.c_str()))); }
std::string table(const Units& u) { return text(ORV_UnicodeToUtf8(u.c_str())); }

// glibc's wchar_t to UTF-8 conversion, cut short where it refuses a unit.
std::string iconv_encode(Units u) {
    iconv_t cd = iconv_open("UTF-8", "WCHAR_T");
    std::string out(u.size() * 4, '\0');
    char *ip = reinterpret_cast<char*>(u.data()), *op = out.data();
    std::size_t ileft = u.size() * 4, oleft = out.size();
    iconv(cd, &ip, &ileft, &op, &oleft);
    iconv_close(cd);
    out.resize(out.size() - oleft);
    return out;
}

} // namespace

TEST(Utf8Codec, SequencesPastFourBytesAndMalformedOnes) {
    // The lead byte alone sets the length; 0xFF carries bit 30 in its bit 0.
    const std::pair<const char*, u32> cases[] = {
        {"\xFF\xBF\xBF\xBF\xBF\xBF", 0x7FFFFFFF}, {"\x80", 0x80}, {"\xC0\x80", 0}, {"\xC3\x41", 0xC1}};
    for (auto [in, value] : cases) {
        u32 v = 0;
        EXPECT_EQ(utf8_to_unicode(reinterpret_cast<const u8*>(in), &v), static_cast<s32>(std::strlen(in))) << in;
        EXPECT_EQ(v, value) << in;
    }
    // Each length boundary both ways; bit 31 is lost.
    for (u32 edge : {0x80u, 0x800u, 0x10000u, 0x200000u, 0x4000000u, 0x80000000u})
        for (u32 cp : {edge - 1, edge}) {
            u8 buf[8] = {};
            u32 back = 1;
            u8* end = unicode_to_utf8(cp, buf);
            EXPECT_EQ(end - buf, static_cast<long>(UTF8_LENGTH(cp))) << std::hex << cp;
            EXPECT_EQ(utf8_to_unicode(buf, &back), end - buf);
            EXPECT_EQ(back, cp & 0x7FFFFFFF);
        }
    EXPECT_EQ(permissive(L"\xFFFFFFFF"), "\xFD\xBF\xBF\xBF\xBF\xBF");
    EXPECT_EQ(table(L"\x7FFFFFFF"), "\xFD\xBF\xBF\xBF\xBF\xBF");
    EXPECT_EQ(table(L"x\xFFFFFFFFy"), "x\xFFy") << "a negative unit is its low byte";
}

TEST(Utf8Codec, WholeStringsAndTruncation) {
    u32* u = utf8Str_to_unicodeStr("A\xC3\xA9\xE4\xB8\xAD");
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(Units(u, u + 5), Units({0x41, 0xE9, 0x4E2D, 0, 0})) << "five units, the spare one cleared";
    ORV_StrMemFree(u);
    EXPECT_EQ(permissive("\xF8\x88\x80\x80\x80"), L"\x200000");
    EXPECT_EQ(permissive("x\xC0\x80y"), L"x") << "the overlong pair decodes to the 0 unit";
    // Cut short by the terminator: nothing for the partial sequence.
    EXPECT_EQ(permissive("A\xF0\x9F\x98"), L"A");
    EXPECT_EQ(permissive("\xFC\x84\x80\x80\x80"), L"");
    const u32 empty[] = {0}, euro[] = {0x41, 0x20AC, 0};
    EXPECT_EQ(get_utf8_strlen(euro), 4u);
    EXPECT_TRUE(!utf8Str_to_unicodeStr("") && !utf8Str_to_unicodeStr(nullptr) && !unicodeStr_to_utf8Str(empty));
}

TEST(Utf8Differential, AgreesWithIconv) {
    // Both codecs carry surrogates, which iconv refuses, like any other value.
    const Units sur = L"\xD800\xDFFF";
    EXPECT_TRUE(validating(table(sur)) == sur && permissive(permissive(sur)) == sur);

    // The first text holds every code point but the surrogates; the rest mix the four lengths at random.
    Units u;
    for (u32 cp = 1; cp <= 0x10FFFF; ++cp)
        if (cp < 0xD800 || cp > 0xDFFF) u.push_back(static_cast<wchar_t>(cp));
    std::mt19937 rng(20240611);
    using Range = std::uniform_int_distribution<u32>;
    Range lengths[] = {Range(0x01, 0x7F), Range(0x80, 0x7FF), Range(0x800, 0xD7FF), Range(0x10000, 0x10FFFF)};
    for (int text = 0; text <= 300; ++text) {
        std::string s = iconv_encode(u);
        ASSERT_TRUE(permissive(u) == s && table(u) == s && permissive(s) == u && validating(s) == u) << text;
        u.resize(std::uniform_int_distribution<std::size_t>(1, 400)(rng));
        for (wchar_t& cp : u)
            cp = static_cast<wchar_t>(lengths[rng() % 4](rng));
    }
}
