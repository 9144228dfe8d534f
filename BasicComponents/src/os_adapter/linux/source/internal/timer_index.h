// The slot index behind the handles of one kind of timer (relative or
// absolute): an array of pointer-sized slots. A handle is the address of a
// slot; a slot in use holds the timer's record, a free one holds the address
// of the next free slot (NULL ends the chain). Free slots are taken at the
// head and returned at the tail, so a slot is reused as late as possible.
//
// The index works on the kind's exported variables; the caller holds the
// kind's index lock for every call.
#pragma once

#include <cstdint>

#include "qosa_types.h"

namespace qosa::timer {

struct SlotIndex {
    void**& slots; // the array, NULL while there is none
    void**& head;  // first free slot, NULL when all are in use
    void**& tail;  // last free slot
    u32 count = 0; // slots of the array

    // Replaces the array by one of n free slots (none for n = 0), allocated
    // as recorded at line/file. 0, or ENOMEM (errno set; no array then).
    u32 build(u32 n, u32 line, const char* file);
    // Clears and releases the array; the slot records are not touched.
    void drop(u32 line, const char* file);

    // p is a slot of the array.
    bool holds_address(const void* p) const {
        auto a = reinterpret_cast<std::uintptr_t>(p);
        auto lo = reinterpret_cast<std::uintptr_t>(slots);
        return slots != nullptr && a >= lo && a < lo + std::uintptr_t{count} * sizeof(void*) &&
               (a - lo) % sizeof(void*) == 0;
    }

    // The handle test: the record in slot h, or NULL when h is no slot or a
    // free one.
    void* live(void* h) const {
        if (!holds_address(h)) return nullptr;
        void* content = *static_cast<void**>(h);
        return content == nullptr || holds_address(content) ? nullptr : content;
    }

    // The slot numbered index when it still holds record, else NULL.
    void** slot_of(s32 index, const void* record) const {
        if (slots == nullptr || index < 0 || static_cast<u32>(index) >= count) return nullptr;
        void** slot = slots + index;
        return *slot == record ? slot : nullptr;
    }

    // A free slot off the head of the chain, or NULL when there is none.
    void** take() {
        void** slot = head;
        if (slot == nullptr) return nullptr;
        head = static_cast<void**>(*slot);
        if (head == nullptr) tail = nullptr;
        return slot;
    }

    // Frees slot and appends it to the chain.
    void release(void** slot) {
        *slot = nullptr;
        if (tail != nullptr)
            *tail = slot;
        else
            head = slot;
        tail = slot;
    }

    // Calls f(slot, record) for every slot in use, in slot order; f may
    // release the slot.
    template <class F>
    void each_record(F f) {
        for (u32 i = 0; i < count; ++i)
            if (void* record = live(&slots[i]); record != nullptr) f(&slots[i], record);
    }
};

} // namespace qosa::timer
