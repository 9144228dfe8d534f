// Message queues, and many producers and consumers on a small one (the
// numbering test must stay first: it expects a process without queues).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "internal/queue_debug.h"
#include "qosa_queue.h"

namespace {
using Clock = std::chrono::steady_clock;
std::int64_t ms_since(Clock::time_point t0) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}
u32 make_queue(u32 capacity, u32 maxLen) {
    u32 id = 0;
    EXPECT_EQ(ORV_QueueCreate("q", capacity, &id, 0, maxLen), 0u);
    return id;
}
qosa::queue::QueueCounts counts(u32 id) {
    qosa::queue::QueueCounts c{};
    EXPECT_TRUE(qosa::queue::inspect(id, &c));
    return c;
}
// Messages, units, waiting writers and held places: all 0 on a quiet, empty queue.
u32 leftovers(u32 id) {
    auto c = counts(id);
    return c.messages + c.readUnits + c.writeUnits + c.writeWaiting + c.placesHeld;
}
void wait_for_write_sleepers(u32 id, u32 n) {
    while (counts(id).writeSleepers != n)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}
} // namespace

TEST(Queue, NumbersCountOnAcrossRebuiltLists) {
    u32 ids[3] = {};
    for (u32& id : ids)
        ASSERT_EQ(ORV_QueueCreate("numbered", 4, &id, 1, 8), 0u);
    EXPECT_TRUE(ids[0] == 1 && ids[1] == 2 && ids[2] == 3) << ids[0] << ids[1] << ids[2];
    for (u32 id : ids)
        EXPECT_EQ(ORV_QueueDelete(id), 0u);
    EXPECT_FALSE(qosa::queue::list_exists()) << "deleting the last queue frees the list";
    char buf[8];
    EXPECT_EQ(ORV_QueueRead(ids[0], 10, buf, sizeof buf), ORV_QUEUE_ERR_READ_NO_QUEUE);
    EXPECT_EQ(ORV_QueueDelete(ids[0]), ORV_QUEUE_ERR_DELETE_NO_QUEUE);

    u32 next = 0;
    ASSERT_EQ(ORV_QueueCreate("again", 4, &next, 0, 8), 0u);
    EXPECT_EQ(next, 4u);
    EXPECT_TRUE(qosa::queue::list_exists());

    // Once the last number is handed out, creation fails for good.
    u32 was = qosa::queue::exchange_last_id(UINT32_MAX - 1);
    u32 last = 0, none = 0;
    EXPECT_EQ(ORV_QueueCreate("last", 1, &last, 0, 8), 0u);
    EXPECT_EQ(last, UINT32_MAX);
    EXPECT_EQ(ORV_QueueCreate("none", 1, &none, 0, 8), ORV_QUEUE_ERR_CREATE_ID);
    EXPECT_EQ(ORV_QueueCreate("none", 1, &none, 0, 8), ORV_QUEUE_ERR_CREATE_ID);
    qosa::queue::exchange_last_id(was);
    EXPECT_EQ(ORV_QueueDelete(last), 0u);
    EXPECT_EQ(ORV_QueueDelete(next), 0u);
}

