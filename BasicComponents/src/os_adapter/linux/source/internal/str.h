// The string step every layer needs: the length of a text that may be missing.
#pragma once

#include <cstring>

#include "qosa_types.h"

namespace qosa {

// Bytes before the terminator; a null text is empty.
inline u32 str_len(const char* s) { return s ? static_cast<u32>(std::strlen(s)) : 0; }

} // namespace qosa
