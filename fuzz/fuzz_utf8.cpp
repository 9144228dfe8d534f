// Arbitrary bytes through every UTF-8 decoder, both encoders and the sequence
// check, each against a plain reference written from its rule, and text that
// glibc's iconv takes (Unicode scalar values) against iconv both ways:
// - the permissive decoder: the lead byte alone sets a sequence's length, the
//   bytes after it are taken whatever they are, a stray continuation byte
//   stands for itself, a sequence cut short by the end of the text ends it;
// - the validating decoder: a sequence whose following bytes are not all
//   continuation bytes, whose value is overlong, or that the end cuts short
//   loses its lead byte only (0x80..0xBF, 0xFE and 0xFF lead nothing);
//   the narrowing form keeps the non-zero bytes of every unit;
// - the encoders: the shortest form of up to six bytes, bit 31 lost; a wide
//   unit at or above 2^31 is negative and writes its low byte;
// - the sequence check: steps from lead to lead and cuts the sequence that
//   leaves no room for the terminator.
#include <iconv.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <initializer_list>
#include <string>
#include <vector>

#include "qosa_mem.h"
#include "qosa_text.h"

namespace {

using Units = std::vector<u32>;

void check(bool ok) {
    if (!ok) std::abort();
}

std::size_t lead_length(u8 b) {
    return b < 0x80 ? 1 : b < 0xC0 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF8 ? 4 : b < 0xFC ? 5 : 6;
}

// The value of the len-byte sequence at s: the lead's payload bits, then six bits a byte.
u32 value_of(const u8* s, std::size_t len) {
    u32 v = len == 1 ? s[0] : s[0] & (0xFFu >> (len + 1));
    for (std::size_t k = 1; k < len; ++k)
        v = v << 6 | (s[k] & 0x3Fu);
    return v;
}

// (Both references write through raw pointers: the replay runs unoptimised
// under the sanitizers too.)
Units ref_loose(const u8* s, std::size_t n) {
    Units out(n);
    u32* o = out.data();
    for (std::size_t i = 0; i < n;) {
        const std::size_t len = lead_length(s[i]);
        if (len > n - i) break;
        *o++ = value_of(s + i, len);
        i += len;
    }
    out.resize(static_cast<std::size_t>(o - out.data()));
    return out;
}

Units ref_strict(const u8* s, std::size_t n) {
    static constexpr u32 kShortest[7] = {0, 0, 0x80, 0x800, 0x10000, 0x200000, 0x4000000};
    Units out(n);
    u32* o = out.data();
    for (std::size_t i = 0; i < n;) {
        const std::size_t len = lead_length(s[i]);
        bool ok = (s[i] < 0x80 || s[i] >= 0xC0) && s[i] < 0xFE && len <= n - i;
        for (std::size_t k = 1; ok && k < len; ++k)
            ok = (s[i + k] & 0xC0) == 0x80;
        if (ok && len > 1) ok = value_of(s + i, len) >= kShortest[len];
        if (ok) *o++ = value_of(s + i, len);
        i += ok ? len : 1;
    }
    out.resize(static_cast<std::size_t>(o - out.data()));
    return out;
}

// Writes the form of c at out and returns the byte after it: the shortest
// of up to six bytes, bit 31 lost; a wide unit at or above 2^31 is its low byte.
char* ref_encode(u32 c, bool wide, char* out) {
    if (c < 0x80 || (wide && c >= 0x80000000u)) {
        *out = static_cast<char>(c & 0xFF);
        return out + 1;
    }
    const std::size_t len = c < 0x800 ? 2 : c < 0x10000 ? 3 : c < 0x200000 ? 4 : c < 0x4000000 ? 5 : 6;
    for (std::size_t k = len - 1; k > 0; --k, c >>= 6)
        out[k] = static_cast<char>(0x80 | (c & 0x3F));
    out[0] = static_cast<char>((0xFF00u >> len) | (c & (0xFFu >> (len + 1))));
    return out + len;
}

std::string ref_encode(const Units& u, bool wide) {
    std::string out(u.size() * 6, '\0');
    char* end = out.data();
    for (u32 c : u)
        end = ref_encode(c, wide, end);
    out.resize(static_cast<std::size_t>(end - out.data()));
    return out;
}

bool scalar(u32 c) { return c != 0 && c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF); }

// glibc's conversion of the whole input (wide units to UTF-8 or back), or
// false where it refuses any of it.
bool by_iconv(bool toUtf8, const void* data, std::size_t size, std::string& out) {
    static iconv_t fromWide = iconv_open("UTF-8", "WCHAR_T"), fromUtf8 = iconv_open("WCHAR_T", "UTF-8");
    iconv_t cd = toUtf8 ? fromWide : fromUtf8;
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    out.assign(size * 4 + 4, '\0');
    char* ip = const_cast<char*>(static_cast<const char*>(data));
    char* op = out.data();
    std::size_t ileft = size, oleft = out.size();
    const bool whole = iconv(cd, &ip, &ileft, &op, &oleft) != static_cast<std::size_t>(-1) && ileft == 0;
    out.resize(out.size() - oleft);
    return whole;
}