TEST(Queue, ResultCodesInCheckOrder) {
    // Create: mode, then maximum length, then name, then the id pointer.
    EXPECT_EQ(ORV_QueueCreate(nullptr, 1, nullptr, 2, 0), ORV_QUEUE_ERR_CREATE_MODE);
    EXPECT_EQ(ORV_QueueCreate(nullptr, 1, nullptr, 1, 0), ORV_QUEUE_ERR_CREATE_MSGLEN);
    EXPECT_EQ(ORV_QueueCreate(nullptr, 1, nullptr, 1, 1), ORV_QUEUE_ERR_CREATE_NAME);
    EXPECT_EQ(ORV_QueueCreate("n", 1, nullptr, 1, 1), ORV_QUEUE_ERR_CREATE_ID);
    u32 id = make_queue(3, 10);
    u32 unknown = id + 1000;
    char buf[16] = {};
    // Read: buffer length, then buffer, then the queue.
    EXPECT_EQ(ORV_QueueRead(unknown, 0, nullptr, 0), ORV_QUEUE_ERR_READ_BUFLEN);
    EXPECT_EQ(ORV_QueueRead(unknown, 0, nullptr, 1), ORV_QUEUE_ERR_READ_BUF);
    EXPECT_EQ(ORV_QueueRead(unknown, 0, buf, 1), ORV_QUEUE_ERR_READ_NO_QUEUE);
    // Write: message, then the queue, then the length.
    EXPECT_EQ(ORV_QueueWrite(unknown, nullptr, 0, 0), ORV_QUEUE_ERR_WRITE_MSG);
    EXPECT_EQ(ORV_QueueWrite(unknown, buf, 0, 0), ORV_QUEUE_ERR_WRITE_NO_QUEUE);
    EXPECT_EQ(ORV_QueueWrite(id, buf, 0, 0), ORV_QUEUE_ERR_WRITE_LEN);
    EXPECT_EQ(ORV_QueueWrite(id, buf, 11, 0), ORV_QUEUE_ERR_WRITE_LEN);
    EXPECT_EQ(ORV_QueueWrite(id, buf, 10, 0), 0u) << "exactly the maximum length";
    EXPECT_EQ(ORV_QueueGetMsgNum(unknown), ORV_QUEUE_ERR_COUNT_NO_QUEUE);
    EXPECT_EQ(ORV_QueueDelete(unknown), ORV_QUEUE_ERR_DELETE_NO_QUEUE);
    EXPECT_EQ(ORV_QueueDelete(id), 0u) << "a queue is deleted with its messages";
    EXPECT_EQ(ORV_QueueGetMsgNum(id), ORV_QUEUE_ERR_COUNT_NO_QUEUE);
}

TEST(Queue, MessagesComeOutInOrderAndCutToTheBuffer) {
    std::string longName(40, 'x');
    u32 id = 0;
    ASSERT_EQ(ORV_QueueCreate(longName.c_str(), 3, &id, 0, 100), 0u) << "a long name is cut, not refused";
    std::vector<char> big(100);
    std::iota(big.begin(), big.end(), char{0});
    ASSERT_EQ(ORV_QueueWrite(id, big.data(), 100, 0), 0u);
    ASSERT_EQ(ORV_QueueWrite(id, "second", 6, 0), 0u);
    ASSERT_EQ(ORV_QueueWrite(id, "3", 1, 0), 0u);
    EXPECT_EQ(ORV_QueueGetMsgNum(id), 3u);

    char buf[40];
    EXPECT_EQ(ORV_QueueRead(id, 0, buf, sizeof buf), 40u);
    EXPECT_EQ(std::memcmp(buf, big.data(), 40), 0);
    char large[128] = {};
    EXPECT_EQ(ORV_QueueRead(id, 100, large, sizeof large), 6u) << "the rest of the long message is dropped";
    EXPECT_STREQ(large, "second");
    EXPECT_EQ(ORV_QueueRead(id, 0, large, sizeof large), 1u);
    EXPECT_EQ(large[0], '3');
    EXPECT_EQ(leftovers(id), 0u);
    ORV_QueueDelete(id);
}

TEST(Queue, TimeOutsOnFullAndEmptyQueues) {
    u32 id = make_queue(1, 8);
    char buf[8];
    auto t0 = Clock::now();
    EXPECT_EQ(ORV_QueueRead(id, 50, buf, sizeof buf), ORV_QUEUE_ERR_READ_TIMEOUT);
    EXPECT_GE(ms_since(t0), 49);

    ASSERT_EQ(ORV_QueueWrite(id, "a", 1, 0), 0u);
    t0 = Clock::now();
    EXPECT_EQ(ORV_QueueWrite(id, "b", 1, 50), ORV_QUEUE_ERR_WRITE_TIMEOUT);
    EXPECT_GE(ms_since(t0), 49);
    EXPECT_LT(ms_since(t0), 1000);
    EXPECT_EQ(ORV_QueueGetMsgNum(id), 1u) << "a failed write stores nothing";
    auto c = counts(id);
    EXPECT_EQ(c.writeWaiting + c.placesHeld + c.writeUnits, 0u) << "a writer that gave up leaves no claim";
    ORV_QueueDelete(id);

    // Capacity 0: the queue never takes a message.
    id = make_queue(0, 8);
    EXPECT_EQ(ORV_QueueWrite(id, "a", 1, 20), ORV_QUEUE_ERR_WRITE_TIMEOUT);
    EXPECT_EQ(ORV_QueueRead(id, 20, buf, sizeof buf), ORV_QUEUE_ERR_READ_TIMEOUT);
    EXPECT_EQ(ORV_QueueGetMsgNum(id), 0u);
    ORV_QueueDelete(id);
}

