// The demo program: one section per family of the library. A family's
// demo_<family>.cpp registers its section with an order number:
//
//   static demo::Section s_section{20, "threads and clocks", [] { ... }};
//
// Sections run in ascending order.
#pragma once

#include <cstdio>

namespace demo {

struct Section {
    Section(int order, const char* title, void (*run)());
};

inline void heading(const char* title) { std::printf("\n-- %s --\n", title); }

} // namespace demo
