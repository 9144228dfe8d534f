// Looks into the message queues for checks: counts a user cannot see.
#pragma once

#include <cstdint>

namespace qosa::queue {

struct QueueCounts {
    std::uint32_t messages;      // messages held
    std::uint32_t readUnits;     // free units of the readers' semaphore
    std::uint32_t writeUnits;    // free units of the writers' semaphore
    std::uint32_t writeWaiting;  // writers registered as waiting for a place
    std::uint32_t placesHeld;    // free places promised to woken writers
    std::uint32_t readSleepers;  // threads queued on the readers' semaphore
    std::uint32_t writeSleepers; // threads queued on the writers' semaphore
};

// False when no queue has this id.
bool inspect(std::uint32_t queId, QueueCounts* out);
// True while the queue list exists (from the first create to the last delete).
bool list_exists();
// Sets the number the last queue got; returns the previous one.
std::uint32_t exchange_last_id(std::uint32_t id);

} // namespace qosa::queue
