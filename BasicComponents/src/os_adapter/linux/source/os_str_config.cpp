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

template <int (*Convert)(int)> char* convert_case(char* s) {
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
    for (std::size_t i = 0; i < keep; ++i) buffer[i] = digits[len - 1 - i];
    buffer[keep] = '\0';
    return keep == len ? static_cast<s64>(len) : -1;
}

} // extern "C"
