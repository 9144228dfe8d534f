// Bounds-checked memory and string functions used throughout the library.
//
// Each takes the destination's full size (destMax). They return 0 on success
// and a non-zero error number on any violation; on a violation a destination
// that has room is left empty (first byte NUL; memcpy_s clears it whole).
// The formatting functions return a character count or -1.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qosa::bounded {

// Largest destination size accepted; anything larger is taken for a bad size.
inline constexpr std::size_t kMaxDest = 0x7FFFFFFFu;

// Error numbers of the violations.
inline constexpr int kEInval = 22;   // null pointer or bad size
inline constexpr int kERange = 34;   // the result does not fit
inline constexpr int kEOverlap = 54; // source and destination overlap

// The checks of the two hot memory functions are inline, so a good call costs
// a few compares more than the plain memcpy / memset; violations are handled
// out of line.
int memcpy_s_fail(void* dest, std::size_t destMax, const void* src, std::size_t count);
int memset_s_fail(void* dest, std::size_t destMax, int c, std::size_t count);

inline int memcpy_s(void* dest, std::size_t destMax, const void* src, std::size_t count) {
    auto d = reinterpret_cast<std::uintptr_t>(dest);
    auto s = reinterpret_cast<std::uintptr_t>(src);
    if (dest != nullptr && src != nullptr && destMax <= kMaxDest && count <= destMax && count != 0 &&
        (d + count <= s || s + count <= d)) [[likely]] {
        std::memcpy(dest, src, count);
        return 0;
    }
    return memcpy_s_fail(dest, destMax, src, count);
}

// Fills min(count, destMax) bytes; count > destMax is still reported.
inline int memset_s(void* dest, std::size_t destMax, int c, std::size_t count) {
    if (dest != nullptr && destMax != 0 && destMax <= kMaxDest && count <= destMax) [[likely]] {
        std::memset(dest, c, count);
        return 0;
    }
    return memset_s_fail(dest, destMax, c, count);
}
// Copies at most count characters of src and terminates.
int strncpy_s(char* dest, std::size_t destMax, const char* src, std::size_t count);
int strcat_s(char* dest, std::size_t destMax, const char* src);
int strncat_s(char* dest, std::size_t destMax, const char* src, std::size_t count);

// Characters written, or -1 when the text does not fit (dest emptied).
int sprintf_s(char* dest, std::size_t destMax, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
int vsprintf_s(char* dest, std::size_t destMax, const char* fmt, std::va_list args)
    __attribute__((format(printf, 3, 0)));
// Writes at most count characters (count < destMax). Characters written, or
// -1 when the text was cut (what fits stays, terminated) or on a violation.
int snprintf_s(char* dest, std::size_t destMax, std::size_t count, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
int vsnprintf_s(char* dest, std::size_t destMax, std::size_t count, const char* fmt, std::va_list args)
    __attribute__((format(printf, 4, 0)));

// sscanf with a buffer size (std::size_t) after the pointer of every %s, %c
// and %[ conversion. A %s or %[ takes at most size - 1 characters (a longer
// field is cut there and the scan goes on after the cut); a %c wider than its
// buffer, a %s or %[ buffer with no room for a character and the NUL, a null
// buffer or a size of 0 ends the scan with -1 before anything is read.
// Otherwise the result is sscanf's: the count of assigned items, or -1 on an
// input failure before the first conversion.
int sscanf_s(const char* buffer, const char* fmt, ...);

// Three-argument tokeniser: the position is kept in *context.
char* strtok_s(char* str, const char* delim, char** context);

} // namespace qosa::bounded
