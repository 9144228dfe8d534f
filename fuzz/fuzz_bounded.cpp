// The bounds-checked layer against the C library. Every destination and
// source lives in a block of exactly its size, so a read past it is caught,
// and a write past a destination shows in the bytes around it. Where the
// result fits, each function must do what the C library function does; where
// it does not, what a violation leaves: the error number and an empty
// destination (or, for the formatted print, what fits). The number texts,
// case conversions and compare forwarders of the string family are checked
// here too.
#include <fuzzer/FuzzedDataProvider.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "internal/bounded.h"
#include "qosa_string.h"

namespace b = qosa::bounded;

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

// A block of exactly n bytes (at least one) holding the first n bytes of s.
struct Block {
    explicit Block(std::size_t n, const std::string& s = {}) : size(n), p(static_cast<char*>(std::malloc(n ? n : 1))) {
        std::memset(p, 'Z', size ? size : 1);
        std::memcpy(p, s.data(), s.size() < size ? s.size() : size);
    }
    ~Block() { std::free(p); }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    std::size_t size;
    char* p;
};

Block text(const std::string& s) { return Block(s.size() + 1, s + '\0'); }

std::size_t sized(FuzzedDataProvider& in, std::size_t near) {
    switch (in.ConsumeIntegralInRange(0, 7)) {
    case 0:
        return near;
    case 1:
        return near + 1;
    case 2:
        return near > 0 ? near - 1 : 0;
    case 3:
        return in.ConsumeIntegralInRange<std::size_t>(0, 64);
    case 4:
        return b::kMaxDest + in.ConsumeIntegralInRange<std::size_t>(1, 2); // a bad size, never written to
    default:
        return in.ConsumeIntegralInRange<std::size_t>(0, 300);
    }
}

// A destination of room bytes at `at` holding head (with its NUL, as far as
// it fits) and a text with its NUL at `from`, in one block of exactly their
// extent: apart, the text comes last; else each may start anywhere, so the
// two may overlap.
struct Shared {
    Shared(FuzzedDataProvider& in, std::size_t room, const std::string& head, const std::string& text)
        : at(0), from(room) {
        const std::size_t len = std::strlen(text.c_str());
        if (in.ConsumeIntegralInRange(0, 3) == 0) {
            at = in.ConsumeIntegralInRange<std::size_t>(0, len + 1);
            from = in.ConsumeIntegralInRange<std::size_t>(0, at + room);
        }
        block = std::make_unique<Block>(std::max(at + room, from + len + 1));
        std::memcpy(block->p + at, head.c_str(), std::min(std::strlen(head.c_str()) + 1, room));
        std::memcpy(block->p + from, text.c_str(), len + 1);
        before.assign(block->p, block->size);
    }
    char* dest() const { return block->p + at; }
    const char* text() const { return block->p + from; }
    std::string now() const { return std::string(block->p, block->size); }
    // Whether [at, at + n) and [from, from + m) share a byte.
    bool overlap(std::size_t n, std::size_t m) const { return at < from + m && from < at + n; }
    std::size_t at, from;
    std::unique_ptr<Block> block;
    std::string before;
};

bool usable(std::size_t destMax) { return destMax != 0 && destMax <= b::kMaxDest; }

// strncpy_s: the first min(strlen, count) characters and a NUL when they fit
// and the n + 1 bytes written do not overlap the n + 1 read.
void copies(FuzzedDataProvider& in) {
    const std::string src = in.ConsumeRandomLengthString(300);
    const std::size_t len = std::strlen(src.c_str());
    const std::size_t count = sized(in, len), destMax = sized(in, len + 1);
    const int missing = in.ConsumeIntegralInRange(0, 15); // 0: no source, 1: no destination
    const Shared s(in, usable(destMax) ? destMax : 1, "old", src);
    const int r = b::strncpy_s(missing == 1 ? nullptr : s.dest(), destMax, missing == 0 ? nullptr : s.text(), count);
    std::string want = s.before;
    int expect = b::kEInval;
    if (missing != 1 && usable(destMax) && missing != 0 && count <= b::kMaxDest) {
        const std::size_t n = strnlen(s.before.c_str() + s.from, std::min(count, destMax));
        expect = n >= destMax ? b::kERange : s.overlap(n + 1, n + 1) ? b::kEOverlap : 0;
        if (expect == 0) want.replace(s.at, n, s.before, s.from, n), want[s.at + n] = '\0';
    }
    if (expect != 0 && missing != 1 && usable(destMax)) want[s.at] = '\0';
    check(r == expect && s.now() == want);
}

