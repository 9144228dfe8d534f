// The allocation front end. With tracking off every call is one test of the
// switch and a direct malloc or free.
#include <cstdlib>
#include <cstring>

#include "internal/common.h"
#include "internal/mem_switch.h"
#include "qosa_mem.h"

namespace qosa::mem {
u8 g_EnableMemMonitor = 0;
}

using qosa::mem::tracking;

extern "C" {

void* QOSA_MemTypeMallocD(u32 size, u32 type, u32 /*line*/, const char* /*file*/) {
    if (size == 0) return nullptr;
    if (!tracking()) return type == QOSA_MEM_CACHE ? nullptr : std::malloc(size);
    return nullptr; // tracked allocation: not built yet
}

void* QOSA_MemTypeMallocS(u32 size, int fill, u32 type, u32 line, const char* file) {
    void* p = QOSA_MemTypeMallocD(size, type, line, file);
    if (p != nullptr) memset_s(p, size, fill, size);
    return p;
}

void QOSA_MemTypeFreeD(void* p, u32 /*type*/, u32 /*line*/, const char* /*file*/) {
    if (p == nullptr) return;
    if (!tracking()) std::free(p);
}

int QOSA_MemCmp(const void* a, const void* b, u32 len) { return std::memcmp(a, b, len); }

char* QOSA_StrDupEx(const char* source, u32 line, const char* file) {
    u32 length = QOSA_StrLen(source);
    u32 size = length + 1;
    auto* copy = static_cast<char*>(QOSA_MemTypeMallocS(size, 0, QOSA_MEM_DYN, line, file));
    if (copy != nullptr && length != 0) memcpy_s(copy, size, source, length);
    return copy;
}

} // extern "C"
