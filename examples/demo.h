// The demo program: one section per family of the library.
#pragma once

#include <cstdio>

namespace demo {

void core();    // last error, mutexes, strings, operate history

inline void heading(const char* title) { std::printf("\n== %s ==\n", title); }

} // namespace demo
