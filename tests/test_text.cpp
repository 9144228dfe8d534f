// The validating decoder, the narrowing, the sequence check and the locale conversions.
#include <gtest/gtest.h>

#include <locale.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "qosa_mem.h"
#include "qosa_text.h"

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
void use_env_locale(const char* name) { setenv("LC_ALL", name, 1); }

const std::string kMixed = "Gr\xC3\xBC\xC3\x9F Gott \xCE\xA9 \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80";
const std::wstring kMixedW = L"Gr\u00FC\u00DF Gott \u03A9 \u4E16\u754C \U0001F600";

} // namespace

TEST(ORV_Utf8ToUnicode, DropsTheLeadByteOfEveryInvalidSequence) {
    EXPECT_EQ(wide(""), L"") << "a block holding just the 0 unit";
    // Overlong forms, a lead whose next byte is looked at again, bytes that cannot lead, a cut sequence.
    EXPECT_EQ(wide("x\xC0\x80y\xE4\xC3\xA9\xE0\x80\x80\xF8\x80\x80\x80\x80\xFE\xFF\x80\xF0\x9F\x98z\xC3"),
              L"xy\u00E9z");
    EXPECT_EQ(wide("\xC3\xA9\xC3\xA9\xC1\xA9\xC3\xA9"), L"\u00E9\u00E9\u00E9") << "an overlong pair among four";
    EXPECT_EQ(wide("\xF8\x88\x80\x80\x80\xED\xA0\x80\xF4\x90\x80\x80"), (std::wstring{0x200000, 0xD800, 0x110000}));
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
