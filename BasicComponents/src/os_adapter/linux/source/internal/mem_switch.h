// The memory-tracking switch (0 at load, 1 for the rest of the process once
// QOSA_MemInitMemMange has run) and the allocation front end the library's
// own code uses (os_mem). Every block is recorded with the line and file
// the caller passes, so callers pass their own position (QOSA_HERE).
#pragma once

#include "qosa_types.h"

namespace qosa::mem {
extern u8 g_EnableMemMonitor;
inline bool tracking() { return __atomic_load_n(&g_EnableMemMonitor, __ATOMIC_ACQUIRE) == 1; }

// A block of size bytes of the given type (QOSA_MEM_*), or nullptr.
void* alloc(u32 size, u32 type, u32 line, const char* file);
// Releases a block from alloc (nothing for nullptr).
void release(void* p, u32 type, u32 line, const char* file);
} // namespace qosa::mem
