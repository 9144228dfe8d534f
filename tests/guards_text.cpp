// Guarded entry points of the text conversions.
#include "guard_cases.h"
#include "qosa.h"

static const u8* const s_utf8 = reinterpret_cast<const u8*>("a");
static u32 s_unicode;

static GuardRows s_rows{
    WITHOUT_ARGS(0, unicode_to_utf8, get_utf8_strlen, get_unicode_strlen, unicodeStr_to_utf8Str, ORV_Utf8ToUnicodeW,
                 ORV_Utf8ToUnicodeA, ORV_UnicodeToUtf8, ORV_UnicodeToLocale, ORV_LocaleToUnicodeW, ORV_LocaleToUtf8,
                 ORV_Utf8ToLocale, ORV_StrMemFree),
    CASE("ORV_Utf8Check", 1, ORV_Utf8Check(nullptr, 16)),
    EACH_MISSING(utf8_to_unicode, 0, s_utf8, &s_unicode),
};
