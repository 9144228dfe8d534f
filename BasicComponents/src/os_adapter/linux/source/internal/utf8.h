// The UTF-8 core under both codecs: sequences of up to six bytes and 31-bit
// code points, whole texts decoded and encoded in one pass with word-at-a-time
// runs for ASCII and two-byte text. The two decoders differ only in what they
// make of bad input, which is a parameter:
//   Loose   the lead byte alone decides a sequence's length and the bytes after
//           it are taken whatever they are; a stray continuation byte stands
//           for itself; a sequence cut short by the end of the text ends it.
//   Strict  every following byte must be a continuation byte and the value may
//           not be overlong; a failed sequence loses its lead byte only, and the
//           bytes after it are looked at again as lead bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>

#include "qosa_types.h"
#include "unaligned.h"

namespace qosa::utf8 {

enum class Rule { Loose, Strict };

// Length of the sequence a byte leads: under Loose stray continuation bytes
// stand alone and 0xFE/0xFF lead six bytes; under Strict those bytes lead
// nothing (0).
constexpr u8 lead_length(u8 b, Rule rule) {
    if (b < 0x80) return 1;
    if (b < 0xC0) return rule == Rule::Loose ? 1 : 0;
    if (b < 0xE0) return 2;
    if (b < 0xF0) return 3;
    if (b < 0xF8) return 4;
    if (b < 0xFC) return 5;
    return rule == Rule::Loose || b < 0xFE ? 6 : 0;
}
template <Rule R>
inline constexpr auto kLeadLength = [] {
    std::array<u8, 256> t{};
    for (unsigned b = 0; b < 256; ++b)
        t[b] = lead_length(static_cast<u8>(b), R);
    return t;
}();

// The lead byte's payload per length (the whole byte for length 1) and the
// smallest code point each length is the shortest form of.
inline constexpr u32 kLeadPayload[7] = {0, 0xFF, 0x1F, 0x0F, 0x07, 0x03, 0x01};
inline constexpr u32 kShortest[7] = {0, 0, 0x80, 0x800, 0x10000, 0x200000, 0x4000000};

inline constexpr u64 kHighBits = 0x8080808080808080ull;

inline u64 load8(const u8* p) { return load_unaligned<u64>(p); }

// Whether the eight bytes at w are four two-byte sequences the rule accepts:
// four leads 110xxxxx at the even positions and, under Strict, continuation
// bytes after them and no lead 0xC0/0xC1 (which only start overlong forms).
template <Rule R>
inline bool four_pairs(u64 w) {
    if constexpr (R == Rule::Loose) {
        return (w & 0x00E000E000E000E0ull) == 0x00C000C000C000C0ull;
    } else {
        return (w & 0xC0E0C0E0C0E0C0E0ull) == 0x80C080C080C080C0ull && (w & 0x1E) != 0 && (w & 0x1E0000) != 0 &&
               (w & 0x1E00000000) != 0 && (w & 0x1E000000000000) != 0;
    }
}

// Decodes the len-byte sequence at s under Loose, reading all len bytes.
inline u32 decode_sequence(const u8* s, unsigned len) {
    u32 v = s[0] & kLeadPayload[len];
    for (unsigned k = 1; k < len; ++k)
        v = v << 6 | (s[k] & 0x3Fu);
    return v;
}

// Decodes a run of len-byte sequences from s[i] on, while the lead bytes
// keep to that length (so the next index never waits for the byte just
// loaded). False when the sequence at i is cut short by the end of the text
// or, under Strict, fails.
template <Rule R, unsigned Len, typename Unit>
inline bool decode_run(const u8* s, std::size_t n, std::size_t room, std::size_t& i, Unit* out, std::size_t& k) {
    constexpr u8 kLeadMask = static_cast<u8>(0xFF00 >> (Len + 1)), kLead = static_cast<u8>(kLeadMask << 1);
    do {
        if (n - i < Len) return false;
        u32 v = s[i] & kLeadPayload[Len];
        unsigned bad = 0; // non-zero unless every following byte is 10xxxxxx
        for (unsigned j = 1; j < Len; ++j) {
            bad |= (s[i + j] & 0xC0u) ^ 0x80u;
            v = v << 6 | (s[i + j] & 0x3Fu);
        }
        if (R == Rule::Strict && (bad != 0 || v < kShortest[Len])) return false;
        out[k++] = static_cast<Unit>(v);
        i += Len;
    } while (i < n && k < room && (s[i] & kLeadMask) == kLead);
    return true;
}

// Decodes the n bytes at s (s[n] is the terminator) into at most room units;
// returns the units written.
template <Rule R, typename Unit>
std::size_t decode(const u8* s, std::size_t n, Unit* out, std::size_t room) {
    std::size_t i = 0, k = 0;
    while (i < n && k < room) {
        u8 b = s[i];
        bool ok;
        if (b < 0x80) {
            if (i + 8 <= n && room - k >= 8 && (load8(s + i) & kHighBits) == 0) {
                for (int j = 0; j < 8; ++j)
                    out[k + j] = static_cast<Unit>(s[i + j]);
                k += 8;
                i += 8;
            } else {
                out[k++] = static_cast<Unit>(b);
                ++i;
            }
            continue;
        } else if (b < 0xC0) { // a stray continuation byte
            ok = R == Rule::Loose;
            if (ok) {
                out[k++] = static_cast<Unit>(b);
                ++i;
            }
        } else if (b < 0xE0) { // runs of two-byte text (Latin, Greek, Cyrillic, ...) four at a time
            if (u64 w; i + 8 <= n && room - k >= 4 && four_pairs<R>(w = load8(s + i))) {
                for (int j = 0; j < 4; ++j)
                    out[k + j] = static_cast<Unit>((w >> (16 * j) & 0x1F) << 6 | (w >> (16 * j + 8) & 0x3F));
                k += 4;
                i += 8;
                continue;
            }
            ok = decode_run<R, 2>(s, n, room, i, out, k);
        } else if (b < 0xF0) {
            ok = decode_run<R, 3>(s, n, room, i, out, k);
        } else if (b < 0xF8) {
            ok = decode_run<R, 4>(s, n, room, i, out, k);
        } else { // five and six bytes, and (Strict) the bytes that lead nothing
            unsigned len = kLeadLength<R>[b];
            ok = len != 0 && len <= n - i;
            if (ok) {
                u32 v = b & kLeadPayload[len];
                for (unsigned j = 1; ok && j < len; ++j) {
                    ok = R == Rule::Loose || (s[i + j] & 0xC0) == 0x80;
                    v = v << 6 | (s[i + j] & 0x3Fu);
                }
                ok = ok && (R == Rule::Loose || v >= kShortest[len]);
                if (ok) {
                    out[k++] = static_cast<Unit>(v);
                    i += len;
                }
            }
        }
        if (!ok) { // cut short by the terminator, or (Strict) a bad sequence
            if (R == Rule::Loose) return k;
            ++i; // loses its lead byte only
        }
    }
    return k;
}

// Bytes one code point takes: 1 to 6.
inline unsigned encoded_length(u32 c) {
    return 1u + (c >= 0x80) + (c >= 0x800) + (c >= 0x10000) + (c >= 0x200000) + (c >= 0x4000000);
}

// Writes the len-byte form of c; only the bits the form carries are used, so
// bit 31 is lost in the six-byte form and a one-byte form is c's low byte.
inline u8* encode_sequence(u32 c, unsigned len, u8* out) {
    static constexpr u8 kMarker[7] = {0, 0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
    if (len == 1) {
        *out = static_cast<u8>(c);
        return out + 1;
    }
    unsigned shift = 6 * (len - 1);
    *out++ = static_cast<u8>(kMarker[len] | ((c >> shift) & kLeadPayload[len]));
    while (shift > 0) {
        shift -= 6;
        *out++ = static_cast<u8>(0x80 | ((c >> shift) & 0x3F));
    }
    return out;
}

// How a unit at or above 0x80000000 is written: taken as Signed (wide strings,
// whatever the signedness of wchar_t here) it is negative and writes its low
// byte; taken as Unsigned it writes six bytes without bit 31.
enum class Units { Unsigned, Signed };

// Encodes the n units at u into the bytes [out, end); stops before a unit
// that would not fit. Returns the byte after the last one written.
template <Units S, typename Unit>
u8* encode(const Unit* u, std::size_t n, u8* out, const u8* end) {
    static_assert(sizeof(Unit) == 4);
    for (std::size_t i = 0; i < n;) {
        std::size_t room = static_cast<std::size_t>(end - out);
        u32 c = static_cast<u32>(u[i]);
        if (c < 0x80 && n - i >= 8 && room >= 8) {
            u32 any = 0;
            for (int j = 0; j < 8; ++j)
                any |= static_cast<u32>(u[i + j]);
            if (any < 0x80) {
                for (int j = 0; j < 8; ++j)
                    out[j] = static_cast<u8>(u[i + j]);
                out += 8;
                i += 8;
                continue;
            }
        }
        // The common forms written out: on long texts about twice as fast as
        // the general encode_sequence, which takes the rest.
        if (c < 0x80) {
            if (room < 1) break;
            *out++ = static_cast<u8>(c);
        } else if (c < 0x800) {
            if (room < 2) break;
            out[0] = static_cast<u8>(0xC0 | c >> 6);
            out[1] = static_cast<u8>(0x80 | (c & 0x3F));
            out += 2;
        } else if (c < 0x10000) {
            if (room < 3) break;
            out[0] = static_cast<u8>(0xE0 | c >> 12);
            out[1] = static_cast<u8>(0x80 | (c >> 6 & 0x3F));
            out[2] = static_cast<u8>(0x80 | (c & 0x3F));
            out += 3;
        } else if (c < 0x200000) {
            if (room < 4) break;
            out[0] = static_cast<u8>(0xF0 | c >> 18);
            out[1] = static_cast<u8>(0x80 | (c >> 12 & 0x3F));
            out[2] = static_cast<u8>(0x80 | (c >> 6 & 0x3F));
            out[3] = static_cast<u8>(0x80 | (c & 0x3F));
            out += 4;
        } else {
            unsigned len = S == Units::Signed && static_cast<s32>(c) < 0 ? 1 : encoded_length(c);
            if (len > room) break;
            out = encode_sequence(c, len, out);
        }
        ++i;
    }
    return out;
}

} // namespace qosa::utf8
