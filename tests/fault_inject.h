// Faults injected into the test executable that links fault_inject.cpp: its
// own allocator entry points, mprotect and pthread_create pass to the next
// implementation (a sanitizer's, else the C library's) unless a fault is
// armed. Descriptor faults need no interposition: the child lowers
// RLIMIT_NOFILE.
#pragma once

namespace fault {

enum class Kind { None, Alloc, Thread, Maps };

// Arms one kind: Alloc fails the k-th allocation from now on (once; k = 0
// only counts), Thread every pthread_create, Maps every mprotect to read-only.
void arm(Kind kind, long k = 0);
// Disarms; true when the armed fault struck.
bool disarm();
// Allocations seen while Alloc was armed.
long seen();
// Blocks the allocator handed out and not yet got back, over the whole process.
long live_blocks();

} // namespace fault
