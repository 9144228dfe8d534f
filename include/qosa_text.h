/* UTF-8, wide and locale text conversion. */
#ifndef QOSA_TEXT_H
#define QOSA_TEXT_H

#include <wchar.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* One row of the UTF-8 sequence table, per sequence length:
 *   cmask  mask applied to a lead byte
 *   cval   value of the masked lead byte; also the marker bits of an encoded lead byte
 *   shift  6 * (length - 1): brings the lead byte's payload down
 *   lmask  the code point bits a sequence of this length carries
 *   lval   smallest code point that needs this length (below it: overlong) */
typedef struct QOSA_UTF8_TB_S {
    s32 cmask;
    s32 cval;
    s32 shift;
    s64 lmask;
    s64 lval;
} QOSA_UTF8_TB_S;

/* Rows for lengths 1 to 6, then a row of zeros that ends the table. Every
 * unit including this header has its own copy of these constants. */
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

/* ---- the permissive codec (sequences of up to six bytes, 31-bit code points) ----
 * Wide strings here are arrays of u32 ended by a 0 unit. Malformed input is
 * never rejected: the lead byte decides the length and the bytes after it are
 * taken as continuation bytes whatever they are. */

/* Decodes the sequence at utf8 into *unicode; returns its length (1 to 6), 0
 * when a pointer is null. Reads as many bytes as the lead byte announces. */
QOSA_API s32 utf8_to_unicode(const u8* utf8, u32* unicode);
/* Encodes one code point (bit 31 is dropped) into at least 6 free bytes; no
 * terminator. Returns the byte after the last one written, NULL for a null buffer. */
QOSA_API u8* unicode_to_utf8(u32 unicode, u8* utf8);
/* Bytes that one code point needs: 1 to 6. */
QOSA_API u32 UTF8_LENGTH(u32 unicode);
/* UTF-8 bytes that the units need, terminator excluded; 0 for NULL or empty. */
QOSA_API u32 get_utf8_strlen(const u32* unicode);
/* Units to reserve for decoding the string (an upper bound, not a character
 * count: three- and four-byte sequences count 2); 0 for NULL or empty. */
QOSA_API u32 get_unicode_strlen(const char* utf8);
/* New 0-terminated unit array (room for get_unicode_strlen units, cleared
 * past the terminator); NULL for NULL or empty input or when memory is short.
 * A sequence cut short by the terminator yields no unit. */
QOSA_API u32* utf8Str_to_unicodeStr(const char* utf8);
/* New UTF-8 string; NULL for NULL or empty input or when memory is short. */
QOSA_API char* unicodeStr_to_utf8Str(const u32* unicode);

/* ---- validating and locale conversions ----
 * Every returned string is a new block released with ORV_StrMemFree. A null
 * argument gives NULL; so does a shortage of memory. */

/* Wide string of the valid sequences; the lead byte of an invalid or overlong
 * sequence is dropped and decoding goes on at the next byte. "" gives a block
 * holding just the 0 unit. */
QOSA_API wchar_t* ORV_Utf8ToUnicodeW(const char* utf8);
/* The non-zero bytes of the decoded units, least significant first (ISO 8859-1
 * for code points up to 0xFF). */
QOSA_API char* ORV_Utf8ToUnicodeA(const char* utf8);
/* UTF-8 form of a wide string, in a block of 6 * units + 1 bytes, zero after the text. */
QOSA_API char* ORV_UnicodeToUtf8(const wchar_t* unicode);
/* Conversions under the character-type locale the environment names at each call (LC_ALL,
 * LC_CTYPE, LANG); the process-wide locale is left alone. NULL when the text
 * cannot be expressed in the target encoding. */
QOSA_API char* ORV_UnicodeToLocale(const wchar_t* unicode);
QOSA_API wchar_t* ORV_LocaleToUnicodeW(const char* text);
QOSA_API char* ORV_LocaleToUtf8(const char* text);
QOSA_API char* ORV_Utf8ToLocale(const char* utf8);
/* Releases a block returned by any conversion; NULL is ignored. */
QOSA_API void ORV_StrMemFree(void* p);
/* Cuts the string in a buffer of len bytes so that it ends, with its NUL,
 * inside the buffer and on a sequence boundary: 0 when it already does, 1 when
 * the last sequence was cut off (or for NULL, len 0; a negative len empties it). */
QOSA_API u32 ORV_Utf8Check(char* buffer, s32 len);

QOSA_EXTERN_C_END

#endif /* QOSA_TEXT_H */
