// The locale conversions: each call follows the environment's character-type
// locale of its moment. (The UTF-8 codecs and the sequence check are the
// properties of fuzz/fuzz_utf8.cpp, against plain references and iconv.)
#include <locale.h>
#include <sys/resource.h>

#include "support.h"

namespace {

// The text of a returned block, which is released; "?" for NULL.
template <typename T>
std::basic_string<T> take(T* p) {
    std::basic_string<T> s = p ? p : std::basic_string<T>(1, '?');
    ORV_StrMemFree(p);
    return s;
}
void use_env_locale(const char* name) { setenv("LC_ALL", name, 1); }

const std::string kMixed = "Gr\xC3\xBC\xC3\x9F Gott \xCE\xA9 \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80";
const std::wstring kMixedW = L"Gr\u00FC\u00DF Gott \u03A9 \u4E16\u754C \U0001F600";

} // namespace

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
