/** @file
 * UTF-8, wide and locale text conversion.
 *
 * Two families: the permissive codec (utf8_to_unicode and its kin; sequences
 * of up to six bytes, 31-bit code points, nothing rejected) and the
 * validating and locale conversions of the ORV_ family. Every string a
 * conversion returns is a new block that belongs to the caller. */
#ifndef QOSA_TEXT_H
#define QOSA_TEXT_H

#include <wchar.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/** One row of the UTF-8 sequence table, for one sequence length. */
typedef struct QOSA_UTF8_TB_S {
    s32 cmask; /**< mask applied to a lead byte */
    s32 cval;  /**< value of the masked lead byte; also the marker bits of an encoded lead byte */
    s32 shift; /**< 6 * (length - 1): brings the lead byte's payload down */
    s64 lmask; /**< the code point bits a sequence of this length carries */
    s64 lval;  /**< smallest code point that needs this length (below it: overlong) */
} QOSA_UTF8_TB_S;

/** The UTF-8 sequence table: rows for lengths 1 to 6, then a row of zeros
 * that ends the table. Every unit including this header has its own copy of
 * these constants. */
#if defined(__GNUC__) || defined(__clang__)
__attribute__((unused))
#endif
static const QOSA_UTF8_TB_S utf8TB[7] = {
    {0x80, 0x00, 0, 0x7F, 0x0},
    {0xE0, 0xC0, 6, 0x7FF, 0x80},
    {0xF0, 0xE0, 12, 0xFFFF, 0x800},
    {0xF8, 0xF0, 18, 0x1FFFFF, 0x10000},
    {0xFC, 0xF8, 24, 0x3FFFFFF, 0x200000},
    {0xFE, 0xFC, 30, 0x7FFFFFFF, 0x4000000},
    {0, 0, 0, 0, 0},
};

/** @name The permissive codec
 * Sequences of up to six bytes, 31-bit code points. Wide strings here are
 * arrays of u32 ended by a 0 unit. Malformed input is never rejected: the
 * lead byte decides the length and the bytes after it are taken as
 * continuation bytes whatever they are. */
/** @{ */
/** Decodes the sequence at utf8. Reads as many bytes as the lead byte
 * announces.
 * @param utf8 the sequence's lead byte
 * @param unicode receives the code point
 * @return the sequence's length, 1 to 6; 0 when a pointer is NULL */
QOSA_API s32 utf8_to_unicode(const u8* utf8, u32* unicode);
/** Encodes one code point (bit 31 is dropped); no terminator.
 * @param unicode the code point
 * @param utf8 at least 6 free bytes
 * @return the byte after the last one written; NULL for a null buffer */
QOSA_API u8* unicode_to_utf8(u32 unicode, u8* utf8);
/** Bytes that one code point needs. @param unicode the code point
 * @return 1 to 6 */
QOSA_API u32 UTF8_LENGTH(u32 unicode);
/** UTF-8 bytes that a wide string needs. @param unicode the 0-ended units
 * @return the byte count, terminator excluded; 0 for NULL or empty */
QOSA_API u32 get_utf8_strlen(const u32* unicode);
/** Units to reserve for decoding a string: an upper bound, not a character
 * count (three- and four-byte sequences count 2).
 * @param utf8 the string @return the count; 0 for NULL or empty */
QOSA_API u32 get_unicode_strlen(const char* utf8);
/** Decodes a UTF-8 string into a new wide string; a sequence cut short by the
 * terminator yields no unit.
 * @param utf8 the string
 * @return a new block of get_unicode_strlen(utf8) + 1 units, 0 from the
 *         terminator on, released with ORV_StrMemFree or QOSA_MemTypeFreeD;
 *         NULL for NULL or empty input or when memory is short */
QOSA_API u32* utf8Str_to_unicodeStr(const char* utf8);
/** Encodes a wide string into a new UTF-8 string.
 * @param unicode the 0-ended units
 * @return a new block, released with ORV_StrMemFree or QOSA_MemTypeFreeD;
 *         NULL for NULL or empty input or when memory is short */
QOSA_API char* unicodeStr_to_utf8Str(const u32* unicode);
/** @} */

/** @name Validating and locale conversions
 * Every returned string is a new block that the caller releases with
 * ORV_StrMemFree. A null argument gives NULL; so does a shortage of memory.
 * The locale conversions use the character-type locale that the environment
 * names at each call (LC_ALL, LC_CTYPE, LANG) for the calling thread during
 * the call; the process-wide locale is left alone. */
/** @{ */
/** Decodes the valid sequences of a UTF-8 string; the lead byte of an invalid
 * or overlong sequence is dropped and decoding goes on at the next byte.
 * @param utf8 the string
 * @return a new wide string ("" gives a block holding just the 0 unit) */
QOSA_API wchar_t* ORV_Utf8ToUnicodeW(const char* utf8);
/** The non-zero bytes of the decoded units, least significant first (ISO
 * 8859-1 for code points up to 0xFF). @param utf8 the string
 * @return a new byte string */
QOSA_API char* ORV_Utf8ToUnicodeA(const char* utf8);
/** UTF-8 form of a wide string. @param unicode the wide string
 * @return a new string in a block of 6 * units + 1 bytes, 0 after the text */
QOSA_API char* ORV_UnicodeToUtf8(const wchar_t* unicode);
/** Wide string to the locale's multibyte encoding. @param unicode the wide
 * string @return a new string; NULL when the locale cannot express it */
QOSA_API char* ORV_UnicodeToLocale(const wchar_t* unicode);
/** Locale text to a wide string. @param text text in the locale's encoding
 * @return a new wide string; NULL when the text is not valid there */
QOSA_API wchar_t* ORV_LocaleToUnicodeW(const char* text);
/** Locale text to UTF-8. @param text text in the locale's encoding
 * @return a new UTF-8 string; NULL when the text is not valid there */
QOSA_API char* ORV_LocaleToUtf8(const char* text);
/** UTF-8 to the locale's encoding (invalid sequences dropped as by
 * ORV_Utf8ToUnicodeW). @param utf8 the string
 * @return a new string; NULL when the locale cannot express it */
QOSA_API char* ORV_Utf8ToLocale(const char* utf8);
/** Releases a block returned by any conversion. @param p the block; NULL is
 * ignored */
QOSA_API void ORV_StrMemFree(void* p);
/** Cuts the string in a buffer so that it ends, with its NUL, inside the
 * buffer and on a sequence boundary.
 * @param buffer the string, changed in place
 * @param len the buffer's size in bytes; a negative len empties the string
 * @return 0 when it already ends there; 1 when the last sequence was cut off,
 *         and for a null buffer, len 0 or a negative len */
QOSA_API u32 ORV_Utf8Check(char* buffer, s32 len);
/** @} */

QOSA_EXTERN_C_END

#endif /* QOSA_TEXT_H */
