// String utilities.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "internal/common.h"
#include "qosa_error.h"
#include "qosa_string.h"

namespace {

template <int (*Convert)(int)>
char* convert_case(char* s) {
    u32 len = QOSA_StrLen(s);
    if (len == 0) return s;
    for (u32 i = 0; i < len; ++i)
        s[i] = static_cast<char>(Convert(static_cast<signed char>(s[i])));
    s[len] = '\0';
    return s;
}

} // namespace

extern "C" {

u32 QOSA_StrLen(const char* s) { return s ? static_cast<u32>(std::strlen(s)) : 0; }
int QOSA_StrCmp(const char* a, const char* b) { return std::strcmp(a, b); }
int QOSA_StrNCmp(const char* a, const char* b, u32 n) { return std::strncmp(a, b, n); }
int QOSA_StriCmp(const char* a, const char* b) { return strcasecmp(a, b); }
int QOSA_StriNCmp(const char* a, const char* b, u32 n) { return strncasecmp(a, b, n); }
char* QOSA_StrStr(const char* s, const char* sub) { return const_cast<char*>(std::strstr(s, sub)); }
char* QOSA_StrChr(const char* s, int c) { return const_cast<char*>(std::strchr(s, c)); }
char* QOSA_StrrChr(const char* s, int c) { return const_cast<char*>(std::strrchr(s, c)); }
long QOSA_Strtol(const char* s, char** end, int base) { return std::strtol(s, end, base); }
unsigned long QOSA_Strtoul(const char* s, char** end, int base) { return std::strtoul(s, end, base); }
int QOSA_StrToInt(const char* s) { return std::atoi(s); }
float QOSA_StrToFloat(const char* s) { return static_cast<float>(std::atof(s)); }
int QOSA_CharToLower(int c) { return static_cast<signed char>(std::tolower(c)); }
int QOSA_CharToUpper(int c) { return static_cast<signed char>(std::toupper(c)); }
char* QOSA_StrTok_S(char* s, const char* delim, char** context) { return strtok_s(s, delim, context); }

char* QOSA_StrToUper(char* s) { return convert_case<std::toupper>(s); }
char* QOSA_StrToLower(char* s) { return convert_case<std::tolower>(s); }

u32 QOSA_StrToInt32(const char* s, s32* out) {
    if (s == nullptr || out == nullptr) return 1;
    // A range error left over from an earlier call must not fail this one.
    QOSA_SetLastErr(0);
    char* end = nullptr;
    long v = std::strtol(s, &end, 0);
    *out = static_cast<s32>(static_cast<u32>(static_cast<unsigned long>(v)));
    if (QOSA_GetLastErr() == ERANGE || end == s) {
        QOSA_SetLastErr(0);
        return 1;
    }
    return 0;
}

char* QOSA_IntToStr(s32 value, char* buffer) {
    sprintf_s(buffer, 11, "%d", value);
    return buffer;
}

char* QOSA_FloatToStr(char* buffer, float value) {
    sprintf_s(buffer, 11, "%f", static_cast<double>(value));
    return buffer;
}

s64 QOSA_Ultostr(char* buffer, u64 size, u32 value, u32 radix) {
    if (size == 0) return -1;
    // Octal for 8, lower-case hexadecimal for 16, decimal for any other radix;
    // at most 12 bytes of the buffer are touched (11 octal digits and the NUL).
    const u32 base = radix == 8 || radix == 16 ? radix : 10;
    char digits[12];
    std::size_t len = 0;
    do {
        digits[len++] = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    std::size_t n = size < 12 ? static_cast<std::size_t>(size) : 12;
    if (buffer == nullptr) return -1;
    // Like a bounded print of n - 1 characters: a longer text is cut and refused.
    std::size_t keep = len < n - 1 ? len : n - 1;
    for (std::size_t i = 0; i < keep; ++i)
        buffer[i] = digits[len - 1 - i];
    buffer[keep] = '\0';
    return keep == len ? static_cast<s64>(len) : -1;
}

} // extern "C"

// ===========================================================================
// Text conversions: validating UTF-8 decoder, table-driven encoder, the
// locale conversions and the in-place sequence check. Every string returned
// is a new block released with ORV_StrMemFree.
// ===========================================================================
#define QOSA_UNIT_NAME "os_str_config.c"

#include <array>
#include <atomic>
#include <cstddef>
#include <cwchar>
#include <locale.h>

#include "qosa_mem.h"
#include "qosa_text.h"

static_assert(sizeof(wchar_t) == 4 && static_cast<wchar_t>(-1) < 0, "wide strings are signed 32-bit units");
static_assert(sizeof(QOSA_UTF8_TB_S) == 32 && offsetof(QOSA_UTF8_TB_S, shift) == 8 &&
                  offsetof(QOSA_UTF8_TB_S, lmask) == 16 && offsetof(QOSA_UTF8_TB_S, lval) == 24,
              "sequence table row layout");

namespace qosa::text {

namespace {

// Blocks are recorded with the line of the call that takes or releases them.
void* take(std::size_t bytes, u32 line) {
    return QOSA_MemTypeMallocD(static_cast<u32>(bytes), QOSA_MEM_DYN, line, QOSA_UNIT_NAME);
}
void give_back(void* p, u32 line) { QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, line, QOSA_UNIT_NAME); }

// Block sizes are 32-bit byte counts: refuse a text whose block would not fit.
constexpr std::size_t kMaxBlock = 0xFFFFFFFFu;
constexpr u64 kHighBits = 0x8080808080808080ull;
// Four two-byte sequences in an eight-byte word: a lead 110xxxxx at each even
// position, a continuation byte after it.
constexpr u64 kPairMask = 0xC0E0C0E0C0E0C0E0ull;
constexpr u64 kPairs = 0x80C080C080C080C0ull;

inline u64 load8(const u8* p) {
    u64 w;
    std::memcpy(&w, p, sizeof w);
    return w;
}

// None of the four leads is 0xC0 or 0xC1, which only start overlong forms.
inline bool two_byte_leads_ok(u64 w) {
    return (w & 0x1E) != 0 && (w & 0x1E0000) != 0 && (w & 0x1E00000000) != 0 && (w & 0x1E000000000000) != 0;
}

// Length of a valid sequence from its lead byte; 0 for bytes that cannot lead
// one (continuation bytes, 0xFE, 0xFF). ASCII is handled before the lookup.
constexpr u8 valid_length(u8 b) {
    if ((b & 0xE0) == 0xC0) return 2;
    if ((b & 0xF0) == 0xE0) return 3;
    if ((b & 0xF8) == 0xF0) return 4;
    if ((b & 0xFC) == 0xF8) return 5;
    if ((b & 0xFE) == 0xFC) return 6;
    return 0;
}
constexpr auto kValidLength = [] {
    std::array<u8, 256> t{};
    for (unsigned b = 0; b < 256; ++b)
        t[b] = valid_length(static_cast<u8>(b));
    return t;
}();

// Decodes the n bytes at s into out (room for n units), keeping the valid
// sequences. An invalid or overlong sequence loses its lead byte only: the
// bytes after it are looked at again as lead bytes. The terminator is never a
// continuation byte, so nothing past s[n] is read.
std::size_t decode_valid(const u8* s, std::size_t n, wchar_t* out) {
    auto cont = [s](std::size_t at) { return (s[at] & 0xC0) == 0x80; };
    std::size_t i = 0, k = 0;
    while (i < n) {
        u8 b = s[i];
        if (b < 0x80) {
            if (i + 8 <= n && (load8(s + i) & kHighBits) == 0) {
                for (int j = 0; j < 8; ++j)
                    out[k + j] = s[i + j];
                k += 8;
                i += 8;
                continue;
            }
            out[k++] = b;
            ++i;
            continue;
        }
        // The common lengths first; each test reads a byte only once the
        // bytes before it proved to be continuation bytes.
        u32 v;
        unsigned len;
        if (b < 0xE0) {
            // Runs of two-byte sequences (Latin, Greek, Cyrillic, ...) four at a time.
            std::size_t start = i;
            u64 w;
            while (i + 8 <= n && ((w = load8(s + i)) & kPairMask) == kPairs && two_byte_leads_ok(w)) {
                for (int j = 0; j < 4; ++j)
                    out[k + j] = static_cast<wchar_t>((w >> (16 * j) & 0x1F) << 6 | (w >> (16 * j + 8) & 0x3F));
                k += 4;
                i += 8;
            }
            if (i != start) continue;
            len = 2;
            if (b < 0xC2 || !cont(i + 1)) { // 0xC0 and 0xC1 only lead overlong forms
                ++i;
                continue;
            }
            v = (b & 0x1Fu) << 6 | (s[i + 1] & 0x3Fu);
        } else if (b < 0xF0) {
            len = 3;
            if (!cont(i + 1) || !cont(i + 2)) {
                ++i;
                continue;
            }
            v = (b & 0x0Fu) << 12 | (s[i + 1] & 0x3Fu) << 6 | (s[i + 2] & 0x3Fu);
        } else if (b < 0xF8) {
            len = 4;
            if (!cont(i + 1) || !cont(i + 2) || !cont(i + 3)) {
                ++i;
                continue;
            }
            v = (b & 0x07u) << 18 | (s[i + 1] & 0x3Fu) << 12 | (s[i + 2] & 0x3Fu) << 6 | (s[i + 3] & 0x3Fu);
        } else {
            // Five- and six-byte forms, and the bytes that cannot lead.
            len = kValidLength[b];
            u64 w = b;
            unsigned j = 1;
            for (; j < len && cont(i + j); ++j)
                w = (w << 6) | (s[i + j] & 0x3Fu);
            if (len == 0 || j < len) {
                ++i;
                continue;
            }
            v = static_cast<u32>(w & static_cast<u64>(utf8TB[len - 1].lmask));
        }
        if (v < utf8TB[len - 1].lval) { // overlong
            ++i;
            continue;
        }
        out[k++] = static_cast<wchar_t>(v);
        i += len;
    }
    return k;
}

// Row of the sequence table for a unit taken as signed: negative units and
// everything up to 0x7F are written as one byte.
inline unsigned encode_row(s32 c) {
    return c <= 0x7F ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : c < 0x200000 ? 3 : c <= 0x3FFFFFF ? 4 : 5;
}

// The character-type locale of the environment, made on first use and kept
// for the process. Conversions install it for the calling thread only.
std::atomic<locale_t> s_envLocale{nullptr};

locale_t env_locale() {
    locale_t l = s_envLocale.load(std::memory_order_acquire);
    if (l != nullptr) return l;
    // An environment naming a locale that is not installed leaves the
    // conversions in the C locale.
    locale_t made = newlocale(LC_CTYPE_MASK, "", nullptr);
    if (made == nullptr) made = newlocale(LC_CTYPE_MASK, "C", nullptr);
    if (made == nullptr) return nullptr;
    locale_t expected = nullptr;
    if (s_envLocale.compare_exchange_strong(expected, made, std::memory_order_acq_rel)) return made;
    freelocale(made);
    return expected;
}

// The environment's locale for the calling thread, for one conversion.
class ThreadLocale {
  public:
    ThreadLocale() {
        locale_t l = env_locale();
        if (l != nullptr) prev_ = uselocale(l);
    }
    ~ThreadLocale() {
        if (prev_ != nullptr) uselocale(prev_);
    }
    ThreadLocale(const ThreadLocale&) = delete;
    ThreadLocale& operator=(const ThreadLocale&) = delete;
    bool active() const { return prev_ != nullptr; }

  private:
    locale_t prev_ = nullptr;
};

char* wide_to_locale(const wchar_t* wide) {
    ThreadLocale in_env;
    if (!in_env.active()) return nullptr;
    // Text the locale cannot express measures (size_t)-1, so the size wraps to 0.
    std::size_t size = std::wcstombs(nullptr, wide, 0) + 1;
    if (size == 0 || size > kMaxBlock) return nullptr;
    auto* out = static_cast<char*>(take(size, __LINE__));
    if (out == nullptr) return nullptr;
    memset_s(out, size, 0, size);
    std::wcstombs(out, wide, size);
    return out;
}

wchar_t* locale_to_wide(const char* text) {
    ThreadLocale in_env;
    if (!in_env.active()) return nullptr;
    std::size_t count = std::mbstowcs(nullptr, text, 0) + 1;
    if (count == 0 || count > kMaxBlock / sizeof(wchar_t)) return nullptr;
    auto* out = static_cast<wchar_t*>(take(count * sizeof(wchar_t), __LINE__));
    if (out == nullptr) return nullptr;
    std::wmemset(out, 0, count);
    std::mbstowcs(out, text, count);
    return out;
}

} // namespace

// Forgets the cached locale so that the next conversion reads the environment
// again. For tests only: no conversion may be running.
void reset_env_locale() {
    locale_t l = s_envLocale.exchange(nullptr, std::memory_order_acq_rel);
    if (l != nullptr) freelocale(l);
}

} // namespace qosa::text