Units wide_units(const std::string& bytes) {
    Units u(bytes.size() / 4);
    if (!u.empty()) std::memcpy(u.data(), bytes.data(), u.size() * 4);
    return u;
}

// A text up to its NUL, in a block of exactly its length + 1, through both
// decoders, the narrowing one and back through the encoders.
void decoders(const char* text, std::size_t len) {
    const auto* s = reinterpret_cast<const u8*>(text);
    const Units loose = ref_loose(s, len), strict = ref_strict(s, len);

    const u32 reserved = get_unicode_strlen(text);
    u32* mine = utf8Str_to_unicodeStr(text);
    check((mine == nullptr) == (len == 0));
    if (mine != nullptr) {
        // The reserved count covers every unit; the rest of the block is 0.
        check(loose.size() <= reserved);
        for (std::size_t i = 0; i < loose.size(); ++i)
            check(mine[i] == loose[i]);
        for (std::size_t i = loose.size(); i <= reserved; ++i)
            check(mine[i] == 0);
    }
    wchar_t* wide = ORV_Utf8ToUnicodeW(text);
    check(wide != nullptr && std::wcslen(wide) == strict.size());
    for (std::size_t i = 0; i < strict.size(); ++i)
        check(static_cast<u32>(wide[i]) == strict[i]);

    std::string narrow(strict.size() * 4, '\0');
    char* end = narrow.data();
    for (u32 c : strict)
        for (int shift = 0; shift < 32; shift += 8)
            if (c < 0x100 ? shift == 0 : ((c >> shift) & 0xFF) != 0) *end++ = static_cast<char>(c >> shift);
    narrow.resize(static_cast<std::size_t>(end - narrow.data()));
    char* a = ORV_Utf8ToUnicodeA(text);
    check(a != nullptr && narrow == a);

    // Text that iconv takes whole decodes to iconv's units.
    std::string units;
    if (by_iconv(false, text, len, units)) check(wide_units(units) == strict && loose == strict);

    // Validated text re-encodes to itself, through both encoders.
    char* again = ORV_UnicodeToUtf8(wide);
    check(again != nullptr && ref_encode(strict, true) == again);
    if (mine != nullptr) {
        // Up to the first 0 unit (an overlong form of NUL).
        char* encoded = unicodeStr_to_utf8Str(mine);
        const Units head(loose.begin(), std::find(loose.begin(), loose.end(), 0u));
        check(encoded == nullptr ? head.empty() : ref_encode(head, false) == encoded);
        ORV_StrMemFree(encoded);
    }
    for (void* p :
         {static_cast<void*>(mine), static_cast<void*>(wide), static_cast<void*>(a), static_cast<void*>(again)})
        ORV_StrMemFree(p);
}

// Units of every length class, their edges, and values past 2^31, from the
// input's words; the text ends at the first 0.
Units made_units(const std::uint8_t* data, std::size_t size) {
    static constexpr u32 kEdges[] = {0x80, 0x800, 0x10000, 0x200000, 0x4000000, 0x80000000u, 0xD800, 0x110000};
    const bool scalars = size > 0 && (data[0] & 8) != 0; // Unicode scalar values only
    Units u(size / 4);
    std::size_t n = 0;
    for (; n < u.size(); ++n) {
        u32 w;
        std::memcpy(&w, data + 4 * n, 4);
        const u32 low = w >> 4;
        u32 c = w;
        switch (scalars ? 1 + w % 6 : w % 12) {
        case 0:
            c = kEdges[low % 8] - (low >> 3) % 2;
            break;
        case 1:
        case 2:
            c = 1 + low % 0x7F;
            break;
        case 3:
            c = 0x80 + low % 0x780;
            break;
        case 4:
        case 5:
            c = 0x800 + low % 0xF800;
            break;
        case 6:
            c = 0x10000 + low % 0x100000;
            break;
        case 7:
            c = 0x110000 + low % 0xF0000;
            break;
        case 8:
            c = 0x200000 + low % 0x7E00000;
            break;
        default:
            break;
        }
        if (scalars && c >= 0xD800 && c <= 0xDFFF) c += 0x800;
        if (c == 0) break;
        u.data()[n] = c;
    }
    u.resize(n);
    return u;
}