// strncat_s and strcat_s: strncat's text when it fits with its NUL and the
// whole destination does not overlap the n + 1 bytes read.
void appends(FuzzedDataProvider& in) {
    const std::string head = in.ConsumeRandomLengthString(100);
    const std::string tail = in.ConsumeRandomLengthString(200);
    const bool whole = in.ConsumeBool(); // strcat_s
    const std::size_t count = whole ? b::kMaxDest : sized(in, tail.size());
    const std::size_t fits = std::strlen(head.c_str()) + strnlen(tail.c_str(), count);
    const std::size_t destMax = in.ConsumeBool() ? fits + in.ConsumeIntegralInRange(0, 2) : sized(in, fits);
    const int missing = in.ConsumeIntegralInRange(0, 15); // 0: no source, 1: no destination
    const Shared s(in, usable(destMax) ? destMax : 1, head, tail);
    char* const d = missing == 1 ? nullptr : s.dest();
    const char* const t = missing == 0 ? nullptr : s.text();
    const int r = whole ? b::strcat_s(d, destMax, t) : b::strncat_s(d, destMax, t, count);
    std::string want = s.before;
    int expect = b::kEInval;
    const std::size_t used = usable(destMax) ? strnlen(s.before.c_str() + s.at, destMax) : 0;
    if (missing != 1 && usable(destMax) && missing != 0 && count <= b::kMaxDest && used < destMax) {
        const std::size_t room = destMax - used; // with the NUL
        const std::size_t n = strnlen(s.before.c_str() + s.from, std::min(count, room));
        expect = n >= room ? b::kERange : s.overlap(destMax, n + 1) ? b::kEOverlap : 0;
        if (expect == 0) want.replace(s.at + used, n, s.before, s.from, n), want[s.at + used + n] = '\0';
    }
    if (expect != 0 && missing != 1 && usable(destMax)) want[s.at] = '\0';
    check(r == expect && s.now() == want);
}

// memcpy_s and memset_s on 128 bytes, the destination at an offset, the
// source in the same bytes (overlapping or not, or the destination itself),
// in a block of its own, or missing. A bad destination is left alone; a
// missing source, a count past destMax or overlapping ranges clear the whole
// destination; else count bytes are copied. memset_s fills min(count,
// destMax) bytes and reports a count past destMax.
void memory(FuzzedDataProvider& in) {
    constexpr std::size_t kArena = 128;
    const Block arena(kArena, in.ConsumeBytesAsString(kArena));
    const std::string before(arena.p, kArena);
    const std::size_t at = in.ConsumeIntegralInRange<std::size_t>(0, 64);
    char* const dest = in.ConsumeIntegralInRange(0, 15) == 0 ? nullptr : arena.p + at;
    const std::size_t destMax =
        in.ConsumeIntegralInRange(0, 7) == 0 ? b::kMaxDest + 1 : in.ConsumeIntegralInRange<std::size_t>(0, 64);
    const std::size_t count = sized(in, destMax < 64 ? destMax : 8);
    const Block own(std::min<std::size_t>(count, 64), in.ConsumeBytesAsString(64));
    const char* src = nullptr;
    switch (in.ConsumeIntegralInRange(0, 4)) {
    case 0:
        break;
    case 1:
        src = own.p;
        break;
    case 2:
        src = dest;
        break;
    default:
        src = arena.p + in.ConsumeIntegralInRange<std::size_t>(0, 64);
        break;
    }
    std::string want = before;
    int expect = b::kEInval;
    if (dest != nullptr && usable(destMax)) {
        const auto d = reinterpret_cast<std::uintptr_t>(dest), s = reinterpret_cast<std::uintptr_t>(src);
        expect = src == nullptr                   ? b::kEInval
                 : count > destMax                ? b::kERange
                 : count == 0 || src == dest      ? 0
                 : d < s + count && s < d + count ? b::kEOverlap
                                                  : 0;
        if (expect != 0)
            want.replace(at, destMax, destMax, '\0');
        else if (count != 0 && src != dest)
            want.replace(at, count, src, count);
    }
    check(b::memcpy_s(dest, destMax, src, count) == expect && std::string(arena.p, kArena) == want);

    std::memcpy(arena.p, before.data(), kArena);
    const int c = in.ConsumeIntegral<char>();
    want = before;
    expect = dest != nullptr && usable(destMax) ? count > destMax ? b::kERange : 0 : b::kEInval;
    if (expect != b::kEInval)
        want.replace(at, std::min(count, destMax), std::min(count, destMax), static_cast<char>(c));
    check(b::memset_s(dest, destMax, c, count) == expect && std::string(arena.p, kArena) == want);
}

