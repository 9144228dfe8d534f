// The library's own tracked allocations: memory type 0 and the source position
// of the call. Units use the macros, which take the line where they are
// written and the unit's QOSA_UNIT_NAME, so a memory report names the call
// and not a helper; code that passes a position on (an allocating helper of
// its own) calls the functions with the position it was given.
#pragma once

#include <cstddef>
#include <cstdint>

#include "internal/mem_switch.h"
#include "qosa_mem.h"

namespace qosa::tracked {

// size bytes recorded at line/file, or NULL (a size beyond 32 bits too).
inline void* alloc(std::size_t size, u32 line, const char* file) {
    if (size > UINT32_MAX) return nullptr;
    return qosa::mem::alloc(static_cast<u32>(size), QOSA_MEM_DYN, line, file);
}

// n elements of size bytes, or NULL (also when they pass 32 bits together).
inline void* alloc_n(std::size_t size, std::size_t n, u32 line, const char* file) {
    return n > UINT32_MAX / size ? nullptr : alloc(size * n, line, file);
}

inline void release(void* p, u32 line, const char* file) { qosa::mem::release(p, QOSA_MEM_DYN, line, file); }

} // namespace qosa::tracked

// size bytes, or NULL.
#define QOSA_ALLOC(size) ::qosa::tracked::alloc((size), __LINE__, QOSA_UNIT_NAME)
// Storage for one T (not constructed), or NULL.
#define QOSA_ALLOC_OF(T) static_cast<T*>(QOSA_ALLOC(sizeof(T)))
// Storage for n Ts (not constructed), or NULL.
#define QOSA_ALLOC_N(T, n) static_cast<T*>(::qosa::tracked::alloc_n(sizeof(T), (n), __LINE__, QOSA_UNIT_NAME))
#define QOSA_RELEASE(p) ::qosa::tracked::release((p), __LINE__, QOSA_UNIT_NAME)
