// What every source unit of the library includes: the bounds-checked layer,
// the wrapper idiom and the RAII lock.
#pragma once

#include "bounded.h"
#include "guard.h"
#include "mutex_guard.h"

using qosa::bounded::memcpy_s;
using qosa::bounded::memset_s;
using qosa::bounded::snprintf_s;
using qosa::bounded::sprintf_s;
using qosa::bounded::sscanf_s;
using qosa::bounded::strcat_s;
using qosa::bounded::strncat_s;
using qosa::bounded::strncpy_s;
using qosa::bounded::strtok_s;
using qosa::bounded::vsprintf_s;
using qosa::detail::as_path;
using qosa::detail::guarded;
using qosa::detail::MutexGuard;
using qosa::detail::need;
using qosa::detail::nothing;

// The source position recorded with the library's own allocations.
#define QOSA_HERE __LINE__, QOSA_UNIT_NAME
