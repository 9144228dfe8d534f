// The library's own view of the last error and its texts (os_error).
#pragma once

#include "qosa_types.h"

namespace qosa::err {

// The XSI strerror_r: 0, or an error number when the text does not fit (a
// null buffer has no room at all).
int str_error(char* buf, u32 bufLen, u32 errnum);

} // namespace qosa::err
