/* String utilities: length, comparison, search, case, tokens, numbers. */
#ifndef QOSA_STRING_H
#define QOSA_STRING_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* Length of a string; 0 for a null pointer. */
QOSA_API u32 QOSA_StrLen(const char* s);
QOSA_API int QOSA_StrCmp(const char* a, const char* b);
QOSA_API int QOSA_StrNCmp(const char* a, const char* b, u32 n);
QOSA_API int QOSA_StriCmp(const char* a, const char* b);
QOSA_API int QOSA_StriNCmp(const char* a, const char* b, u32 n);
QOSA_API char* QOSA_StrStr(const char* s, const char* sub);
QOSA_API char* QOSA_StrChr(const char* s, int c);
QOSA_API char* QOSA_StrrChr(const char* s, int c);
QOSA_API long QOSA_Strtol(const char* s, char** end, int base);
QOSA_API unsigned long QOSA_Strtoul(const char* s, char** end, int base);
QOSA_API int QOSA_StrToInt(const char* s);
QOSA_API float QOSA_StrToFloat(const char* s);
QOSA_API int QOSA_CharToLower(int c);
QOSA_API int QOSA_CharToUpper(int c);
/* Tokeniser with the caller's context: pass the string first, then NULL. */
QOSA_API char* QOSA_StrTok_S(char* s, const char* delim, char** context);

/* In-place case conversion; null and empty strings are returned untouched. */
QOSA_API char* QOSA_StrToUper(char* s);
QOSA_API char* QOSA_StrToLower(char* s);
/* 0 with *out set; 1 (last error cleared) when nothing converted or out of range. */
QOSA_API u32 QOSA_StrToInt32(const char* s, s32* out);
/* buffer must hold at least 11 bytes; left empty when the text does not fit. */
QOSA_API char* QOSA_IntToStr(s32 value, char* buffer);
QOSA_API char* QOSA_FloatToStr(char* buffer, float value);
/* radix 8 or 16, anything else decimal; characters written or -1. */
QOSA_API s64 QOSA_Ultostr(char* buffer, u64 size, u32 value, u32 radix);

QOSA_EXTERN_C_END

#endif /* QOSA_STRING_H */
