// The validating decoder, the narrowing, the sequence check and the locale conversions.
#include <gtest/gtest.h>

#include <locale.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "qosa_text.h"

namespace qosa::text {
void reset_env_locale();
}

namespace {

using namespace std::string_literals;

// The text of a returned block, which is released; "?" for NULL.
template <typename T>
std::basic_string<T> take(T* p) {
    std::basic_string<T> s = p ? p : std::basic_string<T>(1, '?');
    ORV_StrMemFree(p);
    return s;
}
std::wstring wide(const std::string& s) {
    std::vector<char> copy(s.c_str(), s.c_str() + s.size() + 1); // ASan sees reads past the NUL
    return take(ORV_Utf8ToUnicodeW(copy.data()));
}
// Names the environment's locale and makes the library read it again.
void use_env_locale(const char* name) {
    setenv("LC_ALL", name, 1);
    qosa::text::reset_env_locale();
}

const std::string kMixed = "Gr\xC3\xBC\xC3\x9F Gott \xCE\xA9 \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80";
const std::wstring kMixedW = L"Gr\u00FC\u00DF Gott \u03A9 \u4E16\u754C \U0001F600";

} // namespace

TEST(Utf8Validating, DropsTheLeadByteOfEveryInvalidSequence) {
    EXPECT_EQ(wide(""), L"") << "a block holding just the 0 unit";
    // Overlong forms, a lead whose next byte is looked at again, bytes that cannot lead, a cut sequence.
    EXPECT_EQ(wide("x\xC0\x80y\xE4\xC3\xA9\xE0\x80\x80\xF8\x80\x80\x80\x80\xFE\xFF\x80\xF0\x9F\x98z\xC3"),
              L"xy\u00E9z");
    EXPECT_EQ(wide("\xC3\xA9\xC3\xA9\xC1\xA9\xC3\xA9"), L"\u00E9\u00E9\u00E9") << "an overlong pair among four";
    EXPECT_EQ(wide("\xF8\x88\x80\x80\x80\xED\xA0\x80\xF4\x90\x80\x80"), (std::wstring{0x200000, 0xD800, 0x110000}));
    // U+00E9 is one byte, U+1F600 is stored 00 F6 01 00.
    EXPECT_EQ(take(ORV_Utf8ToUnicodeA("x\xC3\xA9\xF0\x9F\x98\x80y")), "x\xE9\xF6\x01y");
}

TEST(Utf8Check, CutsTheLastSequenceThatLeavesNoRoomForTheNul) { // a NUL inside a sequence is stepped over
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
        EXPECT_EQ(take(ORV_Utf8ToLocale("plain")), "plain");
        EXPECT_EQ(take(ORV_LocaleToUtf8("plain")), "plain");
        EXPECT_EQ(take(ORV_Utf8ToLocale(kMixed.c_str())), "?");
    }
}

TEST(LocaleText, ConcurrentConversionsLeaveOtherThreadsLocalesAlone) {
    use_env_locale("C.UTF-8");
    std::atomic<int> bad{0};
    auto convert = [&] {
        for (int i = 0; i < 1000; ++i)
            bad += take(ORV_Utf8ToLocale(kMixed.c_str())) != kMixed ||
                   take(ORV_LocaleToUnicodeW(kMixed.c_str())) != kMixedW;
    };
    std::thread a(convert), b(convert), plain([&] { // the process-wide C locale meanwhile
        for (int i = 0; i < 1000; ++i)
            bad += std::mbstowcs(nullptr, "\xC3\xA9", 0) != static_cast<std::size_t>(-1);
    });
    for (std::thread* t : {&a, &b, &plain})
        t->join();
    EXPECT_EQ(bad.load(), 0);
}
