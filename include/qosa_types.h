/* Basic types and export marker shared by every libqosa header. */
#ifndef QOSA_TYPES_H
#define QOSA_TYPES_H

#include <stddef.h>
#include <stdint.h>

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;
typedef int8_t s8;
typedef int16_t s16;
typedef int32_t s32;
typedef int64_t s64;

/* Marks a name as part of the library's exported interface. Everything not
 * marked stays hidden (the library is built with -fvisibility=hidden). */
#if defined(__GNUC__) || defined(__clang__)
#define QOSA_API __attribute__((visibility("default")))
#else
#define QOSA_API
#endif

#ifdef __cplusplus
#define QOSA_EXTERN_C_BEGIN extern "C" {
#define QOSA_EXTERN_C_END }
#else
#define QOSA_EXTERN_C_BEGIN
#define QOSA_EXTERN_C_END
#endif

/* The all-ones 32-bit failure value of the wrappers. */
#define QOSA_ERROR 0xFFFFFFFFu

#endif /* QOSA_TYPES_H */
