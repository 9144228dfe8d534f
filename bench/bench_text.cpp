// The four UTF-8 <-> wide conversions on 1 MB texts against glibc's iconv
// doing the same conversion into a fresh buffer.
#include <iconv.h>

#include <cstdlib>
#include <cwchar>
#include <string>
#include <vector>

#include "bench.h"
#include "qosa_text.h"

namespace {

using bench::keep;
using bench::u64;

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

// n conversions with iconv of `bytes` input bytes into a buffer of outBytes,
// which is then terminated with `term` zero bytes.
void with_iconv(u64 n, const char* to, const char* from, const void* input, std::size_t bytes, std::size_t outBytes,
                std::size_t term) {
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) throw bench::Skip("iconv_open failed");
    for (u64 i = 0; i < n; ++i) {
        std::size_t inLeft = bytes, outLeft = outBytes;
        auto* out = static_cast<char*>(std::malloc(outBytes + term));
        char* in = static_cast<char*>(const_cast<void*>(input));
        char* o = out;
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        iconv(cd, &in, &inLeft, &o, &outLeft);
        for (std::size_t k = 0; k < term; ++k)
            o[k] = 0;
        keep(out);
        std::free(out);
    }
    iconv_close(cd);
}

const bench::Registrar reg([] {
    for (int w = 0; w < 4; ++w) {
        std::string on = std::string(".") + kTextNames[w];
        auto to_wide = [w](u64 n) {
            const Text& t = text(w);
            with_iconv(n, "WCHAR_T", "UTF-8", t.utf8.data(), t.utf8.size(), t.utf8.size() * sizeof(wchar_t),
                       sizeof(wchar_t));
        };
        auto from_wide = [w](u64 n) {
            const Text& t = text(w);
            std::size_t units = t.wide.size() - 1;
            with_iconv(n, "UTF-8", "WCHAR_T", t.wide.data(), units * sizeof(wchar_t), 4 * units, 1);
        };
        bench::pair(
            "text.utf8Str_to_unicodeStr" + on, "utf8Str_to_unicodeStr",
            [w](u64 n) {
                for (u64 i = 0; i < n; ++i) {
                    u32* s = utf8Str_to_unicodeStr(text(w).utf8.c_str());
                    keep(s);
                    ORV_StrMemFree(s);
                }
            },
            "iconv UTF-8 → WCHAR_T", to_wide);
        bench::pair(
            "text.ORV_Utf8ToUnicodeW" + on, "ORV_Utf8ToUnicodeW",
            [w](u64 n) {
                for (u64 i = 0; i < n; ++i) {
                    wchar_t* s = ORV_Utf8ToUnicodeW(text(w).utf8.c_str());
                    keep(s);
                    ORV_StrMemFree(s);
                }
            },
            "iconv UTF-8 → WCHAR_T", to_wide);
        bench::pair(
            "text.unicodeStr_to_utf8Str" + on, "unicodeStr_to_utf8Str",
            [w](u64 n) {
                for (u64 i = 0; i < n; ++i) {
                    char* s = unicodeStr_to_utf8Str(text(w).units.data());
                    keep(s);
                    ORV_StrMemFree(s);
                }
            },
            "iconv WCHAR_T → UTF-8", from_wide);
        bench::pair(
            "text.ORV_UnicodeToUtf8" + on, "ORV_UnicodeToUtf8",
            [w](u64 n) {
                for (u64 i = 0; i < n; ++i) {
                    char* s = ORV_UnicodeToUtf8(text(w).wide.data());
                    keep(s);
                    ORV_StrMemFree(s);
                }
            },
            "iconv WCHAR_T → UTF-8", from_wide);
    }
});

} // namespace
