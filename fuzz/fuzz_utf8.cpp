// Arbitrary bytes through every UTF-8 decoder, both encoders and the sequence
// check. Besides the sanitizers' findings, a fault is: a permissive decoding
// longer than its reserved count, a validating decoding that does not survive
// re-encoding, or the two decoders disagreeing on text the validating one
// accepts whole.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <initializer_list>
#include <vector>

#include "qosa_text.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

std::size_t units(const u32* p) {
    std::size_t n = 0;
    while (p[n] != 0)
        ++n;
    return n;
}

void decoders(const char* text, std::size_t len, const std::vector<u32>& reference) {
    u32 reserved = get_unicode_strlen(text);
    u32* loose = utf8Str_to_unicodeStr(text);
    check((loose == nullptr) == (len == 0));
    if (loose != nullptr) {
        // The reserved count covers every unit, so nothing is cut off.
        check(reference.size() <= reserved);
        for (std::size_t i = 0; i < reference.size(); ++i)
            check(loose[i] == reference[i]);
        for (std::size_t i = reference.size(); i <= reserved; ++i)
            check(loose[i] == 0); // the terminator and the unused rest
    }

    wchar_t* strict = ORV_Utf8ToUnicodeW(text);
    check(strict != nullptr);
    char* again = ORV_UnicodeToUtf8(strict);
    check(again != nullptr);
    // Accepted sequences re-encode to themselves; dropped bytes make the
    // text shorter, never different.
    std::size_t againLen = std::strlen(again);
    check(againLen <= len);
    if (againLen == len) {
        check(std::memcmp(again, text, len) == 0);
        // Valid text: both decoders give the same units.
        std::size_t n = std::wcslen(strict);
        check(loose == nullptr ? n == 0 : units(loose) == n);
        for (std::size_t i = 0; i < n; ++i)
            check(loose[i] == static_cast<u32>(strict[i]));
    }
    wchar_t* twice = ORV_Utf8ToUnicodeW(again);
    check(twice != nullptr && std::wcscmp(twice, strict) == 0);

    char* narrow = ORV_Utf8ToUnicodeA(text);
    check(narrow != nullptr && std::strlen(narrow) <= 4 * std::wcslen(strict));

    if (loose != nullptr) {
        char* encoded = unicodeStr_to_utf8Str(loose);
        check((encoded == nullptr) == (loose[0] == 0));
        if (encoded != nullptr) check(std::strlen(encoded) == get_utf8_strlen(loose));
        ORV_StrMemFree(encoded);
    }
    for (void* p : {static_cast<void*>(loose), static_cast<void*>(strict), static_cast<void*>(again),
                    static_cast<void*>(twice), static_cast<void*>(narrow)})
        ORV_StrMemFree(p);
}

// One sequence at a time over the string: the reference for the whole-string
// decoder. The decoder reads as many bytes as the lead announces, so the
// buffer carries six spare zero bytes; a sequence the terminator cuts short
// yields nothing.
std::vector<u32> single_sequences(const char* text, std::size_t len) {
    std::vector<u32> units;
    for (std::size_t i = 0; i < len;) {
        u32 v = 0;
        s32 n = utf8_to_unicode(reinterpret_cast<const u8*>(text + i), &v);
        check(n >= 1 && n <= 6 && v <= 0x7FFFFFFF);
        u8 out[8];
        long written = unicode_to_utf8(v, out) - out;
        u32 back = 0;
        check(written == static_cast<long>(UTF8_LENGTH(v)) && utf8_to_unicode(out, &back) == written && back == v);
        if (i + static_cast<std::size_t>(n) > len) break;
        units.push_back(v);
        i += static_cast<std::size_t>(n);
    }
    return units;
}

// The bytes as 32-bit units: the two encoders agree on every non-negative unit.
void encoders(const std::uint8_t* data, std::size_t size) {
    std::vector<u32> u(size / 4 + 1, 0);
    std::memcpy(u.data(), data, size / 4 * 4);
    bool nonNegative = true;
    for (std::size_t i = 0; i + 1 < u.size() && u[i] != 0; ++i)
        nonNegative = nonNegative && u[i] <= 0x7FFFFFFF;
    std::vector<wchar_t> w(u.begin(), u.end());
    char* a = unicodeStr_to_utf8Str(u.data());
    char* b = ORV_UnicodeToUtf8(w.data());
    check(b != nullptr);
    if (a != nullptr && nonNegative) check(std::strcmp(a, b) == 0);
    ORV_StrMemFree(a);
    ORV_StrMemFree(b);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The text up to the first NUL, in a block of exactly its length + 1 so
    // that any read past the terminator is caught.
    std::size_t len = strnlen(reinterpret_cast<const char*>(data), size);
    char* text = static_cast<char*>(std::malloc(len + 1));
    std::memcpy(text, data, len);
    text[len] = '\0';
    std::vector<char> padded(data, data + len);
    padded.resize(len + 7, '\0');
    decoders(text, len, single_sequences(padded.data(), len));
    std::free(text);

    encoders(data, size);

    // The check reads only the len bytes it is given.
    if (size > 0) {
        char* buf = static_cast<char*>(std::malloc(size));
        std::memcpy(buf, data, size);
        u32 r = ORV_Utf8Check(buf, static_cast<s32>(size));
        // Either way the string now ends inside the buffer.
        check((r == 0 || r == 1) && std::memchr(buf, 0, size) != nullptr);
        std::free(buf);
    }
    return 0;
}
