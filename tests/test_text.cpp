// The validating decoder, the narrowing, the sequence check and the locale
// conversions.
#include <gtest/gtest.h>

#include <locale.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "qosa_text.h"

namespace qosa::text {
void reset_env_locale();
}

namespace {

using namespace std::string_literals;

template <typename T>
std::basic_string<T> take(T* p) {
    std::basic_string<T> s;
    if (p == nullptr) s.push_back('?');
    for (T* q = p; q != nullptr && *q != 0; ++q)
        s.push_back(*q);
    ORV_StrMemFree(p);
    return s;
}
std::wstring wide(const std::string& s) {
    std::vector<char> copy(s.c_str(), s.c_str() + s.size() + 1); // ASan sees reads past the NUL
    return take(ORV_Utf8ToUnicodeW(copy.data()));
}

const std::string kMixed = "Gr\xC3\xBC\xC3\x9F Gott \xCE\xA9 \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80";
const std::wstring kMixedW = L"Gr\u00FC\u00DF Gott \u03A9 \u4E16\u754C \U0001F600";

} // namespace

TEST(Utf8Validating, DropsTheLeadByteOfEveryInvalidSequence) {
    EXPECT_EQ(wide(""), L"") << "a block holding just the 0 unit";
    EXPECT_EQ(wide("x\xC0\x80y"), L"xy");
    EXPECT_EQ(wide("x\xE4y"), L"xy");
    EXPECT_EQ(wide("A\xC3"), L"A");
    EXPECT_EQ(wide("\xE4\xC3\xA9"), L"\u00E9") << "the byte after a failed lead is looked at again";
    EXPECT_EQ(wide("\xE0\x80\x80\xF8\x80\x80\x80\x80z"), L"z") << "overlong three- and five-byte forms";
    EXPECT_EQ(wide("\xF8\x88\x80\x80\x80"), std::wstring(1, 0x200000));
    EXPECT_EQ(wide("\xFE\xFF\x80z"), L"z");
    EXPECT_EQ(wide("\xED\xA0\x80\xF4\x90\x80\x80"), (std::wstring{0xD800, 0x110000}));
    std::string cjk;
    for (int i = 0; i < 3000; ++i)
        cjk += "\xE4\xB8\xAD";
    EXPECT_EQ(wide(cjk), std::wstring(3000, L'\u4E2D'));

    EXPECT_EQ(take(ORV_Utf8ToUnicodeA("\xC3\xA9")), "\xE9");
    EXPECT_EQ(take(ORV_Utf8ToUnicodeA("\xE4\xB8\xAD")), "\x2D\x4E");
    EXPECT_EQ(take(ORV_Utf8ToUnicodeA("x\xF0\x9F\x98\x80y")), "x\xF6\x01y") << "U+1F600 is stored 00 F6 01 00";
    EXPECT_EQ(take(ORV_UnicodeToUtf8(L"")), "");
}

TEST(Utf8Check, CutsTheLastSequenceThatLeavesNoRoomForTheNul) {
    const struct {
        std::string buf;
        s32 len;
        u32 result;
        const char* after;
    } cases[] = {
        {"abc", 3, 1, "ab"},
        {"ab\0"s, 3, 0, "ab"},
        {"a\xE4\xB8", 3, 1, "a"},
        {"a\xE4\xB8\xAD", 4, 1, "a"},
        {"\xE4\0\xADz\0"s, 5, 0, "\xE4"}, // a NUL inside a sequence is stepped over
        {"abc", -1, 1, ""},
        {"abc", 0, 1, "abc"},
    };
    for (const auto& c : cases) {
        std::vector<char> buf(c.buf.begin(), c.buf.end());
        buf.push_back('\0');
        EXPECT_EQ(ORV_Utf8Check(buf.data(), c.len), c.result) << c.buf;
        EXPECT_STREQ(buf.data(), c.after);
    }
}

// Each test names the environment's locale and makes the library read it again.
class LocaleText : public ::testing::Test {
  protected:
    static void use_env_locale(const char* name) {
        setenv("LC_ALL", name, 1);
        qosa::text::reset_env_locale();
    }
    void TearDown() override { use_env_locale(""); }
};

TEST_F(LocaleText, UnderUtf8AndUnderC) {
    use_env_locale("C.UTF-8");
    std::string before = setlocale(LC_CTYPE, nullptr);
    EXPECT_EQ(take(ORV_UnicodeToLocale(kMixedW.c_str())), kMixed);
    EXPECT_EQ(take(ORV_LocaleToUnicodeW(kMixed.c_str())), kMixedW);
    EXPECT_EQ(take(ORV_Utf8ToLocale("a\xC0\x80z")), "az");
    EXPECT_EQ(take(ORV_LocaleToUtf8(kMixed.c_str())), kMixed);
    EXPECT_EQ(take(ORV_Utf8ToLocale("\xED\xA0\x80")), "?") << "a surrogate cannot be written";
    EXPECT_EQ(take(ORV_LocaleToUnicodeW("a\xFF")), L"?");
    EXPECT_EQ(setlocale(LC_CTYPE, nullptr), before) << "the process-wide locale is left alone";

    for (const char* single : {"C", "xx_XX.NoSuchCharset"}) { // an unknown locale means C
        use_env_locale(single);
        EXPECT_EQ(take(ORV_Utf8ToLocale("plain")), "plain");
        EXPECT_EQ(take(ORV_LocaleToUtf8("plain")), "plain");
        EXPECT_EQ(take(ORV_Utf8ToLocale(kMixed.c_str())), "?");
        EXPECT_EQ(take(ORV_UnicodeToLocale(L"\u00E9")), "?");
        EXPECT_EQ(take(ORV_LocaleToUtf8("caf\xE9")), "?");
    }
}

TEST_F(LocaleText, ConcurrentConversionsLeaveOtherThreadsLocalesAlone) {
    use_env_locale("C.UTF-8");
    locale_t c = newlocale(LC_CTYPE_MASK, "C", nullptr);
    std::atomic<int> bad{0};
    auto convert = [&] {
        for (int i = 0; i < 1000; ++i)
            bad += take(ORV_Utf8ToLocale(kMixed.c_str())) != kMixed ||
                   take(ORV_LocaleToUnicodeW(kMixed.c_str())) != kMixedW;
    };
    std::thread a(convert), b(convert);
    std::thread plain([&] { // runs the C library under its own C locale meanwhile
        locale_t prev = uselocale(c);
        for (int i = 0; i < 1000; ++i)
            bad += std::mbstowcs(nullptr, "\xC3\xA9", 0) != static_cast<std::size_t>(-1);
        uselocale(prev);
    });
    a.join();
    b.join();
    plain.join();
    freelocale(c);
    EXPECT_EQ(bad.load(), 0);
}
