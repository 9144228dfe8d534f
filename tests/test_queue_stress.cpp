// Many producers and consumers on a small queue, with timed and untimed
// calls mixed: every message arrives once, each producer's in order, and
// every count ends at 0.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "internal/queue_debug.h"
#include "qosa_queue.h"

namespace {

struct Msg {
    std::uint32_t producer; // kStop ends a consumer
    std::uint32_t seq;
    std::uint32_t check; // seq scrambled: catches torn copies
};
constexpr std::uint32_t kStop = 0xFFFFFFFFu;
std::uint32_t scramble(std::uint32_t v) { return v * 2654435761u ^ 0x5A5A5A5Au; }

// Timeouts of 0 (no limit) and of 1 to 3 ms.
u32 pick_timeout(std::uint32_t i) { return i % 3 == 0 ? 0 : 1 + i % 3; }

// Every so often one side stops for 5 ms as a whole, so that the other
// side's timed calls run out.
using Clock = std::chrono::steady_clock;
struct Stall {
    std::atomic<std::uint32_t> done{0};
    std::atomic<Clock::rep> until{0};
    void step(std::uint32_t every) {
        if (done.fetch_add(1, std::memory_order_relaxed) % every == every - 1)
            until.store((Clock::now() + std::chrono::milliseconds(5)).time_since_epoch().count());
        Clock::time_point end{Clock::duration{until.load()}};
        if (Clock::now() < end) std::this_thread::sleep_until(end);
    }
};

} // namespace

TEST(QueueStress, FourProducersFourConsumersCapacityEight) {
    constexpr int kProducers = 4, kConsumers = 4;
    constexpr std::uint32_t kTotal = 200000;
    constexpr std::uint32_t kPerProducer = kTotal / kProducers;
    u32 id = 0;
    ASSERT_EQ(ORV_QueueCreate("stress", 8, &id, 0, sizeof(Msg)), 0u);

    std::vector<std::thread> producers, consumers;
    std::atomic<std::uint64_t> writeTimeouts{0}, readTimeouts{0};
    Stall producersStall, consumersStall;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (std::uint32_t seq = 0; seq < kPerProducer; ++seq) {
                producersStall.step(20000);
                Msg m{static_cast<std::uint32_t>(p), seq, scramble(seq)};
                for (std::uint32_t attempt = seq;; ++attempt) {
                    u32 r = ORV_QueueWrite(id, &m, sizeof m, pick_timeout(attempt));
                    if (r == 0) break;
                    ASSERT_EQ(r, ORV_QUEUE_ERR_WRITE_TIMEOUT);
                    writeTimeouts.fetch_add(1, std::memory_order_relaxed);
                }
            }
        });
    }
    // Each consumer keeps what it got, in the order it got it.
    std::vector<std::vector<Msg>> got(kConsumers);
    for (int c = 0; c < kConsumers; ++c) {
        consumers.emplace_back([&, c] {
            for (std::uint32_t i = static_cast<std::uint32_t>(c);; ++i) {
                consumersStall.step(15000);
                Msg m{};
                u32 r = ORV_QueueRead(id, pick_timeout(i), &m, sizeof m);
                if (r != sizeof m) {
                    ASSERT_TRUE(r == ORV_QUEUE_ERR_READ_TIMEOUT || r == ORV_QUEUE_ERR_READ_RETRY_TIMEOUT) << r;
                    readTimeouts.fetch_add(1, std::memory_order_relaxed);
                    continue;
                }
                if (m.producer == kStop) return;
                got[c].push_back(m);
            }
        });
    }
    for (auto& t : producers)
        t.join();
    Msg stop{kStop, 0, 0};
    for (int c = 0; c < kConsumers; ++c)
        ASSERT_EQ(ORV_QueueWrite(id, &stop, sizeof stop, 0), 0u);
    for (auto& t : consumers)
        t.join();

    std::vector<std::vector<bool>> seen(kProducers, std::vector<bool>(kPerProducer));
    std::uint64_t total = 0;
    for (const auto& list : got) {
        std::vector<std::int64_t> last(kProducers, -1);
        for (const Msg& m : list) {
            ASSERT_LT(m.producer, static_cast<std::uint32_t>(kProducers));
            ASSERT_LT(m.seq, kPerProducer);
            ASSERT_EQ(m.check, scramble(m.seq));
            ASSERT_FALSE(seen[m.producer][m.seq]) << "duplicate " << m.producer << '/' << m.seq;
            seen[m.producer][m.seq] = true;
            ASSERT_GT(static_cast<std::int64_t>(m.seq), last[m.producer]) << "producer order broken";
            last[m.producer] = m.seq;
            ++total;
        }
    }
    EXPECT_EQ(total, kTotal) << "messages lost";

    qosa::queue::QueueCounts c{};
    ASSERT_TRUE(qosa::queue::inspect(id, &c));
    EXPECT_EQ(c.messages, 0u);
    EXPECT_EQ(c.readUnits, 0u);
    EXPECT_EQ(c.writeUnits, 0u);
    EXPECT_EQ(c.writeWaiting, 0u);
    EXPECT_EQ(c.placesHeld, 0u);
    EXPECT_EQ(c.readSleepers + c.writeSleepers, 0u);
    EXPECT_EQ(ORV_QueueDelete(id), 0u);
    std::printf("timed out: %llu writes, %llu reads\n", static_cast<unsigned long long>(writeTimeouts.load()),
                static_cast<unsigned long long>(readTimeouts.load()));
}
