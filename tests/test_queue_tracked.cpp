// Message queues with memory tracking on: every message held is a tracked
// node and a tracked copy of its own, recorded with this library's source
// file, and nothing is left once the messages are read and the queue is gone.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "internal/queue_debug.h"
#include "qosa_mem.h"
#include "qosa_queue.h"

namespace {
// The sizes of the live blocks the queue unit recorded.
std::vector<u32> queue_blocks() {
    QOSA_MEM_REC_S* recs = nullptr;
    u32 n = sysMemSortMemInfo(&recs, const_cast<char*>("minikarbo_queue"), 1);
    std::vector<u32> sizes;
    for (u32 i = 0; i < n; ++i)
        sizes.push_back(recs[i].ulSize);
    std::free(recs);
    return sizes;
}
std::size_t count_of(const std::vector<u32>& v, u32 size) {
    std::size_t n = 0;
    for (u32 s : v)
        n += s == size;
    return n;
}
} // namespace

TEST(QueueTracked, EveryMessageHeldIsRecordedAndReleased) {
    QOSA_MemInitMemMange();
    u32 id = 0;
    ASSERT_EQ(ORV_QueueCreate("tracked", 4, &id, 0, 64), 0u);
    const std::size_t empty = queue_blocks().size(); // the list, its index and the queue
    EXPECT_GE(empty, 2u);

    for (u32 len : {5u, 17u, 17u})
        ASSERT_EQ(ORV_QueueWrite(id, std::string(len, 'm').data(), len, 0), 0u);
    auto held = queue_blocks();
    EXPECT_EQ(held.size(), empty + 6) << "a node and a copy per message";
    EXPECT_EQ(count_of(held, 5), 1u);
    EXPECT_EQ(count_of(held, 17), 2u);

    char buf[64];
    for (u32 len : {5u, 17u, 17u})
        ASSERT_EQ(ORV_QueueRead(id, 0, buf, sizeof buf), len);
    EXPECT_EQ(queue_blocks().size(), empty);

    // A message handed straight to a waiting reader leaves nothing behind.
    std::thread reader([&] { EXPECT_EQ(ORV_QueueRead(id, 10000, buf, sizeof buf), 9u); });
    qosa::queue::QueueCounts c{};
    while (qosa::queue::inspect(id, &c) && c.readWaiters == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(ORV_QueueWrite(id, "123456789", 9, 0), 0u);
    reader.join();
    EXPECT_EQ(queue_blocks().size(), empty);

    ASSERT_EQ(ORV_QueueWrite(id, "left", 4, 0), 0u);
    EXPECT_EQ(ORV_QueueDelete(id), 0u) << "a queue is deleted with its messages";
    EXPECT_TRUE(queue_blocks().empty());
}
