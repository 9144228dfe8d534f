// Bounds-checked memory and string functions.
#include "bounded.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace qosa::bounded {
namespace {

bool bad_dest(const void* dest, std::size_t destMax) { return dest == nullptr || destMax == 0 || destMax > kMaxDest; }

bool overlap(const void* a, std::size_t alen, const void* b, std::size_t blen) {
    auto x = reinterpret_cast<std::uintptr_t>(a);
    auto y = reinterpret_cast<std::uintptr_t>(b);
    return x < y + blen && y < x + alen;
}

// Empties a usable destination after a violation and passes the error on.
int fail_str(char* dest, std::size_t destMax, int err) {
    if (!bad_dest(dest, destMax)) dest[0] = '\0';
    return err;
}

// Length of s, but stop counting at limit.
std::size_t bounded_len(const char* s, std::size_t limit) {
    const void* nul = std::memchr(s, '\0', limit);
    return nul ? static_cast<std::size_t>(static_cast<const char*>(nul) - s) : limit;
}

} // namespace

// The slow paths: work out which rule the call broke and leave the
// destination as a violation leaves it. The inline fast paths have served
// every call that breaks none.
int memcpy_s_fail(void* dest, std::size_t destMax, const void* src, std::size_t count) {
    if (bad_dest(dest, destMax)) return kEInval;
    if (src == nullptr || count > destMax) {
        std::memset(dest, 0, destMax);
        return src == nullptr ? kEInval : kERange;
    }
    if (count == 0 || dest == src) return 0;
    std::memset(dest, 0, destMax); // the ranges overlap
    return kEOverlap;
}

int memset_s_fail(void* dest, std::size_t destMax, int c, std::size_t /*count: above destMax*/) {
    if (bad_dest(dest, destMax)) return kEInval;
    std::memset(dest, c, destMax);
    return kERange;
}

int strncpy_s(char* dest, std::size_t destMax, const char* src, std::size_t count) {
    if (bad_dest(dest, destMax)) return kEInval;
    if (src == nullptr || count > kMaxDest) return fail_str(dest, destMax, kEInval);
    std::size_t n = bounded_len(src, count < destMax ? count : destMax);
    if (n >= destMax) return fail_str(dest, destMax, kERange);
    if (overlap(dest, n + 1, src, n + 1)) return fail_str(dest, destMax, kEOverlap);
    std::memcpy(dest, src, n);
    dest[n] = '\0';
    return 0;
}

int strncat_s(char* dest, std::size_t destMax, const char* src, std::size_t count) {
    if (bad_dest(dest, destMax)) return kEInval;
    if (src == nullptr || count > kMaxDest) return fail_str(dest, destMax, kEInval);
    std::size_t used = bounded_len(dest, destMax);
    if (used == destMax) return fail_str(dest, destMax, kEInval); // dest is not terminated
    std::size_t room = destMax - used;                            // includes the NUL
    std::size_t n = bounded_len(src, count < room ? count : room);
    if (n >= room) return fail_str(dest, destMax, kERange);
    if (overlap(dest, destMax, src, n + 1)) return fail_str(dest, destMax, kEOverlap);
    std::memcpy(dest + used, src, n);
    dest[used + n] = '\0';
    return 0;
}

int strcat_s(char* dest, std::size_t destMax, const char* src) { return strncat_s(dest, destMax, src, kMaxDest); }

int vsnprintf_s(char* dest, std::size_t destMax, std::size_t count, const char* fmt, std::va_list args) {
    if (bad_dest(dest, destMax) || fmt == nullptr || count >= destMax) {
        fail_str(dest, destMax, kEInval);
        return -1;
    }
    int n = std::vsnprintf(dest, count + 1, fmt, args);
    if (n < 0) {
        dest[0] = '\0';
        return -1;
    }
    return static_cast<std::size_t>(n) > count ? -1 : n;
}

int snprintf_s(char* dest, std::size_t destMax, std::size_t count, const char* fmt, ...) {
    std::va_list args;
    va_start(args, fmt);
    int n = vsnprintf_s(dest, destMax, count, fmt, args);
    va_end(args);
    return n;
}

int vsprintf_s(char* dest, std::size_t destMax, const char* fmt, std::va_list args) {
    if (bad_dest(dest, destMax) || fmt == nullptr) {
        fail_str(dest, destMax, kEInval);
        return -1;
    }
    int n = std::vsnprintf(dest, destMax, fmt, args);
    if (n < 0 || static_cast<std::size_t>(n) >= destMax) {
        dest[0] = '\0';
        return -1;
    }
    return n;
}

int sprintf_s(char* dest, std::size_t destMax, const char* fmt, ...) {
    std::va_list args;
    va_start(args, fmt);
    int n = vsprintf_s(dest, destMax, fmt, args);
    va_end(args);
    return n;
}

