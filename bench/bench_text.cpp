// UTF-8 <-> wide conversions on 1 MB texts against glibc's iconv and
// mbstowcs / wcstombs (under C.UTF-8). Each library case runs twice, once
// beside each peer: "<function>/<text>/iconv" and "<function>/<text>/mbstowcs"
// (wcstombs for the encoders). Bytes processed are the UTF-8 bytes, so the
// rates compare across directions.
#include <benchmark/benchmark.h>

#include <iconv.h>
#include <locale.h>

#include <cstdlib>
#include <cwchar>
#include <string>
#include <vector>

#include "qosa_text.h"

namespace {

struct Text {
    std::string utf8;
    std::vector<u32> units; // 0-terminated
    std::vector<wchar_t> wide;
};

// About 1 MB of UTF-8 cycling through [first, last], with a space every 16
// characters outside the ASCII case.
Text make_text(u32 first, u32 last) {
    Text t;
    u32 cp = first;
    while (t.utf8.size() < (1u << 20)) {
        u32 c = (first >= 0x80 && t.units.size() % 16 == 15) ? 0x20 : cp;
        if (c != 0x20 || first < 0x80) cp = cp == last ? first : cp + 1;
        u8 buf[8];
        u8* end = unicode_to_utf8(c, buf);
        t.utf8.append(reinterpret_cast<char*>(buf), static_cast<std::size_t>(end - buf));
        t.units.push_back(c);
    }
    t.units.push_back(0);
    t.wide.assign(t.units.begin(), t.units.end());
    return t;
}

const Text& text(int which) {
    static const Text texts[] = {make_text(0x20, 0x7E), make_text(0xA0, 0xFF), make_text(0x4E00, 0x9FFF),
                                 make_text(0x1F600, 0x1F64F)};
    return texts[which];
}
const char* const kTextNames[] = {"ascii", "latin1", "cjk", "emoji"};

void utf8_locale_for_this_thread() {
    static locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    uselocale(utf8);
}

void done(benchmark::State& st, const Text& t) {
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * static_cast<int64_t>(t.utf8.size()));
}

// ---- UTF-8 to wide ----
template <typename T, T* (*Decode)(const char*)>
void to_wide_qosa(benchmark::State& st, int which) {
    const Text& t = text(which);
    for (auto _ : st) {
        T* w = Decode(t.utf8.c_str());
        benchmark::DoNotOptimize(w);
        ORV_StrMemFree(w);
    }
    done(st, t);
}
void to_wide_iconv(benchmark::State& st, int which) {
    const Text& t = text(which);
    iconv_t cd = iconv_open("WCHAR_T", "UTF-8");
    for (auto _ : st) {
        std::size_t inLeft = t.utf8.size(), outLeft = t.utf8.size() * sizeof(wchar_t);
        auto* out = static_cast<wchar_t*>(std::malloc(outLeft + sizeof(wchar_t)));
        char* in = const_cast<char*>(t.utf8.data());
        char* o = reinterpret_cast<char*>(out);
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        iconv(cd, &in, &inLeft, &o, &outLeft);
        *reinterpret_cast<wchar_t*>(o) = 0;
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    iconv_close(cd);
    done(st, t);
}
void to_wide_mbstowcs(benchmark::State& st, int which) {
    const Text& t = text(which);
    utf8_locale_for_this_thread();
    for (auto _ : st) {
        auto* out = static_cast<wchar_t*>(std::malloc((t.utf8.size() + 1) * sizeof(wchar_t)));
        benchmark::DoNotOptimize(std::mbstowcs(out, t.utf8.c_str(), t.utf8.size() + 1));
        std::free(out);
    }
    done(st, t);
}

// ---- wide to UTF-8 ----
void from_wide_permissive(benchmark::State& st, int which) {
    const Text& t = text(which);
    for (auto _ : st) {
        char* s = unicodeStr_to_utf8Str(t.units.data());
        benchmark::DoNotOptimize(s);
        ORV_StrMemFree(s);
    }
    done(st, t);
}
void from_wide_table(benchmark::State& st, int which) {
    const Text& t = text(which);
    for (auto _ : st) {
        char* s = ORV_UnicodeToUtf8(t.wide.data());
        benchmark::DoNotOptimize(s);
        ORV_StrMemFree(s);
    }
    done(st, t);
}
void from_wide_iconv(benchmark::State& st, int which) {
    const Text& t = text(which);
    iconv_t cd = iconv_open("UTF-8", "WCHAR_T");
    std::size_t units = t.wide.size() - 1;
    for (auto _ : st) {
        std::size_t inLeft = units * sizeof(wchar_t), outLeft = 4 * units;
        auto* out = static_cast<char*>(std::malloc(outLeft + 1));
        char* in = reinterpret_cast<char*>(const_cast<wchar_t*>(t.wide.data()));
        char* o = out;
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        iconv(cd, &in, &inLeft, &o, &outLeft);
        *o = '\0';
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    iconv_close(cd);
    done(st, t);
}
void from_wide_wcstombs(benchmark::State& st, int which) {
    const Text& t = text(which);
    utf8_locale_for_this_thread();
    std::size_t size = 4 * (t.wide.size() - 1) + 1;
    for (auto _ : st) {
        auto* out = static_cast<char*>(std::malloc(size));
        benchmark::DoNotOptimize(std::wcstombs(out, t.wide.data(), size));
        std::free(out);
    }
    done(st, t);
}

using Fn = void (*)(benchmark::State&, int);

void register_pairs(const char* function, Fn qosa, Fn iconvPeer, const char* libcName, Fn libcPeer) {
    for (int which = 0; which < 4; ++which) {
        std::string base = std::string(function) + "/" + kTextNames[which] + "/";
        for (auto [peerName, peer] : {std::pair<const char*, Fn>{"iconv", iconvPeer}, {libcName, libcPeer}}) {
            benchmark::RegisterBenchmark((base + peerName + ".qosa").c_str(), qosa, which)
                ->Unit(benchmark::kMicrosecond);
            benchmark::RegisterBenchmark((base + peerName + ".peer").c_str(), peer, which)
                ->Unit(benchmark::kMicrosecond);
        }
    }
}

const int s_registered = [] {
    register_pairs("utf8Str_to_unicodeStr", to_wide_qosa<u32, utf8Str_to_unicodeStr>, to_wide_iconv, "mbstowcs",
                   to_wide_mbstowcs);
    register_pairs("ORV_Utf8ToUnicodeW", to_wide_qosa<wchar_t, ORV_Utf8ToUnicodeW>, to_wide_iconv, "mbstowcs",
                   to_wide_mbstowcs);
    register_pairs("unicodeStr_to_utf8Str", from_wide_permissive, from_wide_iconv, "wcstombs", from_wide_wcstombs);
    register_pairs("ORV_UnicodeToUtf8", from_wide_table, from_wide_iconv, "wcstombs", from_wide_wcstombs);
    return 0;
}();

} // namespace