// Both encoders, on a block that held junk: the text and zeros to the end of
// the wide encoder's block of six bytes a unit.
void encoders(const Units& u) {
    std::vector<u32> terminated(u);
    terminated.push_back(0);
    const std::vector<wchar_t> w(terminated.begin(), terminated.end());
    const std::size_t block = 6 * u.size() + 1;
    void* junk = QOSA_MemTypeMallocD(static_cast<u32>(block), 0, __LINE__, __FILE__);
    std::memset(junk, 0xAA, block);
    QOSA_MemTypeFreeD(junk, 0, __LINE__, __FILE__);
    char* wide = ORV_UnicodeToUtf8(w.data());
    const std::string wanted = ref_encode(u, true);
    check(wide != nullptr && std::string(wide, block) == wanted + std::string(block - wanted.size(), '\0'));
    ORV_StrMemFree(wide);

    char* plain = unicodeStr_to_utf8Str(terminated.data());
    const std::string unsignedForm = ref_encode(u, false);
    check(u.empty() ? plain == nullptr : plain != nullptr && unsignedForm == plain);
    check(get_utf8_strlen(terminated.data()) == unsignedForm.size());
    ORV_StrMemFree(plain);

    // One sequence at a time (the first few): its length, and the permissive decoder reads it back.
    for (u32 c : std::vector<u32>(u.begin(), u.begin() + std::min<std::size_t>(u.size(), 64))) {
        u8 out[8] = {};
        u32 back = 0;
        const long n = unicode_to_utf8(c, out) - out;
        char one[6];
        check(n == ref_encode(c, false, one) - one && n == static_cast<long>(UTF8_LENGTH(c)) &&
              std::memcmp(one, out, static_cast<std::size_t>(n)) == 0);
        check(utf8_to_unicode(out, &back) == n && back == (c & 0x7FFFFFFF));
    }

    // Scalar values: what iconv writes, and both decoders read it back.
    bool scalars = true;
    for (u32 c : u)
        scalars = scalars && scalar(c);
    std::string utf8;
    if (scalars && by_iconv(true, w.data(), u.size() * 4, utf8)) {
        check(utf8 == wanted && utf8 == unsignedForm);
        wchar_t* strict = ORV_Utf8ToUnicodeW(utf8.c_str());
        u32* loose = utf8Str_to_unicodeStr(utf8.c_str());
        check(strict != nullptr && Units(strict, strict + std::wcslen(strict)) == u);
        check(u.empty() || (loose != nullptr && Units(loose, loose + u.size() + 1) == terminated));
        ORV_StrMemFree(strict);
        ORV_StrMemFree(loose);
    }
}

// ORV_Utf8Check over len bytes (len <= the buffer): from lead to lead until a
// NUL (0); the sequence whose step reaches len - 1 or past is cut there (1).
// No bytes, 1 and nothing done; a negative length empties the buffer.
void sequence_check(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return;
    s32 len = static_cast<s32>(size);
    switch (data[0] % 8) {
    case 0:
        len = 0;
        break;
    case 1:
        len = -1 - data[size - 1];
        break;
    case 2:
        len = static_cast<s32>(size / 2);
        break;
    default:
        break;
    }
    // In a block of exactly len bytes (of the whole input for no length).
    const std::size_t n = len > 0 ? static_cast<std::size_t>(len) : size;
    std::vector<char> want(data, data + n);
    u32 result = 1;
    if (len < 0) want[0] = '\0';
    for (s32 i = 0; len > 0;) {
        const auto c = static_cast<u8>(want[static_cast<std::size_t>(i)]);
        if (c == 0) {
            result = 0;
            break;
        }
        const auto step = static_cast<s32>(c >= 0xC0 ? lead_length(c) : 1);
        if (step >= len - i) {
            want[static_cast<std::size_t>(i)] = '\0';
            break;
        }
        i += step;
    }
    char* exact = static_cast<char*>(std::malloc(n));
    std::memcpy(exact, data, n);
    check(ORV_Utf8Check(exact, len) == result && std::memcmp(exact, want.data(), n) == 0);
    std::free(exact);
}

// The input shaped into runs of one sequence length (two, three or four
// bytes), a byte now and then left as it was: runs for the word-at-a-time
// paths, with overlong forms and breaks in them.
std::string shaped(const std::uint8_t* data, std::size_t size) {
    const std::size_t len = size > 0 ? 2 + data[0] % 3 : 2;
    size = std::min<std::size_t>(size, 256);
    std::string s(size > 0 ? size - 1 : 0, '\0');
    for (std::size_t i = 1; i < size; ++i) {
        const u8 b = data[i];
        u8 c = (i - 1) % len == 0 ? static_cast<u8>((0xFF00u >> len) | (b & (0xFFu >> (len + 1)))) : 0x80 | (b & 0x3F);
        if (data[size - i] % 16 == 0) c = b;
        s.data()[i - 1] = static_cast<char>(c != 0 ? c : 0x80);
    }
    return s;
}

// The text in a block of exactly its length + 1, so that any read past the
// terminator is caught.
void decode_exact(const std::string& s) {
    std::vector<char> block(s.c_str(), s.c_str() + s.size() + 1);
    decoders(block.data(), s.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* text = reinterpret_cast<const char*>(data);
    decode_exact(std::string(text, strnlen(text, size))); // up to the first NUL
    decode_exact(shaped(data, size));

    encoders(made_units(data, size));
    sequence_check(data, size);
    return 0;
}
