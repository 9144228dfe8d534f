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
    u32 len = qosa::str_len(s);
    if (len == 0) return s;
    for (u32 i = 0; i < len; ++i)
        s[i] = static_cast<char>(Convert(static_cast<signed char>(s[i])));
    s[len] = '\0';
    return s;
}

} // namespace

extern "C" {

u32 QOSA_StrLen(const char* s) { return qosa::str_len(s); }
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
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(s, &end, 0);
    *out = static_cast<s32>(static_cast<u32>(static_cast<unsigned long>(v)));
    if (errno == ERANGE || end == s) {
        errno = 0;
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

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cwchar>
#include <fcntl.h>
#include <locale.h>
#include <unistd.h>

#include "qosa_mem.h"
#include "qosa_text.h"
#include "internal/mem_switch.h"
#include "internal/tracked.h"
#include "internal/utf8.h"

// Wide units are read as s32 whatever the signedness of wchar_t (signed on
// x86-64, unsigned on arm64), so both see the same values.
static_assert(sizeof(wchar_t) == 4, "wide strings are 32-bit units");
static_assert(sizeof(QOSA_UTF8_TB_S) == 32 && offsetof(QOSA_UTF8_TB_S, shift) == 8 &&
                  offsetof(QOSA_UTF8_TB_S, lmask) == 16 && offsetof(QOSA_UTF8_TB_S, lval) == 24,
              "sequence table row layout");

namespace qosa::text {

namespace {

// The name of the character-type locale the environment asks for: what
// setlocale(LC_CTYPE, "") would use.
const char* env_ctype_name() {
    for (const char* var : {"LC_ALL", "LC_CTYPE", "LANG"})
        if (const char* v = std::getenv(var); v != nullptr && v[0] != '\0') return v;
    return "C";
}

// Every locale object made, keyed by the name it was made from. Objects are
// never freed (another thread may still be converting under one) and are
// few: one per locale name the environment has named.
struct EnvLocale {
    EnvLocale* next;
    locale_t loc;
    char name[1]; // the rest of the name follows
};
std::atomic<EnvLocale*> s_envLocales{nullptr};

locale_t find_locale(EnvLocale* from, const char* name) {
    for (; from != nullptr; from = from->next)
        if (std::strcmp(from->name, name) == 0) return from->loc;
    return nullptr;
}

// The object for name, made and kept on first use; NULL when it cannot be
// made now (no memory, no descriptor), which is not remembered.
locale_t keep_locale(const char* name) {
    EnvLocale* head = s_envLocales.load(std::memory_order_acquire);
    if (locale_t l = find_locale(head, name)) return l;
    // The C library remembers a locale file it once failed to open for the
    // rest of the process, so without a free descriptor give up before
    // asking it.
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    close(fd);
    locale_t made = newlocale(LC_CTYPE_MASK, name, nullptr);
    if (made == nullptr) return nullptr;
    std::size_t len = std::strlen(name);
    // Process-lifetime bookkeeping of the library's own: plain malloc, so it
    // never shows in a caller's memory report.
    auto* node = static_cast<EnvLocale*>(std::malloc(sizeof(EnvLocale) + len));
    if (node == nullptr) {
        freelocale(made);
        return nullptr;
    }
    node->loc = made;
    std::memcpy(node->name, name, len + 1);
    node->next = head;
    while (
        !s_envLocales.compare_exchange_weak(node->next, node, std::memory_order_acq_rel, std::memory_order_acquire)) {
        // Others added objects meanwhile: search just those.
        for (EnvLocale* e = node->next; e != head; e = e->next)
            if (std::strcmp(e->name, name) == 0) {
                freelocale(made);
                std::free(node);
                return e->loc;
            }
        head = node->next;
    }
    return made;
}

// The environment's character-type locale as it is now. A name that is not
// installed means C, as it leaves setlocale in C; running out of memory or
// descriptors gives NULL.
locale_t env_locale() {
    const char* name = env_ctype_name();
    if (locale_t l = keep_locale(name)) return l;
    if (errno == ENOMEM || errno == EMFILE || errno == ENFILE) return nullptr;
    return keep_locale("C");
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
    auto* out = size != 0 ? QOSA_ALLOC_N(char, size) : nullptr;
    if (out == nullptr) return nullptr;
    memset_s(out, size, 0, size);
    std::wcstombs(out, wide, size);
    return out;
}

wchar_t* locale_to_wide(const char* text) {
    ThreadLocale in_env;
    if (!in_env.active()) return nullptr;
    std::size_t count = std::mbstowcs(nullptr, text, 0) + 1; // wraps to 0 like the size above
    auto* out = count != 0 ? QOSA_ALLOC_N(wchar_t, count) : nullptr;
    if (out == nullptr) return nullptr;
    std::wmemset(out, 0, count);
    std::mbstowcs(out, text, count);
    return out;
}

// The strict decode into one block (see ORV_Utf8ToUnicodeW).
wchar_t* utf8_to_wide(const char* utf8) {
    if (utf8 == nullptr) return nullptr;
    std::size_t n = std::strlen(utf8);
    // At most one unit per byte: one block, filled in a single pass.
    auto* out = QOSA_ALLOC_N(wchar_t, n + 1);
    if (out == nullptr) return nullptr;
    std::size_t k = qosa::utf8::decode<qosa::utf8::Rule::Strict>(reinterpret_cast<const u8*>(utf8), n, out, n);
    out[k] = 0;
    // Multi-byte text leaves most of the block unused: hand back a fitting one.
    if (n >= 1024 && (k + 1) * 2 <= n + 1) {
        auto* fit = QOSA_ALLOC_N(wchar_t, k + 1);
        if (fit != nullptr) {
            memcpy_s(fit, (k + 1) * sizeof(wchar_t), out, (k + 1) * sizeof(wchar_t));
            QOSA_RELEASE(out);
            out = fit;
        }
    }
    return out;
}

// The encode into a block of six bytes a unit (see ORV_UnicodeToUtf8).
char* wide_to_utf8(const wchar_t* unicode) {
    if (unicode == nullptr) return nullptr;
    std::size_t n = std::wcslen(unicode);
    std::size_t size = 6 * n + 1;
    auto* out = QOSA_ALLOC_N(u8, size);
    if (out == nullptr) return nullptr;
    u8* p = qosa::utf8::encode<qosa::utf8::Units::Signed>(unicode, n, out, out + size - 1);
    // The block keeps room for six bytes a unit: zeros from the terminator to
    // its end, written only where the text did not reach.
    std::size_t tail = size - static_cast<std::size_t>(p - out);
    for (std::size_t at = 0; at < tail; at += qosa::bounded::kMaxDest) { // a bounded clear takes under 2 GiB at once
        std::size_t n = std::min(tail - at, qosa::bounded::kMaxDest);
        memset_s(p + at, n, 0, n);
    }
    return reinterpret_cast<char*>(out);
}

} // namespace

} // namespace qosa::text

using namespace qosa::text;

extern "C" {

wchar_t* ORV_Utf8ToUnicodeW(const char* utf8) { return utf8_to_wide(utf8); }
char* ORV_UnicodeToUtf8(const wchar_t* unicode) { return wide_to_utf8(unicode); }

char* ORV_Utf8ToUnicodeA(const char* utf8) {
    wchar_t* wide = utf8_to_wide(utf8);
    if (wide == nullptr) return nullptr;
    std::size_t units = std::wcslen(wide);
    std::size_t size = (units + 1) * sizeof(wchar_t);
    auto* out = QOSA_ALLOC_N(char, size);
    if (out == nullptr) {
        QOSA_RELEASE(wide);
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
    QOSA_RELEASE(wide);
    return out;
}

char* ORV_UnicodeToLocale(const wchar_t* unicode) {
    return guarded<char*>(nullptr, need(unicode), [=] { return wide_to_locale(unicode); });
}

wchar_t* ORV_LocaleToUnicodeW(const char* text) {
    return guarded<wchar_t*>(nullptr, need(text), [=] { return locale_to_wide(text); });
}

char* ORV_LocaleToUtf8(const char* text) {
    wchar_t* wide = text != nullptr ? locale_to_wide(text) : nullptr;
    char* utf8 = wide_to_utf8(wide);
    QOSA_RELEASE(wide);
    return utf8;
}

char* ORV_Utf8ToLocale(const char* utf8) {
    wchar_t* wide = utf8_to_wide(utf8);
    char* text = wide != nullptr ? wide_to_locale(wide) : nullptr;
    QOSA_RELEASE(wide);
    return text;
}

void ORV_StrMemFree(void* p) {
    if (p != nullptr) QOSA_RELEASE(p);
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