// strtok_s against strtok_r on the same text, with changing delimiter sets,
// on past the last token. A call without delimiters or context, or without
// text and a place to go on from, gives nothing and changes nothing.
void tokens(FuzzedDataProvider& in) {
    const std::string src = in.ConsumeRandomLengthString(300);
    const Block mine = text(src), theirs = text(src);
    char* myContext = nullptr;
    char* theirContext = nullptr;
    for (int i = 0; i < 64 && in.remaining_bytes() > 0; ++i) {
        const std::string delims = in.ConsumeRandomLengthString(4);
        const bool first = i == 0;
        if (in.ConsumeIntegralInRange(0, 7) == 0) {
            char* none = nullptr;
            check(b::strtok_s(first ? mine.p : nullptr, nullptr, &myContext) == nullptr &&
                  b::strtok_s(mine.p, delims.c_str(), nullptr) == nullptr &&
                  b::strtok_s(nullptr, delims.c_str(), &none) == nullptr && none == nullptr);
        }
        char* a = b::strtok_s(first ? mine.p : nullptr, delims.c_str(), &myContext);
        char* t = strtok_r(first ? theirs.p : nullptr, delims.c_str(), &theirContext);
        check((a == nullptr) == (t == nullptr));
        if (a != nullptr) check(a - mine.p == t - theirs.p);
        check(std::memcmp(mine.p, theirs.p, mine.size) == 0);
    }
}

// ---- snprintf_s: one or two conversions between literal texts ------------

using Arg = std::variant<int, unsigned, long, unsigned long long, double, const char*, const wchar_t*>;

struct Conversion {
    const char* letters; // length modifier and conversion letter
    int kind;            // index of the Arg alternative
};
constexpr Conversion kPrints[] = {{"d", 0}, {"i", 0},  {"c", 0},  {"hhd", 0}, {"hd", 0},  {"u", 1}, {"x", 1}, {"X", 1},
                                  {"o", 1}, {"ld", 2}, {"li", 2}, {"llu", 3}, {"llx", 3}, {"f", 4}, {"e", 4}, {"g", 4},
                                  {"a", 4}, {"G", 4},  {"s", 5},  {"s", 5},   {"ls", 6},  {"%", -1}};

// A wide text holds units past ASCII now and then, which the C locale cannot print.
Arg argument(FuzzedDataProvider& in, int kind, std::string& storage, std::wstring& wide) {
    switch (kind) {
    case 0:
        return in.ConsumeIntegral<int>();
    case 1:
        return in.ConsumeIntegral<unsigned>();
    case 2:
        return in.ConsumeIntegral<long>();
    case 3:
        return in.ConsumeIntegral<unsigned long long>();
    case 4:
        return in.ConsumeFloatingPoint<double>();
    case 5:
        storage = in.ConsumeRandomLengthString(80);
        return storage.c_str();
    default:
        for (int n = in.ConsumeIntegralInRange(0, 20); n > 0; --n)
            wide +=
                static_cast<wchar_t>(in.ConsumeIntegralInRange(0, 15) != 0 ? in.ConsumeIntegralInRange(1, 0x7F)
                                                                           : in.ConsumeIntegralInRange(0x80, 0x10FFFF));
        return wide.c_str();
    }
}

