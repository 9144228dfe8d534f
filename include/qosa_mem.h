/* Tracked memory: the allocation front end, the record table and the reports. */
#ifndef QOSA_MEM_H
#define QOSA_MEM_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* Memory types: the index into the report's type names. The library's own
 * allocations use QOSA_MEM_DYN. */
#define QOSA_MEM_DYN 0u
#define QOSA_MEM_FIXED 1u
#define QOSA_MEM_CACHE 2u
#define QOSA_MEM_ALN 3u
#define QOSA_MEM_SD 4u
#define QOSA_MEM_IS 5u

QOSA_API void* QOSA_MemTypeMallocD(u32 size, u32 type, u32 line, const char* file);
QOSA_API void* QOSA_MemTypeMallocS(u32 size, int fill, u32 type, u32 line, const char* file);
QOSA_API void QOSA_MemTypeFreeD(void* p, u32 type, u32 line, const char* file);
QOSA_API int QOSA_MemCmp(const void* a, const void* b, u32 len);
QOSA_API char* QOSA_StrDupEx(const char* source, u32 line, const char* file);

QOSA_EXTERN_C_END

#endif /* QOSA_MEM_H */
