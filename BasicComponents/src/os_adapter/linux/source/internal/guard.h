// The idiom of the thin wrappers: the refusal value and the guarded arguments
// are stated once, the platform call is kept apart.
//
//   int QOSA_RmDir(const char* path) { return guarded(-1, need(as_path(path)), [=] { return rmdir(path); }); }
//
// need() lists the arguments that must be present: a pointer is missing when
// it is null, a path (as_path) when it is missing or empty. When one is
// missing the refusal is returned and the call is not made (errno is left
// alone); otherwise the call's result is returned, converted to the result
// type (32-bit results keep the low bits): guarded<s32>(-1, ...) for a 32-bit
// result of a wider call, guarded<T*>(nullptr, ...) for a pointer result,
// guarded(nothing, ...) for a function without a result.
#pragma once

#include "str.h"

namespace qosa::detail {

struct PathArg {
    const char* p;
};
constexpr PathArg as_path(const char* p) { return PathArg{p}; }

inline bool missing(PathArg a) { return str_len(a.p) == 0; }
template <typename T>
constexpr bool missing(T* p) {
    return p == nullptr;
}

// True when every guarded argument is present.
template <typename... G>
inline bool need(G... args) {
    return !(missing(args) || ...);
}

// Result type of functions that return nothing.
struct Nothing {};
inline constexpr Nothing nothing{};

template <typename R, typename Call>
inline R guarded(R refusal, bool present, Call&& call) {
    if (!present) return refusal;
    return static_cast<R>(call());
}

template <typename Call>
inline void guarded(Nothing, bool present, Call&& call) {
    if (present) call();
}

} // namespace qosa::detail
