// The slot index of a kind of timer (see timer_index.h).
#include "timer_index.h"

#include <cerrno>

#include "bounded.h"
#include "tracked.h"

namespace qosa::timer {

u32 SlotIndex::build(u32 n, u32 line, const char* file) {
    if (slots != nullptr) qosa::tracked::release(slots, line, file);
    slots = head = tail = nullptr;
    count = 0;
    if (n == 0) return 0; // no slot: every create is refused
    auto** array = static_cast<void**>(qosa::tracked::alloc(std::size_t{n} * sizeof(void*), line, file));
    if (array == nullptr) {
        errno = ENOMEM;
        return ENOMEM;
    }
    for (u32 i = 0; i + 1 < n; ++i)
        array[i] = &array[i + 1];
    array[n - 1] = nullptr;
    slots = array;
    head = &array[0];
    tail = &array[n - 1];
    count = n;
    return 0;
}

void SlotIndex::drop(u32 line, const char* file) {
    if (slots != nullptr) {
        const std::size_t bytes = std::size_t{count} * sizeof(void*);
        qosa::bounded::memset_s(slots, bytes, 0, bytes);
        qosa::tracked::release(slots, line, file);
    }
    slots = head = tail = nullptr;
    count = 0;
}

} // namespace qosa::timer
