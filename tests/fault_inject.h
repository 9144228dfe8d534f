// Faults injected into the executable that links fault_inject.cpp, whose allocator entry points, mprotect and
// pthread_create pass to the next implementation (a sanitizer's, else the C library's) unless a fault is armed.
#pragma once

namespace fault {
// Alloc fails the k-th allocation from the arming on (once; k = 0 only counts), Thread every pthread_create,
// Maps every mprotect to read-only. Fds is the caller's own: it lowers RLIMIT_NOFILE, nothing here strikes.
enum class Kind { None, Alloc, Thread, Maps, Fds };
void arm(Kind kind, long k = 0);
bool disarm();      // true when the armed fault struck
long seen();        // allocations seen while Alloc was armed
long live_blocks(); // blocks the allocator handed out and has not got back, over the whole process
} // namespace fault
