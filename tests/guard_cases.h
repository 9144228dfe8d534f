// The rows of the guard sweep (test_guards.cpp): the table (guards_table.cpp) and the macros that write it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <regex>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

// A call's result as the table's value: a pointer as 0 (null) or 1, nothing as 0, a number as it is.
template <class Call>
std::int64_t result_of(const Call& call) {
    using R = decltype(call());
    if constexpr (std::is_void_v<R>)
        return call(), 0;
    else if constexpr (std::is_pointer_v<R>)
        return call() != nullptr;
    else
        return static_cast<std::int64_t>(call());
}

// A present argument of whatever pointer type a call takes: zeroed storage (an object of any type a row needs
// fits).
struct Present {
    template <class T>
    operator T*() const {
        alignas(std::max_align_t) static char zeros[4096];
        return reinterpret_cast<T*>(zeros);
    }
};

struct GuardCase {
    std::string name;                   // the entry point, a suffix naming the missing argument when it has several
    std::function<std::int64_t()> call; // calls it with the missing argument
    std::int64_t refusal;               // what it must return
    int lastError = 0;                  // 0: the last error is left alone; else what the refusal sets
};

const std::vector<GuardCase>& guard_table();

// The table: each entry is one of the macros below.
inline std::vector<GuardCase> all_cases(std::initializer_list<std::vector<GuardCase>> rows) {
    std::vector<GuardCase> cases;
    for (const auto& row : rows)
        cases.insert(cases.end(), row.begin(), row.end());
    return cases;
}

// CASE(name, refusal, call): one case written out. SETS(error, ...): one whose refusal sets the last error.
#define SETS(error, name, refusal, ...) one_case(name, refusal, error, [] { return __VA_ARGS__; })
#define CASE(name, refusal, ...) SETS(0, name, refusal, __VA_ARGS__)

template <class Call>
std::vector<GuardCase> one_case(const char* name, std::int64_t refusal, int error, Call call) {
    return {{name, [call] { return result_of(call); }, refusal, error}};
}

// The names in a macro's spelled-out argument list: of each argument its last identifier, without a leading "s_".
inline std::vector<std::string> guard_names(const char* spelled) {
    static const std::regex lastWord(R"((?:s_)?(\w+)[^\w,]*(?:,|$))");
    std::vector<std::string> names;
    for (std::cregex_iterator it(spelled, spelled + std::strlen(spelled), lastWord), end; it != end; ++it)
        names.push_back((*it)[1]);
    return names;
}

// WITHOUT_ARGS(refusal, f, g, ...): f, g, ... each called with every argument null or zero, each refusing alike.
#define WITHOUT_ARGS(refusal, ...) without_args(guard_names(#__VA_ARGS__), refusal, __VA_ARGS__)

template <class R, class... A>
auto nothing_for(R (*fn)(A...)) {
    return [fn] { return result_of([fn] { return fn(A{}...); }); };
}
template <class... Fn>
std::vector<GuardCase> without_args(const std::vector<std::string>& names, std::int64_t refusal, Fn... fns) {
    std::size_t i = 0; // a braced list is evaluated in order
    return {{names[i++], nothing_for(fns), refusal}...};
}

// EACH_MISSING(refusal, (a, b, ...), f, g, ...): f(a, b, ...), g(a, b, ...), ... with one of their non-null
// pointer arguments null, for each of them in turn; the case is named f_<that argument>.
#define EACH_MISSING(refusal, args, ...)                                                                               \
    each_missing(guard_names(#args), guard_names(#__VA_ARGS__), refusal, std::make_tuple args, __VA_ARGS__)

template <std::size_t I, class R, class... A>
void add_without(std::vector<GuardCase>& cases, std::string name, std::int64_t refusal, R (*fn)(A...),
                 std::tuple<A...> args) {
    if constexpr (std::is_pointer_v<std::tuple_element_t<I, std::tuple<A...>>>)
        if (std::get<I>(args) != nullptr) {
            std::get<I>(args) = nullptr;
            cases.push_back({name, [fn, args] { return result_of([&] { return std::apply(fn, args); }); }, refusal});
        }
}
template <class R, class... A, class Given>
void add_each(std::vector<GuardCase>& cases, const std::string& fn_name, const std::vector<std::string>& names,
              std::int64_t refusal, R (*fn)(A...), const Given& given) {
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (add_without<I>(cases, fn_name + "_" + names[I], refusal, fn, std::tuple<A...>(given)), ...);
    }
    (std::index_sequence_for<A...>{});
}
template <class Given, class... Fn>
std::vector<GuardCase> each_missing(const std::vector<std::string>& names, const std::vector<std::string>& fn_names,
                                    std::int64_t refusal, const Given& given, Fn... fns) {
    std::vector<GuardCase> cases;
    std::size_t i = 0;
    (add_each(cases, fn_names[i++], names, refusal, fns, given), ...);
    return cases;
}
