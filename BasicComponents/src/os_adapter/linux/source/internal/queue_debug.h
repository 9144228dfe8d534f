// Looks into the message queues for checks: counts a user cannot see.
#pragma once

#include <cstdint>

namespace qosa::queue {

struct QueueCounts {
    std::uint32_t messages;     // messages held
    std::uint32_t readWaiters;  // readers queued for a message (leaving ones included)
    std::uint32_t writeWaiters; // writers queued for a place (leaving ones included)
    std::uint32_t spareNodes;   // nodes kept for later writes
};

// False when no queue has this id.
bool inspect(std::uint32_t queId, QueueCounts* out);
// True while the queue list exists (from the first create to the last delete).
bool list_exists();
// Sets the number the last queue got; returns the previous one.
std::uint32_t exchange_last_id(std::uint32_t id);

} // namespace qosa::queue