std::string literal(FuzzedDataProvider& in) {
    std::string s = in.ConsumeRandomLengthString(40);
    for (char& c : s)
        if (c == '%' || c == '\0') c = '#';
    return s;
}

std::string conversion(FuzzedDataProvider& in, int& kind) {
    const Conversion& c = kPrints[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kPrints) - 1)];
    kind = c.kind;
    std::string f = "%";
    if (kind < 0) return f + c.letters;
    for (char flag : {'-', '+', ' ', '#', '0'})
        if (in.ConsumeIntegralInRange(0, 7) == 0) f += flag;
    if (in.ConsumeBool()) f += std::to_string(in.ConsumeIntegralInRange(1, 300));
    if (in.ConsumeBool()) f += "." + std::to_string(in.ConsumeIntegralInRange(0, 300));
    return f + c.letters;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
// snprintf_s against snprintf into count + 1 bytes, sprintf_s against
// snprintf into destMax bytes: a text that is cut, or that the C library
// cannot print, gives -1 (and snprintf_s keeps what fits, sprintf_s nothing);
// a bad size or a missing destination or format, -1 and nothing printed.
void prints(FuzzedDataProvider& in) {
    int k1 = -1, k2 = -1;
    std::string fmt = literal(in) + conversion(in, k1) + literal(in);
    if (in.ConsumeBool()) fmt += conversion(in, k2) + literal(in);
    // The arguments in the order of the conversions that take one.
    std::string s1, s2;
    std::wstring w1, w2;
    std::vector<Arg> args;
    if (k1 >= 0) args.push_back(argument(in, k1, s1, w1));
    if (k2 >= 0) args.push_back(argument(in, k2, s2, w2));
    args.resize(2, Arg{0});
    const Arg a1 = args[0], a2 = args[1];
    const std::size_t count = in.ConsumeIntegralInRange<std::size_t>(0, 700);
    std::size_t destMax = in.ConsumeBool() ? count + 1 : in.ConsumeIntegralInRange<std::size_t>(1, 701);
    if (in.ConsumeIntegralInRange(0, 15) == 0) destMax = b::kMaxDest + 1;
    const int missing = in.ConsumeIntegralInRange(0, 15); // 0: no format, 1: no destination
    const Block f = text(fmt);
    const std::size_t room = usable(destMax) ? destMax : 1;
    Block d(room), whole(room);
    std::vector<char> ref(count + 1), refWhole(room);
    const char* const fp = missing == 0 ? nullptr : f.p;
    // Arguments a conversion does not take are ignored by both.
    std::visit(
        [&](auto x, auto y) {
            const int r = b::snprintf_s(missing == 1 ? nullptr : d.p, destMax, count, fp, x, y);
            const int rWhole = b::sprintf_s(missing == 1 ? nullptr : whole.p, destMax, fp, x, y);
            if (missing == 1 || !usable(destMax))
                return check(r == -1 && rWhole == -1 && d.p[0] == 'Z' && whole.p[0] == 'Z');
            if (missing == 0) return check(r == -1 && rWhole == -1 && d.p[0] == '\0' && whole.p[0] == '\0');
            const int all = std::snprintf(refWhole.data(), destMax, f.p, x, y);
            if (all >= 0 && static_cast<std::size_t>(all) < destMax)
                check(rWhole == all && std::strcmp(whole.p, refWhole.data()) == 0);
            else
                check(rWhole == -1 && whole.p[0] == '\0');
            if (count >= destMax) return check(r == -1 && d.p[0] == '\0');
            const int want = std::snprintf(ref.data(), count + 1, f.p, x, y);
            if (want < 0) return check(r == -1 && d.p[0] == '\0');
            check(std::strcmp(d.p, ref.data()) == 0);
            check(static_cast<std::size_t>(want) > count ? r == -1 : r == want);
        },
        a1, a2);
}
#pragma GCC diagnostic pop

