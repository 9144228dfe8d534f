/** @file
 * Basic types and export marker shared by every libqosa header. */
#ifndef QOSA_TYPES_H
#define QOSA_TYPES_H

#include <stddef.h>
#include <stdint.h>

typedef uint8_t u8;   /**< Unsigned 8-bit integer. */
typedef uint16_t u16; /**< Unsigned 16-bit integer. */
typedef uint32_t u32; /**< Unsigned 32-bit integer. */
typedef uint64_t u64; /**< Unsigned 64-bit integer. */
typedef int8_t s8;    /**< Signed 8-bit integer. */
typedef int16_t s16;  /**< Signed 16-bit integer. */
typedef int32_t s32;  /**< Signed 32-bit integer. */
typedef int64_t s64;  /**< Signed 64-bit integer. */

/** @def QOSA_API
 * Marks a name as part of the library's exported interface. Everything not
 * marked stays hidden (the library is built with -fvisibility=hidden). */
#if defined(__GNUC__) || defined(__clang__)
#define QOSA_API __attribute__((visibility("default")))
#else
#define QOSA_API
#endif

/** @def QOSA_EXTERN_C_BEGIN
 * Opens C linkage for the declarations that follow when compiled as C++.
 * @def QOSA_EXTERN_C_END
 * Closes what QOSA_EXTERN_C_BEGIN opened. */
#ifdef __cplusplus
#define QOSA_EXTERN_C_BEGIN extern "C" {
#define QOSA_EXTERN_C_END }
#else
#define QOSA_EXTERN_C_BEGIN
#define QOSA_EXTERN_C_END
#endif

/** The all-ones 32-bit failure value (-1 as u32) of the wrappers and services. */
#define QOSA_ERROR 0xFFFFFFFFu

#endif /* QOSA_TYPES_H */