char* strtok_s(char* str, const char* delim, char** context) {
    if (delim == nullptr || context == nullptr) return nullptr;
    char* s = str ? str : *context;
    if (s == nullptr) return nullptr;
    s += std::strspn(s, delim);
    if (*s == '\0') {
        *context = s;
        return nullptr;
    }
    char* end = s + std::strcspn(s, delim);
    if (*end != '\0') *end++ = '\0';
    *context = end;
    return s;
}

// sscanf_s: the format is rewritten so that every %s, %c and %[ carries a
// width that fits its buffer, the pointers are collected, and the C library
// scans with the rewritten format (unused trailing arguments are ignored).
namespace {
constexpr int kMaxScanArgs = 32;
constexpr std::size_t kMaxScanFormat = 1024;
} // namespace

int sscanf_s(const char* buffer, const char* fmt, ...) {
    if (buffer == nullptr || fmt == nullptr) return -1;
    char out[kMaxScanFormat];
    std::size_t o = 0;
    void* ptrs[kMaxScanArgs] = {};
    int nptr = 0;
    bool ok = true;
    std::va_list ap;
    va_start(ap, fmt);
    auto put = [&](const char* s, std::size_t n) {
        if (o + n >= sizeof out) {
            ok = false;
            return;
        }
        std::memcpy(out + o, s, n);
        o += n;
    };
    for (const char* p = fmt; ok && *p;) {
        if (*p != '%') {
            put(p++, 1);
            continue;
        }
        const char* start = p++;
        if (*p == '%') {
            put("%%", 2);
            ++p;
            continue;
        }
        bool suppress = false;
        if (*p == '*') {
            suppress = true;
            ++p;
        }
        unsigned long width = 0;
        bool has_width = false;
        while (*p >= '0' && *p <= '9') {
            width = width * 10 + static_cast<unsigned long>(*p++ - '0');
            has_width = true;
            if (width > kMaxDest) ok = false;
        }
        const char* lenmod = p;
        while (*p && std::strchr("hlLqjzt", *p))
            ++p;
        std::size_t lenmod_len = static_cast<std::size_t>(p - lenmod);
        char conv = *p;
        if (conv == '\0') {
            ok = false;
            break;
        }
        const char* set_begin = p;
        if (conv == '[') { // scanset: a ']' right after '[' or '[^' belongs to the set
            ++p;
            if (*p == '^') ++p;
            if (*p == ']') ++p;
            while (*p && *p != ']')
                ++p;
            if (*p != ']') {
                ok = false;
                break;
            }
        }
        ++p; // past the conversion letter or the closing ']'
        if (suppress || conv == 'n' || !std::strchr("sc[", conv)) {
            put(start, static_cast<std::size_t>(p - start));
            if (!suppress) {
                if (nptr == kMaxScanArgs) {
                    ok = false;
                    break;
                }
                ptrs[nptr++] = va_arg(ap, void*);
            }
            continue;
        }
        void* target = va_arg(ap, void*);
        std::size_t size = va_arg(ap, std::size_t);
        if (nptr == kMaxScanArgs || target == nullptr || size == 0) {
            ok = false;
            break;
        }
        unsigned long w;
        if (conv == 'c') {
            w = has_width ? width : 1;
            if (w > size) {
                ok = false;
                break;
            }
        } else {
            w = has_width && width < size - 1 ? width : static_cast<unsigned long>(size - 1);
            if (w == 0) { // no room for even one character besides the NUL
                ok = false;
                break;
            }
        }
        char conversion[32];
        int n = std::snprintf(conversion, sizeof conversion, "%%%lu%.*s", w, static_cast<int>(lenmod_len), lenmod);
        put(conversion, static_cast<std::size_t>(n));
        put(set_begin, static_cast<std::size_t>(p - set_begin));
        ptrs[nptr++] = target;
    }
    va_end(ap);
    if (!ok) return -1;
    out[o] = '\0';
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#endif
    return std::sscanf(buffer, out, ptrs[0], ptrs[1], ptrs[2], ptrs[3], ptrs[4], ptrs[5], ptrs[6], ptrs[7], ptrs[8],
                       ptrs[9], ptrs[10], ptrs[11], ptrs[12], ptrs[13], ptrs[14], ptrs[15], ptrs[16], ptrs[17],
                       ptrs[18], ptrs[19], ptrs[20], ptrs[21], ptrs[22], ptrs[23], ptrs[24], ptrs[25], ptrs[26],
                       ptrs[27], ptrs[28], ptrs[29], ptrs[30], ptrs[31]);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
}

} // namespace qosa::bounded