// ---- sscanf_s -------------------------------------------------------------

struct ScanConversion {
    const char* letters;
    int kind; // 0 a number or pointer (16-byte slot), 1 %s, 2 %[, 3 %c, 4 %n, 5 %%
};
constexpr ScanConversion kScans[] = {
    {"d", 0},   {"i", 0},  {"u", 0},  {"x", 0},  {"o", 0}, {"hhd", 0}, {"hu", 0}, {"ld", 0},
    {"lli", 0}, {"jd", 0}, {"zu", 0}, {"tX", 0}, {"f", 0}, {"lf", 0},  {"Lg", 0}, {"a", 0},
    {"p", 0},   {"s", 1},  {"s", 1},  {"[", 2},  {"[", 2}, {"c", 3},   {"n", 4},  {"%", 5},
};

struct Field {
    int kind;
    bool suppressed;
    unsigned width;   // 0: none
    std::size_t size; // the buffer size handed to sscanf_s
};

constexpr std::size_t kSlot = 16;

// A scanset body: any bytes but NUL; a ']' only first (after an optional '^').
std::string scanset(FuzzedDataProvider& in) {
    std::string set = in.ConsumeBool() ? "^" : "";
    if (in.ConsumeIntegralInRange(0, 3) == 0) set += ']';
    std::string body = in.ConsumeRandomLengthString(8);
    for (char c : body)
        if (c != ']' && c != '\0') set += c;
    if (set.empty() || set == "^") set += 'a';
    return set + "]";
}

std::string scan_text(FuzzedDataProvider& in) {
    std::string s = in.ConsumeRandomLengthString(30);
    for (char& c : s)
        if (c == '%' || c == '\0') c = ' ';
    return s;
}

// sscanf_s and sscanf over the same text and format. The text, the format
// or a buffer missing, a conversion cut short or with a width past kMaxDest,
// a 33rd pointer, a format longer than 1023 bytes once every %s, %c and %[
// carries its width: -1 before anything is read.
template <std::size_t... I>
int scan_mine(const char* text, const char* fmt, void* const* args, std::index_sequence<I...>) {
    return b::sscanf_s(text, fmt, args[I]...);
}
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <std::size_t... I>
int scan_theirs(const char* text, const char* fmt, void* const* args, std::index_sequence<I...>) {
    return std::sscanf(text, fmt, args[I]...);
}
#pragma GCC diagnostic pop

// Text a conversion of this kind can take, mostly: a number, a word, bytes
// of the scanset (any, for a negated one), characters, or a per cent sign.
std::string token(FuzzedDataProvider& in, int kind, const std::string& letters) {
    std::string t = in.ConsumeRandomLengthString(kind == 0 ? 12 : 30);
    const std::string pool = kind == 0                        ? "0123456789abcdefABCDEFxX.+-pe"
                             : kind == 2 && letters[1] != '^' ? letters.substr(1, letters.size() - 2)
                                                              : "";
    for (char& c : t)
        if (!pool.empty())
            c = pool[static_cast<unsigned char>(c) % pool.size()];
        else if (kind == 1 && (c == '\0' || std::isspace(static_cast<unsigned char>(c))))
            c = '_';
    return kind == 5 ? "%" : kind == 4 ? "" : t;
}