using namespace qosa::text;

extern "C" {

wchar_t* ORV_Utf8ToUnicodeW(const char* utf8) {
    if (utf8 == nullptr) return nullptr;
    std::size_t n = std::strlen(utf8);
    // At most one unit per byte: one block, filled in a single pass.
    if (n + 1 > kMaxBlock / sizeof(wchar_t)) return nullptr;
    auto* out = static_cast<wchar_t*>(take((n + 1) * sizeof(wchar_t), __LINE__));
    if (out == nullptr) return nullptr;
    std::size_t k = decode_valid(reinterpret_cast<const u8*>(utf8), n, out);
    out[k] = 0;
    // Multi-byte text leaves most of the block unused: hand back a fitting one.
    if (n >= 1024 && (k + 1) * 2 <= n + 1) {
        auto* fit = static_cast<wchar_t*>(take((k + 1) * sizeof(wchar_t), __LINE__));
        if (fit != nullptr) {
            memcpy_s(fit, (k + 1) * sizeof(wchar_t), out, (k + 1) * sizeof(wchar_t));
            give_back(out, __LINE__);
            out = fit;
        }
    }
    return out;
}

char* ORV_Utf8ToUnicodeA(const char* utf8) {
    wchar_t* wide = ORV_Utf8ToUnicodeW(utf8);
    if (wide == nullptr) return nullptr;
    std::size_t units = std::wcslen(wide);
    std::size_t size = (units + 1) * sizeof(wchar_t);
    auto* out = size <= kMaxBlock ? static_cast<char*>(take(size, __LINE__)) : nullptr;
    if (out == nullptr) {
        give_back(wide, __LINE__);
        return nullptr;
    }
    // The non-zero bytes of every unit, in storage order (least significant first).
    std::size_t k = 0;
    for (std::size_t i = 0; i < units; ++i) {
        u32 c = static_cast<u32>(wide[i]);
        if (c < 0x100) {
            out[k++] = static_cast<char>(c);
            continue;
        }
        for (int shift = 0; shift < 32; shift += 8)
            if (u8 byte = static_cast<u8>(c >> shift); byte != 0) out[k++] = static_cast<char>(byte);
    }
    out[k] = '\0';
    memset_s(out + k + 1, size - k - 1, 0, size - k - 1);
    give_back(wide, __LINE__);
    return out;
}

char* ORV_UnicodeToUtf8(const wchar_t* unicode) {
    if (unicode == nullptr) return nullptr;
    std::size_t n = std::wcslen(unicode);
    if (n > (kMaxBlock - 1) / 6) return nullptr;
    std::size_t size = 6 * n + 1;
    auto* out = static_cast<u8*>(take(size, __LINE__));
    if (out == nullptr) return nullptr;
    u8* p = out;
    for (std::size_t i = 0; i < n; ++i) {
        s32 c = unicode[i];
        if (static_cast<u32>(c) < 0x80) {
            if (i + 4 <= n && static_cast<u32>(c | unicode[i + 1] | unicode[i + 2] | unicode[i + 3]) < 0x80) {
                for (int j = 0; j < 4; ++j)
                    p[j] = static_cast<u8>(unicode[i + j]);
                p += 4;
                i += 3;
                continue;
            }
            *p++ = static_cast<u8>(c);
            continue;
        }
        const QOSA_UTF8_TB_S& row = utf8TB[encode_row(c)];
        int shift = row.shift;
        *p++ = static_cast<u8>((c >> shift) | row.cval);
        while (shift > 0) {
            shift -= 6;
            *p++ = static_cast<u8>(((c >> shift) & 0x3F) | 0x80);
        }
    }
    // The block keeps room for six bytes a unit; what follows the terminator
    // is left as the allocator gave it.
    *p = '\0';
    return reinterpret_cast<char*>(out);
}

char* ORV_UnicodeToLocale(const wchar_t* unicode) {
    return guarded<char*>(nullptr, need(unicode), [=] { return wide_to_locale(unicode); });
}

wchar_t* ORV_LocaleToUnicodeW(const char* text) {
    return guarded<wchar_t*>(nullptr, need(text), [=] { return locale_to_wide(text); });
}

char* ORV_LocaleToUtf8(const char* text) {
    wchar_t* wide = ORV_LocaleToUnicodeW(text);
    char* utf8 = ORV_UnicodeToUtf8(wide);
    give_back(wide, __LINE__);
    return utf8;
}

char* ORV_Utf8ToLocale(const char* utf8) {
    wchar_t* wide = ORV_Utf8ToUnicodeW(utf8);
    char* text = ORV_UnicodeToLocale(wide);
    give_back(wide, __LINE__);
    return text;
}

void ORV_StrMemFree(void* p) {
    if (p != nullptr) give_back(p, __LINE__);
}

u32 ORV_Utf8Check(char* buffer, s32 len) {
    if (buffer == nullptr || len == 0) return 1;
    if (len < 0) {
        buffer[0] = '\0';
        return 1;
    }
    // Only sequence starts are looked at; the last sequence goes when it does
    // not leave room for the terminator (so every step stays below len).
    for (s32 i = 0;;) {
        auto c = static_cast<u8>(buffer[i]);
        if (c == 0) return 0;
        s32 step = c >= 0xFC ? 6 : c >= 0xF8 ? 5 : c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
        if (step >= len - i) {
            buffer[i] = '\0';
            return 1;
        }
        i += step;
    }
}

} // extern "C"
