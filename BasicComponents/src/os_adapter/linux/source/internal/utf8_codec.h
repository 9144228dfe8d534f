// The whole-string UTF-8 decoder: built into the library, reachable from the
// static archive, but not among the shared library's exported names.
#pragma once

#include "qosa_types.h"

extern "C" {
// New 0-terminated unit array; NULL for NULL or empty input or when memory is
// short. A sequence cut short by the terminator yields no unit. Release with
// ORV_StrMemFree.
u32* utf8Str_to_unicodeStr(const char* utf8);
}