void scans(FuzzedDataProvider& in) {
    const int mode = in.ConsumeIntegralInRange(0, 15); // 0 no text, 1 no format, 2 broken, 3 many, 4 long, 5 no buffer
    // Broken: a width past kMaxDest first, or a conversion cut short by the end.
    const std::string set = scanset(in);
    const std::string broken[] = {"%",
                                  "%*",
                                  "%hh",
                                  "%12",
                                  "%[" + set.substr(0, set.size() - 1),
                                  "%" + std::to_string(b::kMaxDest + 1 + in.ConsumeIntegral<u32>()) + "s"};
    const std::size_t brokenAt = in.ConsumeIntegralInRange<std::size_t>(0, std::size(broken) - 1);
    const bool first = brokenAt == std::size(broken) - 1;
    std::string fmt = mode == 4 ? std::string(in.ConsumeIntegralInRange(900, 1100), ' ') : "";
    fmt += scan_text(in);
    std::string rewritten = fmt; // as sscanf_s hands it on
    std::string made = fmt;      // a text the format may take whole
    std::vector<Field> fields;
    if (mode == 2 && first) fmt += broken[brokenAt], made += token(in, 1, "s"), fields.push_back({1, false, 0, 32});
    const int n = mode == 3   ? in.ConsumeIntegralInRange(30, 40)
                  : mode == 2 ? in.ConsumeIntegralInRange(0, 1)
                              : in.ConsumeIntegralInRange(1, 8);
    for (int i = 0; i < n; ++i) {
        const ScanConversion& c = kScans[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kScans) - 1)];
        Field f{c.kind, mode != 3 && c.kind != 4 && c.kind != 5 && in.ConsumeIntegralInRange(0, 5) == 0, 0, 0};
        std::string piece = f.suppressed ? "%*" : "%";
        if (c.kind <= 3 && in.ConsumeBool()) f.width = in.ConsumeIntegralInRange(1, 40);
        if (c.kind == 1 || c.kind == 2) f.size = in.ConsumeIntegralInRange<std::size_t>(1, 24);
        if (c.kind == 3) f.size = in.ConsumeIntegralInRange<std::size_t>(0, f.width ? f.width + 1 : 2);
        const std::string letters = c.kind == 2 ? "[" + scanset(in) : c.letters;
        fmt += piece + (f.width ? std::to_string(f.width) : "") + letters;
        if (!f.suppressed && c.kind >= 1 && c.kind <= 3) {
            const std::size_t w = c.kind == 3                       ? (f.width ? f.width : 1)
                                  : f.width && f.width < f.size - 1 ? f.width
                                                                    : f.size - 1;
            rewritten += "%" + std::to_string(w) + letters;
        } else {
            rewritten += piece + (f.width ? std::to_string(f.width) : "") + letters;
        }
        if (c.kind != 5) fields.push_back(f);
        const std::string between = scan_text(in);
        fmt += between;
        rewritten += between;
        made += token(in, c.kind, letters) + between;
    }
    if (mode == 2 && !first)
        fmt += broken[brokenAt], made += token(in, 2, "[" + set), fields.push_back({2, false, 0, 32});
    const std::string input = in.ConsumeBool() ? made : in.ConsumeRemainingBytesAsString();
    const Block t = text(input), f = text(fmt);

    // The C library's scan into buffers that hold anything; sscanf_s's into
    // buffers of exactly the sizes given. Unused pointers are ignored by both.
    const std::size_t big = input.size() + 64;
    std::vector<std::vector<char>> ref;
    std::vector<std::unique_ptr<Block>> mine;
    void* refArgs[48] = {};
    void* myArgs[96] = {};
    int ra = 0, ma = 0;
    const auto pointers = std::count_if(fields.begin(), fields.end(), [](const Field& x) { return !x.suppressed; });
    bool refused = mode <= 2 || rewritten.size() > 1023 || pointers > 32;
    for (const Field& x : fields) {
        if (x.suppressed) continue;
        const bool sizedArg = x.kind >= 1 && x.kind <= 3;
        ref.emplace_back(big, '\x5A');
        mine.push_back(std::make_unique<Block>(sizedArg ? x.size : kSlot));
        std::memset(mine.back()->p, '\x5A', mine.back()->size);
        refArgs[ra++] = ref.back().data();
        myArgs[ma++] = mine.back()->p;
        if (sizedArg && mode == 5 && !refused) { // the first buffer goes missing
            myArgs[ma - 1] = nullptr;
            refused = true;
        }
        // The size travels as a pointer-sized integer, as sscanf_s reads it.
        if (sizedArg) myArgs[ma++] = reinterpret_cast<void*>(x.size);
        // A %c wider than its buffer, or no room for a character and the NUL.
        if (x.kind == 3 && (x.width ? x.width : 1) > x.size) refused = true;
        if ((x.kind == 1 || x.kind == 2) && x.size < 2) refused = true;
    }
    const int r = scan_mine(mode == 0 ? nullptr : t.p, mode == 1 ? nullptr : f.p, myArgs,
                            std::make_index_sequence<std::size(myArgs)>{});
    if (refused) {
        check(r == -1);
        for (const auto& m : mine)
            check(m->p[0] == '\x5A');
        return;
    }
    const int want = scan_theirs(t.p, f.p, refArgs, std::make_index_sequence<std::size(refArgs)>{});
    // Up to the first string field that does not fit its buffer, both scans
    // agree; that field is cut to size - 1 characters. With no such field
    // they agree on everything.
    int assigned = 0;
    std::size_t k = 0;
    for (const Field& x : fields) {
        if (x.suppressed) continue;
        const char* a = mine[k]->p;
        const char* e = ref[k].data();
        if ((x.kind == 1 || x.kind == 2) && assigned < want && std::strlen(e) >= x.size) {
            check(std::memcmp(a, e, x.size - 1) == 0 && a[x.size - 1] == '\0');
            return check(r >= assigned + 1);
        }
        check(std::memcmp(a, e, mine[k]->size) == 0);
        if (x.kind != 4) ++assigned;
        ++k;
    }
    check(r == want);
}

