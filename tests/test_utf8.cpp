// The permissive UTF-8 codec, and both codecs against glibc's iconv.
#include <gtest/gtest.h>

#include <iconv.h>

#include <random>
#include <string>
#include <vector>

#include "internal/utf8_codec.h"
#include "qosa_text.h"

namespace {

using Units = std::vector<u32>;

// Decodes a heap copy of exactly the string and its NUL, so that ASan sees
// any read past the terminator.
template <typename T>
Units decode(T* (*fn)(const char*), const std::string& s) {
    std::vector<char> copy(s.c_str(), s.c_str() + s.size() + 1);
    Units u;
    T* p = fn(copy.data());
    for (const T* q = p; q != nullptr && *q != 0; ++q)
        u.push_back(static_cast<u32>(*q));
    ORV_StrMemFree(p);
    return u;
}
template <typename T, typename F>
std::string encode(F fn, const Units& u) {
    std::vector<T> w(u.begin(), u.end());
    w.push_back(0);
    char* p = fn(w.data());
    std::string s = p ? p : "<null>";
    ORV_StrMemFree(p);
    return s;
}
Units permissive(const std::string& s) { return decode(utf8Str_to_unicodeStr, s); }
Units validating(const std::string& s) { return decode(ORV_Utf8ToUnicodeW, s); }
std::string permissive(const Units& u) { return encode<u32>(unicodeStr_to_utf8Str, u); }
std::string table(const Units& u) { return encode<wchar_t>(ORV_UnicodeToUtf8, u); }

// glibc's wchar_t to UTF-8 conversion; "<refused>" on any error.
std::string iconv_encode(Units u) {
    iconv_t cd = iconv_open("UTF-8", "WCHAR_T");
    std::string out(u.size() * 4, '\0');
    char* ip = reinterpret_cast<char*>(u.data());
    char* op = out.data();
    std::size_t ileft = u.size() * 4, oleft = out.size();
    bool ok = iconv(cd, &ip, &ileft, &op, &oleft) != static_cast<std::size_t>(-1);
    iconv_close(cd);
    out.resize(out.size() - oleft);
    return ok ? out : "<refused>";
}

} // namespace

TEST(Utf8Codec, SingleSequences) {
    // The lead byte alone sets the length; 0xFF carries bit 30 in its bit 0.
    const struct {
        const char* in;
        u32 value;
        s32 length;
    } cases[] = {
        {"\xF0\x9F\x98\x80", 0x1F600, 4},
        {"\xF8\x88\x80\x80\x80", 0x200000, 5},
        {"\xFF\xBF\xBF\xBF\xBF\xBF", 0x7FFFFFFF, 6},
        {"\x80", 0x80, 1},
        {"\xC0\x80", 0, 2},
        {"\xC3\x41", 0xC1, 2},
    };
    for (const auto& c : cases) {
        u32 v = 0;
        EXPECT_EQ(utf8_to_unicode(reinterpret_cast<const u8*>(c.in), &v), c.length) << c.in;
        EXPECT_EQ(v, c.value) << c.in;
    }
    // Each length boundary both ways; bit 31 is lost.
    for (u32 edge : {0x80u, 0x800u, 0x10000u, 0x200000u, 0x4000000u, 0x80000000u})
        for (u32 cp : {edge - 1, edge}) {
            u8 buf[8] = {};
            u8* end = unicode_to_utf8(cp, buf);
            u32 back = 1;
            EXPECT_EQ(end - buf, static_cast<long>(UTF8_LENGTH(cp))) << std::hex << cp;
            EXPECT_EQ(utf8_to_unicode(buf, &back), end - buf);
            EXPECT_EQ(back, cp & 0x7FFFFFFF);
        }
    EXPECT_EQ(permissive(Units{0xFFFFFFFF}), "\xFD\xBF\xBF\xBF\xBF\xBF");
    EXPECT_EQ(table(Units{0x7FFFFFFF}), "\xFD\xBF\xBF\xBF\xBF\xBF");
    EXPECT_EQ(table(Units{0x78, 0xFFFFFFFF, 0x79}), "x\xFFy") << "a negative unit is its low byte";
}

TEST(Utf8Codec, WholeStrings) {
    u32* u = utf8Str_to_unicodeStr("A\xC3\xA9\xE4\xB8\xAD");
    EXPECT_EQ(get_unicode_strlen("A\xC3\xA9\xE4\xB8\xAD"), 4u);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(Units(u, u + 5), Units({0x41, 0xE9, 0x4E2D, 0, 0})) << "five units, the spare one cleared";
    ORV_StrMemFree(u);
    EXPECT_EQ(get_unicode_strlen("\xF8\x88\x80\x80\x80"), 5u);
    EXPECT_EQ(permissive("\xF8\x88\x80\x80\x80"), Units{0x200000});
    EXPECT_EQ(permissive("x\xC0\x80y"), Units{0x78}) << "the overlong pair decodes to the 0 unit";
    // Cut short by the terminator: nothing for the partial sequence.
    EXPECT_EQ(permissive("A\xF0\x9F\x98"), Units{0x41});
    EXPECT_EQ(permissive("\xFC\x84\x80\x80\x80"), Units{});
    const u32 empty[] = {0}, euro[] = {0x41, 0x20AC, 0};
    EXPECT_EQ(get_utf8_strlen(euro), 4u);
    EXPECT_EQ(utf8Str_to_unicodeStr(""), nullptr);
    EXPECT_EQ(utf8Str_to_unicodeStr(nullptr), nullptr);
    EXPECT_EQ(unicodeStr_to_utf8Str(empty), nullptr);
}

TEST(Utf8Differential, AgreesWithIconv) {
    Units all;
    for (u32 cp = 1; cp <= 0x10FFFF; ++cp)
        if (cp < 0xD800 || cp > 0xDFFF) all.push_back(cp);
    std::string utf8 = iconv_encode(all);
    EXPECT_TRUE(permissive(all) == utf8 && table(all) == utf8);
    EXPECT_TRUE(permissive(utf8) == all && validating(utf8) == all);
    // iconv refuses surrogates; both codecs carry them like any value.
    Units surrogates = {0xD800, 0xDFFF};
    EXPECT_EQ(iconv_encode(surrogates), "<refused>");
    EXPECT_EQ(validating(table(surrogates)), surrogates);
    EXPECT_EQ(permissive(permissive(surrogates)), surrogates);

    std::mt19937 rng(20240611);
    const u32 lo[] = {0x01, 0x80, 0x800, 0x10000}, hi[] = {0x7F, 0x7FF, 0xFFFF, 0x10FFFF};
    for (int text = 0; text < 300; ++text) {
        Units u(std::uniform_int_distribution<std::size_t>(1, 400)(rng));
        for (u32& cp : u) {
            int len = std::uniform_int_distribution<int>(0, 3)(rng);
            do
                cp = std::uniform_int_distribution<u32>(lo[len], hi[len])(rng);
            while (cp >= 0xD800 && cp <= 0xDFFF);
        }
        std::string s = iconv_encode(u);
        ASSERT_EQ(permissive(u), s) << text;
        ASSERT_EQ(table(u), s) << text;
        ASSERT_EQ(permissive(s), u) << text;
        ASSERT_EQ(validating(s), u) << text;
    }
}
