// The idiom of the thin wrappers: state the guarded arguments and the refusal
// value once, keep the platform call apart.
//
//   int QOSA_RmDir(const char* path) { return guarded(-1, [=] { return rmdir(path); }, as_path(path)); }
//
// A guarded pointer is missing when it is null; a guarded path (as_path) when
// QOSA_StrLen of it is 0. When any guarded argument is missing the refusal is
// returned and the call is not made; otherwise the call's result is returned,
// converted to the wrapper's result type (32-bit results keep the low bits).
#pragma once

#include <type_traits>

#include "qosa_string.h"

namespace qosa::detail {

struct PathArg {
    const char* p;
};
constexpr PathArg as_path(const char* p) { return PathArg{p}; }

inline bool missing(PathArg a) { return QOSA_StrLen(a.p) == 0; }
template <typename T>
constexpr bool missing(T* p) {
    return p == nullptr;
}

// Result type of functions that return nothing.
struct Nothing {};
inline constexpr Nothing nothing{};

template <typename R, typename Call, typename... G>
inline R guarded(R refusal, Call&& call, G... args) {
    if ((missing(args) || ...)) return refusal;
    return static_cast<R>(call());
}

template <typename Call, typename... G>
inline void guarded(Nothing, Call&& call, G... args) {
    if ((missing(args) || ...)) return;
    call();
}

} // namespace qosa::detail