// ---- number texts -----------------------------------------------------------

// QOSA_Ultostr writes its digits itself: the text and result of a bounded
// print of min(size, 12) - 1 characters, and nothing past those bytes.
// QOSA_IntToStr and QOSA_FloatToStr print into 11 bytes and leave them empty
// when the text does not fit.
void numbers(FuzzedDataProvider& in) {
    const u32 value = in.ConsumeBool() ? in.ConsumeIntegral<u32>() : in.ConsumeIntegralInRange<u32>(0, 20);
    const u32 radix = in.ConsumeBool()   ? in.PickValueInArray({8u, 10u, 16u})
                      : in.ConsumeBool() ? in.ConsumeIntegralInRange<u32>(0, 40)
                                         : in.ConsumeIntegral<u32>();
    const u64 size = in.ConsumeBool() ? in.ConsumeIntegralInRange<u64>(0, 14) : in.ConsumeIntegral<u64>();
    const std::size_t n = size < 12 ? static_cast<std::size_t>(size) : 12;
    Block mine(n + 4);
    const s64 r = QOSA_Ultostr(mine.p, size, value, radix);
    check(std::string(mine.p + n, 4) == "ZZZZ");
    if (n == 0) return check(r == -1);
    std::vector<char> ref(n);
    const int want = b::snprintf_s(ref.data(), n, n - 1,
                                   radix == 8    ? "%o"
                                   : radix == 16 ? "%x"
                                                 : "%u",
                                   static_cast<unsigned>(value));
    check(r == want && std::strcmp(mine.p, ref.data()) == 0);

    const s32 i = in.ConsumeIntegral<s32>();
    const float f = in.ConsumeBool() ? in.ConsumeFloatingPoint<float>() : in.ConsumeFloatingPointInRange(-1e3f, 1e3f);
    Block text(15);
    char full[64];
    QOSA_IntToStr(i, text.p);
    std::snprintf(full, sizeof full, "%d", i);
    check(std::strcmp(text.p, std::strlen(full) < 11 ? full : "") == 0);
    QOSA_FloatToStr(text.p, f);
    std::snprintf(full, sizeof full, "%f", static_cast<double>(f));
    check(std::strlen(full) >= 11 || std::strcmp(text.p, full) == 0);
    check(std::strlen(full) < 11 || text.p[0] == '\0');
    check(std::string(text.p + 11, 4) == "ZZZZ");
}

// ---- the string family against the C library ---------------------------------