TEST(Queue, BlockedWritersAreReleasedByReaders) {
    // Two writers wait on a full queue; two reads release both, timed or not.
    for (u32 timeout : {0u, 10000u}) {
        SCOPED_TRACE(timeout);
        u32 id = make_queue(2, 8);
        ASSERT_EQ(ORV_QueueWrite(id, "1", 1, 0), 0u);
        ASSERT_EQ(ORV_QueueWrite(id, "2", 1, 0), 0u);
        std::thread w3([&] { EXPECT_EQ(ORV_QueueWrite(id, "3", 1, timeout), 0u); });
        wait_for_write_sleepers(id, 1);
        std::thread w4([&] { EXPECT_EQ(ORV_QueueWrite(id, "4", 1, timeout), 0u); });
        wait_for_write_sleepers(id, 2);
        EXPECT_EQ(counts(id).writeWaiting, 2u);

        char buf[8] = {};
        auto t0 = Clock::now();
        EXPECT_EQ(ORV_QueueRead(id, 0, buf, sizeof buf), 1u);
        EXPECT_EQ(buf[0], '1');
        EXPECT_EQ(ORV_QueueRead(id, 0, buf, sizeof buf), 1u);
        EXPECT_EQ(buf[0], '2');
        w3.join();
        w4.join();
        EXPECT_LT(ms_since(t0), 2000);
        char late[2] = {};
        EXPECT_EQ(ORV_QueueRead(id, 0, &late[0], 1), 1u);
        EXPECT_EQ(ORV_QueueRead(id, 0, &late[1], 1), 1u);
        EXPECT_EQ(late[0] + late[1], '3' + '4');
        EXPECT_EQ(leftovers(id), 0u);
        ORV_QueueDelete(id);
    }
}

namespace {
// A producer of kStop ends a consumer; check (seq scrambled) catches torn copies.
struct Msg {
    std::uint32_t producer, seq, check;
};
constexpr std::uint32_t kStop = 0xFFFFFFFFu;
std::uint32_t scramble(std::uint32_t v) { return v * 2654435761u ^ 0x5A5A5A5Au; }

// Timeouts of 0 (no limit) and of 1 to 3 ms.
u32 pick_timeout(std::uint32_t i) { return i % 3 == 0 ? 0 : 1 + i % 3; }

// Every so often one side stops for 5 ms as a whole, so that the other
// side's timed calls run out.
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

    // Per consumer, each producer's numbers rise; all told, each arrives once.
    std::vector<std::vector<bool>> seen(kProducers, std::vector<bool>(kPerProducer));
    std::uint64_t total = 0;
    for (const auto& list : got) {
        std::vector<std::int64_t> last(kProducers, -1);
        for (const Msg& m : list) {
            ASSERT_TRUE(m.producer < kProducers && m.seq < kPerProducer && m.check == scramble(m.seq));
            ASSERT_FALSE(seen[m.producer][m.seq]) << "duplicate " << m.producer << '/' << m.seq;
            ASSERT_GT(static_cast<std::int64_t>(m.seq), last[m.producer]) << "producer order broken";
            seen[m.producer][m.seq] = true;
            last[m.producer] = m.seq;
            ++total;
        }
    }
    EXPECT_EQ(total, kTotal) << "messages lost";

    qosa::queue::QueueCounts c{};
    ASSERT_TRUE(qosa::queue::inspect(id, &c));
    EXPECT_EQ(c.messages + c.readUnits + c.writeUnits + c.writeWaiting + c.placesHeld, 0u);
    EXPECT_EQ(c.readSleepers + c.writeSleepers, 0u);
    EXPECT_EQ(ORV_QueueDelete(id), 0u);
}
