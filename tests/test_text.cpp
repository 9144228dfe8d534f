// The text conversions: both UTF-8 codecs (the permissive one and the
// validating one with its narrowing and sequence check, each against glibc's
// iconv) and the locale conversions.
#include <gtest/gtest.h>

#include <iconv.h>
#include <locale.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "qosa_mem.h"
#include "qosa_text.h"

namespace {

using namespace std::string_literals;
using Units = std::wstring;

// The text of a returned block, which is released; "?" for NULL.
template <typename T>
std::basic_string<T> take(T* p) {
    std::basic_string<T> s = p ? p : std::basic_string<T>(1, '?');
    ORV_StrMemFree(p);
    return s;
}
// Decodes a heap copy of exactly the string and its NUL, so that ASan sees a read past it.
template <typename T>
Units decode(T* (*fn)(const char*), const std::string& s) {
    std::vector<char> copy(s.c_str(), s.c_str() + s.size() + 1);
    return take(reinterpret_cast<wchar_t*>(fn(copy.data())));
}
Units permissive(const std::string& s) { return decode(utf8Str_to_unicodeStr, s); }
Units validating(const std::string& s) { return decode(ORV_Utf8ToUnicodeW, s); }
std::string permissive(const Units& u) { return take(unicodeStr_to_utf8Str(reinterpret_cast<const u32*>(u.c_str()))); }
std::string table(const Units& u) { return take(ORV_UnicodeToUtf8(u.c_str())); }
void use_env_locale(const char* name) { setenv("LC_ALL", name, 1); }

const std::string kMixed = "Gr\xC3\xBC\xC3\x9F Gott \xCE\xA9 \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80";
const std::wstring kMixedW = L"Gr\u00FC\u00DF Gott \u03A9 \u4E16\u754C \U0001F600";

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

TEST(ORV_Utf8ToUnicode, DropsTheLeadByteOfEveryInvalidSequence) {
    EXPECT_EQ(validating(""), L"") << "a block holding just the 0 unit";
    // Overlong forms, a lead whose next byte is looked at again, bytes that cannot lead, a cut sequence.
    EXPECT_EQ(validating("x\xC0\x80y\xE4\xC3\xA9\xE0\x80\x80\xF8\x80\x80\x80\x80\xFE\xFF\x80\xF0\x9F\x98z\xC3"),
              L"xy\u00E9z");
    EXPECT_EQ(validating("\xC3\xA9\xC3\xA9\xC1\xA9\xC3\xA9"), L"\u00E9\u00E9\u00E9") << "an overlong pair among four";
    EXPECT_EQ(validating("\xF8\x88\x80\x80\x80\xED\xA0\x80\xF4\x90\x80\x80"),
              (std::wstring{0x200000, 0xD800, 0x110000}));
    // U+00E9 is one byte, U+1F600 is stored 00 F6 01 00.
    EXPECT_EQ(take(ORV_Utf8ToUnicodeA("x\xC3\xA9\xF0\x9F\x98\x80y")), "x\xE9\xF6\x01y");
}

TEST(ORV_Utf8Check, CutsTheLastSequenceThatLeavesNoRoomForTheNul) { // a NUL inside a sequence is stepped over
    const std::tuple<std::string, s32, u32, const char*> cases[] = {
        {"abc", 3, 1, "ab"}, {"ab\0"s, 3, 0, "ab"}, {"a\xE4\xB8\xAD", 4, 1, "a"}, {"\xE4\0\xADz\0"s, 5, 0, "\xE4"},
        {"abc", -1, 1, ""},  {"abc", 0, 1, "abc"}};
    for (const auto& [text, len, result, after] : cases) {
        std::vector<char> buf(text.begin(), text.end());
        buf.push_back('\0');
        EXPECT_EQ(ORV_Utf8Check(buf.data(), len), result) << text;
        EXPECT_STREQ(buf.data(), after);
    }
}

TEST(LocaleText, UnderUtf8AndUnderC) {
    use_env_locale("C.UTF-8");
    std::string before = setlocale(LC_CTYPE, nullptr);
    EXPECT_EQ(take(ORV_UnicodeToLocale(kMixedW.c_str())), kMixed);
    EXPECT_EQ(take(ORV_LocaleToUtf8(kMixed.c_str())), kMixed);
    EXPECT_EQ(take(ORV_Utf8ToLocale("a\xC0\x80z")), "az");
    EXPECT_EQ(take(ORV_Utf8ToLocale("\xED\xA0\x80")), "?") << "a surrogate cannot be written";
    EXPECT_EQ(take(ORV_LocaleToUnicodeW("a\xFF")), L"?");
    EXPECT_EQ(setlocale(LC_CTYPE, nullptr), before) << "the process-wide locale is left alone";

    for (const char* single : {"C", "xx_XX.NoSuchCharset"}) { // an unknown locale means C
        use_env_locale(single);
        EXPECT_EQ(take(ORV_Utf8ToLocale("plain")) + take(ORV_LocaleToUtf8("plain")) +
                      take(ORV_Utf8ToLocale(kMixed.c_str())),
                  "plainplain?")
            << single;
    }
}

// Each call takes the environment of its moment, on one thread and then on two at once.
TEST(LocaleText, EveryCallFollowsTheEnvironment) {
    std::atomic<int> bad{0};
    auto convert = [&](bool utf8) {
        for (int i = 0; i < 200; ++i)
            bad += utf8 ? take(ORV_Utf8ToLocale(kMixed.c_str())) != kMixed ||
                              take(ORV_LocaleToUnicodeW(kMixed.c_str())) != kMixedW
                        : take(ORV_Utf8ToLocale(kMixed.c_str())) != "?" ||
                              take(ORV_UnicodeToLocale(kMixedW.c_str())) != "?";
    };
    for (int round = 0; round < 4; ++round) {
        bool utf8 = round % 2 == 0;
        use_env_locale(utf8 ? "C.UTF-8" : "C");
        convert(utf8);
        std::thread a(convert, utf8), b(convert, utf8), plain([&] { // the process-wide C locale meanwhile
            for (int i = 0; i < 200; ++i)
                bad += std::mbstowcs(nullptr, "\xC3\xA9", 0) != static_cast<std::size_t>(-1);
        });
        for (std::thread* t : {&a, &b, &plain})
            t->join();
        EXPECT_EQ(bad.load(), 0) << "round " << round;
    }
    unsetenv("LC_ALL");
    setenv("LC_CTYPE", "C.UTF-8", 1);
    setenv("LANG", "C", 1);
    EXPECT_EQ(take(ORV_Utf8ToLocale(kMixed.c_str())), kMixed) << "LC_CTYPE before LANG";
    unsetenv("LC_CTYPE");
    EXPECT_EQ(take(ORV_Utf8ToLocale(kMixed.c_str())), "?") << "then LANG";
}

// A locale that could not be set up is tried again by the next call: an
// uninstalled one, and one met while no descriptor is free (a name this
// process has not used yet, in a child).
TEST(LocaleText, AFailedSetUpDoesNotStick) {
    use_env_locale("xx_XX.NoSuchCharset");
    EXPECT_EQ(take(ORV_Utf8ToLocale(kMixed.c_str())), "?");
    use_env_locale("C.UTF-8");
    EXPECT_EQ(take(ORV_Utf8ToLocale(kMixed.c_str())), kMixed);

    EXPECT_EXIT(
        {
            use_env_locale("C.utf8");
            rlimit lim{};
            getrlimit(RLIMIT_NOFILE, &lim);
            rlimit none = lim;
            none.rlim_cur = 0;
            setrlimit(RLIMIT_NOFILE, &none);
            bool refused = ORV_Utf8ToLocale(kMixed.c_str()) == nullptr;
            setrlimit(RLIMIT_NOFILE, &lim);
            std::exit(refused && take(ORV_Utf8ToLocale(kMixed.c_str())) == kMixed ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ORV_UnicodeToUtf8, TheBlockIsZeroFromTheTerminatorToItsEnd) {
    const wchar_t text[] = L"a\u00E9\U0001F600"; // 7 bytes in a block of 6 * 3 + 1
    constexpr u32 kBlock = 19;
    void* dirty = QOSA_MemTypeMallocD(kBlock, 0, __LINE__, __FILE__); // leaves junk where the next block lands
    std::memset(dirty, 0xAA, kBlock);
    QOSA_MemTypeFreeD(dirty, 0, __LINE__, __FILE__);
    char* s = ORV_UnicodeToUtf8(text);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(std::string(s, kBlock), "a\xC3\xA9\xF0\x9F\x98\x80" + std::string(kBlock - 7, '\0'));
    ORV_StrMemFree(s);
}

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
