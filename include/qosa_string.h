/** @file
 * String utilities: length, comparison, search, case, tokens, numbers.
 *
 * Strings are NUL-terminated and belong to the caller; nothing here
 * allocates. Apart from QOSA_StrLen, QOSA_StrToInt32 and the in-place case
 * conversions, NULL is not a valid string argument. */
#ifndef QOSA_STRING_H
#define QOSA_STRING_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/** Length of a string. @param s the string, or NULL
 * @return its length in bytes; 0 for NULL */
QOSA_API u32 QOSA_StrLen(const char* s);
/** strcmp. @param a,b the strings
 * @return below, equal to or above 0 as a sorts before, with or after b */
QOSA_API int QOSA_StrCmp(const char* a, const char* b);
/** strncmp. @param a,b the strings @param n the most characters compared
 * @return as QOSA_StrCmp */
QOSA_API int QOSA_StrNCmp(const char* a, const char* b, u32 n);
/** strcasecmp: compares without regard to case. @param a,b the strings
 * @return as QOSA_StrCmp */
QOSA_API int QOSA_StriCmp(const char* a, const char* b);
/** strncasecmp. @param a,b the strings @param n the most characters compared
 * @return as QOSA_StrCmp */
QOSA_API int QOSA_StriNCmp(const char* a, const char* b, u32 n);
/** strstr. @param s the string searched @param sub the text looked for
 * @return its first place in s, or NULL */
QOSA_API char* QOSA_StrStr(const char* s, const char* sub);
/** strchr. @param s the string @param c the character
 * @return its first place in s, or NULL */
QOSA_API char* QOSA_StrChr(const char* s, int c);
/** strrchr. @param s the string @param c the character
 * @return its last place in s, or NULL */
QOSA_API char* QOSA_StrrChr(const char* s, int c);
/** strtol. @param s the text @param end receives the first character not
 * converted, or NULL @param base 2 to 36, or 0 to follow the prefix
 * @return the value (LONG_MIN or LONG_MAX with ERANGE when out of range) */
QOSA_API long QOSA_Strtol(const char* s, char** end, int base);
/** strtoul. @param s the text @param end receives the first character not
 * converted, or NULL @param base 2 to 36, or 0 to follow the prefix
 * @return the value (ULONG_MAX with ERANGE when out of range) */
QOSA_API unsigned long QOSA_Strtoul(const char* s, char** end, int base);
/** atoi. @param s the text @return the decimal value, 0 when there is none */
QOSA_API int QOSA_StrToInt(const char* s);
/** atof. @param s the text @return the value narrowed to float, 0 when there
 * is none */
QOSA_API float QOSA_StrToFloat(const char* s);
/** tolower. @param c a character
 * @return its lower-case form, cut to a signed char */
QOSA_API int QOSA_CharToLower(int c);
/** toupper. @param c a character
 * @return its upper-case form, cut to a signed char */
QOSA_API int QOSA_CharToUpper(int c);
/** Tokeniser with the caller's context: pass the string first, then NULL.
 * Delimiters are overwritten with NUL.
 * @param s the string to split (changed in place), NULL to continue
 * @param delim the delimiter characters
 * @param context the caller's position pointer
 * @return the next token; NULL when none is left or delim or context is NULL */
QOSA_API char* QOSA_StrTok_S(char* s, const char* delim, char** context);

/** In-place upper-case conversion (toupper on every byte).
 * @param s the string; NULL and "" are returned untouched @return s */
QOSA_API char* QOSA_StrToUper(char* s);
/** In-place lower-case conversion (tolower on every byte).
 * @param s the string; NULL and "" are returned untouched @return s */
QOSA_API char* QOSA_StrToLower(char* s);
/** Reads an integer with strtol base 0 (0x hexadecimal, 0 octal); trailing
 * text is allowed.
 * @param s the text
 * @param out receives the low 32 bits of the value (also on failure)
 * @return 0; 1 (last error cleared) when nothing converted, the value is out
 *         of the range of long, or an argument is NULL */
QOSA_API u32 QOSA_StrToInt32(const char* s, s32* out);
/** Formats value in decimal. @param value the number
 * @param buffer at least 11 bytes; left empty when the text does not fit
 *        (values below -999999999)
 * @return buffer */
QOSA_API char* QOSA_IntToStr(s32 value, char* buffer);
/** Formats value with "%f". @param value the number
 * @param buffer at least 11 bytes; left empty when the text does not fit
 *        (values of 1000 or more, or -100 or less)
 * @return buffer */
QOSA_API char* QOSA_FloatToStr(char* buffer, float value);
/** Formats value in octal (radix 8), lower-case hexadecimal (16) or decimal
 * (anything else), touching at most 12 bytes of buffer.
 * @param buffer receives the text
 * @param size size of buffer in bytes
 * @param value the number
 * @param radix 8, 16, else decimal
 * @return characters written; -1 for a null buffer, size 0, or a text that
 *         does not fit (cut to what fits) */
QOSA_API s64 QOSA_Ultostr(char* buffer, u64 size, u32 value, u32 radix);

QOSA_EXTERN_C_END

#endif /* QOSA_STRING_H */
