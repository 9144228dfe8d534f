// Guarded entry points of the text conversions.
#include "guard_cases.h"
#include "qosa.h"

static u32 s_unit;

static GuardRows s_rows{
    {"utf8_to_unicode_NoUtf8", [] { return std::int64_t{utf8_to_unicode(nullptr, &s_unit)}; }, 0},
    {"utf8_to_unicode_NoUnicode",
     [] { return std::int64_t{utf8_to_unicode(reinterpret_cast<const u8*>("a"), nullptr)}; }, 0},
    {"unicode_to_utf8", [] { return as_flag(unicode_to_utf8(0x41, nullptr)); }, 0},
    {"get_utf8_strlen", [] { return std::int64_t{get_utf8_strlen(nullptr)}; }, 0},
    {"get_unicode_strlen", [] { return std::int64_t{get_unicode_strlen(nullptr)}; }, 0},
    {"unicodeStr_to_utf8Str", [] { return as_flag(unicodeStr_to_utf8Str(nullptr)); }, 0},
    {"ORV_Utf8ToUnicodeW", [] { return as_flag(ORV_Utf8ToUnicodeW(nullptr)); }, 0},
    {"ORV_Utf8ToUnicodeA", [] { return as_flag(ORV_Utf8ToUnicodeA(nullptr)); }, 0},
    {"ORV_UnicodeToUtf8", [] { return as_flag(ORV_UnicodeToUtf8(nullptr)); }, 0},
    {"ORV_UnicodeToLocale", [] { return as_flag(ORV_UnicodeToLocale(nullptr)); }, 0},
    {"ORV_LocaleToUnicodeW", [] { return as_flag(ORV_LocaleToUnicodeW(nullptr)); }, 0},
    {"ORV_LocaleToUtf8", [] { return as_flag(ORV_LocaleToUtf8(nullptr)); }, 0},
    {"ORV_Utf8ToLocale", [] { return as_flag(ORV_Utf8ToLocale(nullptr)); }, 0},
    {"ORV_StrMemFree", [] { return ORV_StrMemFree(nullptr), std::int64_t{0}; }, 0},
    {"ORV_Utf8Check", [] { return std::int64_t{ORV_Utf8Check(nullptr, 16)}; }, 1},
};
