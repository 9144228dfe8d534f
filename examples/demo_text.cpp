// Demo section: one mixed-script line between UTF-8, wide characters and the
// user's locale.
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <initializer_list>

#include "demo.h"
#include "qosa.h"

namespace {

const char* env_locale_name() {
    for (const char* var : {"LC_ALL", "LC_CTYPE", "LANG"})
        if (const char* v = std::getenv(var); v != nullptr && *v != '\0') return v;
    return "C";
}

void show_bytes(const char* label, const char* s) {
    std::printf("%-22s", label);
    if (s == nullptr) {
        std::printf("(null: not expressible)\n");
        return;
    }
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(s); *p != 0; ++p)
        std::printf(*p < 0x80 ? "%c" : "\\x%02X", *p);
    std::printf("  [%zu bytes]\n", std::strlen(s));
}

void run() {
    const char* line = "Gr\xC3\xBC\xC3\x9F Gott, \xCE\xA9 \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80";
    demo::heading("UTF-8 -> wide -> UTF-8");
    show_bytes("UTF-8 line", line);
    wchar_t* wide = ORV_Utf8ToUnicodeW(line);
    std::printf("%-22s", "wide units");
    for (const wchar_t* w = wide; *w != 0; ++w)
        std::printf("%X ", static_cast<unsigned>(*w));
    std::printf(" [%zu units]\n", std::wcslen(wide));
    char* back = ORV_UnicodeToUtf8(wide);
    std::printf("%-22s%s\n", "back to UTF-8", std::strcmp(back, line) == 0 ? "identical" : "DIFFERENT");

    demo::heading("invalid input");
    const char* broken = "ok\xC0\x80-\xE4-\xFF!";
    wchar_t* cleaned = ORV_Utf8ToUnicodeW(broken);
    char* cleanedUtf8 = ORV_UnicodeToUtf8(cleaned);
    show_bytes("overlong, cut, stray", broken);
    show_bytes("validated", cleanedUtf8);
    char* latin1 = ORV_Utf8ToUnicodeA("caf\xC3\xA9");
    show_bytes("to ISO 8859-1", latin1);

    demo::heading("the locale");
    std::printf("environment locale    %s (process LC_CTYPE stays \"%s\")\n", env_locale_name(),
                std::setlocale(LC_CTYPE, nullptr));
    char* local = ORV_Utf8ToLocale(line);
    show_bytes("UTF-8 -> locale", local);
    char* ascii = ORV_Utf8ToLocale("plain ASCII");
    show_bytes("ASCII -> locale", ascii);

    demo::heading("fitting a buffer");
    char buf[5];
    std::memcpy(buf, line, sizeof buf);
    u32 cut = ORV_Utf8Check(buf, sizeof buf);
    std::printf("5-byte buffer: check -> %u, keeps \"%s\" (the half sequence before the NUL is gone)\n", cut, buf);

    for (void* p : {static_cast<void*>(wide), static_cast<void*>(back), static_cast<void*>(cleaned),
                    static_cast<void*>(cleanedUtf8), static_cast<void*>(latin1), static_cast<void*>(local),
                    static_cast<void*>(ascii)})
        ORV_StrMemFree(p);
}

} // namespace

static demo::Section s_section{70, "text: UTF-8, wide and locale conversions", run};