int sign(int v) { return (v > 0) - (v < 0); }

// Blanks, a sign, a base prefix, digits of any base, and anything after.
std::string number_text(FuzzedDataProvider& in) {
    std::string s(in.ConsumeIntegralInRange(0, 2), ' ');
    s += in.PickValueInArray({"", "-", "+"});
    s += in.PickValueInArray({"", "0", "0x", "0X"});
    for (int n = in.ConsumeIntegralInRange(0, 24); n > 0; --n)
        s += "0123456789abcdefxyz.e-"[in.ConsumeIntegralInRange(0, 21)];
    return s + in.ConsumeRandomLengthString(4);
}

// QOSA_StrToInt32: strtol's value in any base, its low 32 bits stored; 1 for
// no number or one out of range, which also clears the last error; a range
// error left from before does not fail a good conversion. The case
// conversions byte by byte up to the NUL as toupper / tolower, the single
// characters cut to a signed char; the compares and QOSA_StrToFloat as the
// C library's.
void strings(FuzzedDataProvider& in) {
    const std::string num = number_text(in);
    s32 v = 5;
    errno = ERANGE;
    const u32 r = QOSA_StrToInt32(num.c_str(), &v);
    const int left = errno;
    errno = 0;
    char* end = nullptr;
    const long want = std::strtol(num.c_str(), &end, 0);
    const bool bad = errno == ERANGE || end == num.c_str();
    check(r == (bad ? 1u : 0u) && v == static_cast<s32>(static_cast<u32>(want)) && (!bad || left == 0));
    const float fl = QOSA_StrToFloat(num.c_str()), flWant = static_cast<float>(std::atof(num.c_str()));
    check(std::memcmp(&fl, &flWant, sizeof fl) == 0);

    const std::string a = in.ConsumeRandomLengthString(12);
    std::string other = in.ConsumeRandomLengthString(12);
    if (in.ConsumeBool()) { // the same letters, some of them in the other case
        other = a.substr(0, in.ConsumeIntegralInRange<std::size_t>(0, a.size())) + other.substr(0, 2);
        for (char& c : other) {
            const auto u = static_cast<unsigned char>(c);
            if (in.ConsumeBool()) c = static_cast<char>(std::isupper(u) ? std::tolower(u) : std::toupper(u));
        }
    }
    const u32 count = in.ConsumeBool() ? in.ConsumeIntegralInRange<u32>(0, 14) : in.ConsumeIntegral<u32>();
    const char *x = a.c_str(), *y = other.c_str();
    check(sign(QOSA_StriCmp(x, y)) == sign(strcasecmp(x, y)));
    check(sign(QOSA_StriNCmp(x, y, count)) == sign(strncasecmp(x, y, count)));
    check(sign(QOSA_StrNCmp(x, y, count)) == sign(std::strncmp(x, y, count)));

    const Block up = text(a), low = text(a);
    check(QOSA_StrToUper(up.p) == up.p && QOSA_StrToLower(low.p) == low.p);
    for (std::size_t i = 0; i < up.size; ++i) {
        const auto c = static_cast<unsigned char>(a.c_str()[i]);
        const bool moved = i < std::strlen(x);
        check(up.p[i] == static_cast<char>(moved ? std::toupper(c) : c));
        check(low.p[i] == static_cast<char>(moved ? std::tolower(c) : c));
    }
    const int ch = in.ConsumeIntegralInRange(-128, 1023);
    check(QOSA_CharToUpper(ch) == static_cast<signed char>(std::toupper(ch)));
    check(QOSA_CharToLower(ch) == static_cast<signed char>(std::tolower(ch)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    switch (in.ConsumeIntegralInRange(0, 7)) {
    case 0:
        copies(in);
        break;
    case 1:
        appends(in);
        break;
    case 2:
        tokens(in);
        break;
    case 3:
        prints(in);
        break;
    case 4:
        scans(in);
        break;
    case 5:
        numbers(in);
        break;
    case 6:
        memory(in);
        break;
    default:
        strings(in);
        break;
    }
    return 0;
}
