// Loads and stores of plain words at any address (guard words, byte runs).
#pragma once

#include <cstring>

namespace qosa {

template <class W>
inline W load_unaligned(const void* p) {
    W w;
    std::memcpy(&w, p, sizeof w);
    return w;
}

template <class W>
inline void store_unaligned(void* p, W w) {
    std::memcpy(p, &w, sizeof w);
}

} // namespace qosa
