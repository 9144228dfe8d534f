// The memory-tracking switch: 0 at load, 1 for the rest of the process once
// QOSA_MemInitMemMange has run.
#pragma once

#include "qosa_types.h"

namespace qosa::mem {
extern u8 g_EnableMemMonitor;
inline bool tracking() { return __atomic_load_n(&g_EnableMemMonitor, __ATOMIC_ACQUIRE) == 1; }
} // namespace qosa::mem
