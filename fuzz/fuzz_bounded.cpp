// The bounds-checked layer against the C library. Every destination and
// source lives in a block of exactly its size, so a write or read past it is
// caught. Where the result fits, each function must do what the C library
// function does; where it does not, what a violation leaves: the error number
// and an empty destination (or, for the formatted print, what fits). The
// number texts of the string family are printed here too.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
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
    switch (in.ConsumeIntegralInRange(0, 5)) {
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

// strncpy_s: the first min(strlen, count) characters and a NUL when they fit.
void copies(FuzzedDataProvider& in) {
    const std::string src = in.ConsumeRandomLengthString(300);
    const Block s = text(src);
    const std::size_t count = sized(in, std::strlen(s.p));
    const std::size_t destMax = sized(in, std::strlen(s.p) + 1);
    const bool usable = destMax != 0 && destMax <= b::kMaxDest;
    Block d(usable ? destMax : 1, "old");
    const int r = b::strncpy_s(d.p, destMax, s.p, count);
    if (!usable) return check(r == b::kEInval && d.p[0] == 'o');
    if (count > b::kMaxDest) return check(r == b::kEInval && d.p[0] == '\0');
    const std::size_t n = strnlen(s.p, count);
    if (n >= destMax) return check(r == b::kERange && d.p[0] == '\0');
    std::string want(s.p, n);
    check(r == 0 && want == std::string(d.p, n) && d.p[n] == '\0');
}

// strncat_s and strcat_s: strncat's text when it fits with its NUL.
void appends(FuzzedDataProvider& in) {
    const std::string head = in.ConsumeRandomLengthString(100);
    const std::string tail = in.ConsumeRandomLengthString(200);
    const bool whole = in.ConsumeBool(); // strcat_s
    const std::size_t count = whole ? b::kMaxDest : sized(in, tail.size());
    const std::size_t used = strnlen(head.c_str(), head.size());
    std::size_t destMax = in.ConsumeBool() ? used + strnlen(tail.c_str(), count) + in.ConsumeIntegralInRange(0, 2)
                                           : in.ConsumeIntegralInRange<std::size_t>(1, 300);
    if (destMax == 0) destMax = 1;
    Block d(destMax, head.substr(0, used) + std::string(1, '\0'));
    const Block s = text(tail);
    std::string want(d.p, strnlen(d.p, destMax));
    const bool terminated = want.size() < destMax;
    want.append(s.p, strnlen(s.p, count));
    const int r = whole ? b::strcat_s(d.p, destMax, s.p) : b::strncat_s(d.p, destMax, s.p, count);
    if (!terminated || count > b::kMaxDest) return check(r == b::kEInval && d.p[0] == '\0');
    if (want.size() >= destMax) return check(r == b::kERange && d.p[0] == '\0');
    check(r == 0 && std::string(d.p) == want);
}

// strtok_s against strtok_r on the same text, with changing delimiter sets.
void tokens(FuzzedDataProvider& in) {
    const std::string src = in.ConsumeRandomLengthString(300);
    const Block mine = text(src), theirs = text(src);
    char* myContext = nullptr;
    char* theirContext = nullptr;
    for (int i = 0; i < 64 && in.remaining_bytes() > 0; ++i) {
        const std::string delims = in.ConsumeRandomLengthString(4);
        const bool first = i == 0;
        char* a = b::strtok_s(first ? mine.p : nullptr, delims.c_str(), &myContext);
        char* t = strtok_r(first ? theirs.p : nullptr, delims.c_str(), &theirContext);
        check((a == nullptr) == (t == nullptr));
        if (a != nullptr) check(a - mine.p == t - theirs.p);
        check(std::memcmp(mine.p, theirs.p, mine.size) == 0);
        if (a == nullptr) break;
    }
}

// ---- snprintf_s: one or two conversions between literal texts ------------

using Arg = std::variant<int, unsigned, long, unsigned long long, double, const char*>;

struct Conversion {
    const char* letters; // length modifier and conversion letter
    int kind;            // index of the Arg alternative
};
constexpr Conversion kPrints[] = {{"d", 0}, {"i", 0}, {"c", 0},  {"hhd", 0}, {"hd", 0},  {"u", 1},   {"x", 1},
                                  {"X", 1}, {"o", 1}, {"ld", 2}, {"li", 2},  {"llu", 3}, {"llx", 3}, {"f", 4},
                                  {"e", 4}, {"g", 4}, {"a", 4},  {"G", 4},   {"s", 5},   {"s", 5},   {"%", -1}};

Arg argument(FuzzedDataProvider& in, int kind, std::string& storage) {
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
    default:
        storage = in.ConsumeRandomLengthString(80);
        return storage.c_str();
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
void prints(FuzzedDataProvider& in) {
    int k1 = -1, k2 = -1;
    std::string fmt = literal(in) + conversion(in, k1) + literal(in);
    if (in.ConsumeBool()) fmt += conversion(in, k2) + literal(in);
    // The arguments in the order of the conversions that take one.
    std::string s1, s2;
    std::vector<Arg> args;
    if (k1 >= 0) args.push_back(argument(in, k1, s1));
    if (k2 >= 0) args.push_back(argument(in, k2, s2));
    args.resize(2, Arg{0});
    const Arg a1 = args[0], a2 = args[1];
    const std::size_t count = in.ConsumeIntegralInRange<std::size_t>(0, 700);
    const std::size_t destMax = in.ConsumeBool() ? count + 1 : in.ConsumeIntegralInRange<std::size_t>(1, 701);
    const Block f = text(fmt);
    Block d(destMax);
    std::vector<char> ref(count + 1);
    // Arguments a conversion does not take are ignored by both.
    std::visit(
        [&](auto x, auto y) {
            const int r = b::snprintf_s(d.p, destMax, count, f.p, x, y);
            if (count >= destMax) return check(r == -1 && d.p[0] == '\0');
            const int want = std::snprintf(ref.data(), count + 1, f.p, x, y);
            check(want >= 0 && std::strcmp(d.p, ref.data()) == 0);
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

void scans(FuzzedDataProvider& in) {
    std::string fmt = scan_text(in);
    std::vector<Field> fields;
    const int n = in.ConsumeIntegralInRange(1, 8);
    for (int i = 0; i < n; ++i) {
        const ScanConversion& c = kScans[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kScans) - 1)];
        Field f{c.kind, c.kind != 4 && c.kind != 5 && in.ConsumeIntegralInRange(0, 5) == 0, 0, 0};
        fmt += '%';
        if (f.suppressed) fmt += '*';
        if (c.kind <= 3 && in.ConsumeBool()) {
            f.width = in.ConsumeIntegralInRange(1, 40);
            fmt += std::to_string(f.width);
        }
        fmt += c.kind == 2 ? "[" + scanset(in) : c.letters;
        if (c.kind == 1 || c.kind == 2) f.size = in.ConsumeIntegralInRange<std::size_t>(1, 24);
        if (c.kind == 3) f.size = in.ConsumeIntegralInRange<std::size_t>(0, f.width ? f.width + 1 : 2);
        if (c.kind != 5) fields.push_back(f);
        fmt += scan_text(in);
    }
    const std::string input = in.ConsumeRemainingBytesAsString();
    const Block t = text(input), f = text(fmt);

    // The C library's scan into buffers that hold anything; sscanf_s's into
    // buffers of exactly the sizes given. Unused pointers are ignored by both.
    const std::size_t big = input.size() + 64;
    std::vector<std::vector<char>> ref;
    std::vector<Block*> mine;
    void* refArgs[16] = {};
    void* myArgs[32] = {};
    int ra = 0, ma = 0;
    bool refused = false;
    for (const Field& x : fields) {
        if (x.suppressed) continue;
        const bool sizedArg = x.kind >= 1 && x.kind <= 3;
        ref.emplace_back(big, '\x5A');
        mine.push_back(new Block(sizedArg ? x.size : kSlot));
        std::memset(mine.back()->p, '\x5A', mine.back()->size);
        refArgs[ra++] = ref.back().data();
        myArgs[ma++] = mine.back()->p;
        // The size travels as a pointer-sized integer, as sscanf_s reads it.
        if (sizedArg) myArgs[ma++] = reinterpret_cast<void*>(x.size);
        // A %c wider than its buffer, or no room for a character and the NUL.
        if (x.kind == 3 && (x.width ? x.width : 1) > x.size) refused = true;
        if ((x.kind == 1 || x.kind == 2) && x.size < 2) refused = true;
    }
    const int r =
        b::sscanf_s(t.p, f.p, myArgs[0], myArgs[1], myArgs[2], myArgs[3], myArgs[4], myArgs[5], myArgs[6], myArgs[7],
                    myArgs[8], myArgs[9], myArgs[10], myArgs[11], myArgs[12], myArgs[13], myArgs[14], myArgs[15]);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int want = std::sscanf(t.p, f.p, refArgs[0], refArgs[1], refArgs[2], refArgs[3], refArgs[4], refArgs[5],
                                 refArgs[6], refArgs[7]);
#pragma GCC diagnostic pop
    if (refused) {
        check(r == -1);
    } else {
        // Up to the first string field that does not fit its buffer, both
        // scans agree; that field is cut to size - 1 characters. With no such
        // field they agree on everything.
        int assigned = 0;
        bool cut = false;
        std::size_t k = 0;
        for (const Field& x : fields) {
            if (x.suppressed) continue;
            const char* a = mine[k]->p;
            const char* e = ref[k].data();
            if ((x.kind == 1 || x.kind == 2) && assigned < want) {
                const std::size_t len = std::strlen(e);
                if (len >= x.size) {
                    check(std::memcmp(a, e, x.size - 1) == 0 && a[x.size - 1] == '\0');
                    check(r >= assigned + 1);
                    cut = true;
                    break;
                }
            }
            check(std::memcmp(a, e, mine[k]->size) == 0);
            if (x.kind != 4) ++assigned;
            ++k;
        }
        if (!cut) check(r == want);
    }
    for (Block* m : mine)
        delete m;
}

// ---- number texts -----------------------------------------------------------

// QOSA_Ultostr writes its digits itself: the text and result of a bounded
// print of min(size, 12) - 1 characters. QOSA_IntToStr and QOSA_FloatToStr
// print into 11 bytes and leave them empty when the text does not fit.
void numbers(FuzzedDataProvider& in) {
    const u32 value = in.ConsumeBool() ? in.ConsumeIntegral<u32>() : in.ConsumeIntegralInRange<u32>(0, 20);
    const u32 radix = in.ConsumeBool() ? in.PickValueInArray({8u, 10u, 16u}) : in.ConsumeIntegral<u32>();
    const u64 size = in.ConsumeBool() ? in.ConsumeIntegralInRange<u64>(0, 14) : in.ConsumeIntegral<u64>();
    const std::size_t n = size < 12 ? static_cast<std::size_t>(size) : 12;
    Block mine(n);
    const s64 r = QOSA_Ultostr(mine.p, size, value, radix);
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
    Block text(11);
    char full[64];
    QOSA_IntToStr(i, text.p);
    std::snprintf(full, sizeof full, "%d", i);
    check(std::strcmp(text.p, std::strlen(full) < 11 ? full : "") == 0);
    QOSA_FloatToStr(text.p, f);
    std::snprintf(full, sizeof full, "%f", static_cast<double>(f));
    check(std::strlen(full) >= 11 || std::strcmp(text.p, full) == 0);
    check(std::strlen(full) < 11 || text.p[0] == '\0');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    switch (in.ConsumeIntegralInRange(0, 5)) {
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
    default:
        numbers(in);
        break;
    }
    return 0;
}
