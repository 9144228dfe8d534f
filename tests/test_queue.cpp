// Message queues, and many producers and consumers on a small one. The
// numbering test must stay first (it expects a process without queues), the
// tracked one last (tracking stays on).

#include <algorithm>
#include <set>

#include "internal/queue_debug.h"
#include "support.h"

namespace {
using namespace qosa_test;
using Codes = std::vector<u32>; // results of calls made in order (a braced list runs them left to right)
qosa::queue::QueueCounts counts(u32 id) {
    qosa::queue::QueueCounts c{};
    EXPECT_TRUE(qosa::queue::inspect(id, &c));
    return c;
}
} // namespace

TEST(ORV_Queue, NumberingResultCodesCutMessagesAndTimeOuts) {
    u32 ids[3] = {}, id = 0, last = 0;
    for (u32& i : ids)
        ASSERT_EQ(ORV_QueueCreate("numbered", 0, &i, 1, 8), 0u);
    EXPECT_TRUE(ids[0] == 1 && ids[1] == 2 && ids[2] == 3) << ids[0] << ids[1] << ids[2];
    EXPECT_EQ(ORV_QueueWrite(ids[0], "a", 1, 20), ORV_QUEUE_ERR_WRITE_TIMEOUT) << "capacity 0: never takes a message";
    for (u32 i : ids)
        EXPECT_EQ(ORV_QueueDelete(i), 0u);
    ASSERT_EQ(ORV_QueueCreate(std::string(40, 'x').c_str(), 2, &id, 0, 100), 0u) << "a long name is cut, not refused";
    EXPECT_EQ(id, 4u) << "numbers go on in the rebuilt list";
    const u32 was = qosa::queue::exchange_last_id(UINT32_MAX - 1), gone = ids[0];
    EXPECT_EQ(ORV_QueueCreate("last", 1, &last, 0, 8), 0u);
    EXPECT_EQ(last, UINT32_MAX);
    for (int i = 0; i < 2; ++i) // once the last number is handed out, creation fails for good
        EXPECT_EQ(ORV_QueueCreate("none", 1, &ids[0], 0, 8), ORV_QUEUE_ERR_CREATE_ID);
    qosa::queue::exchange_last_id(was);
    EXPECT_EQ(ORV_QueueDelete(last), 0u);

    // Create checks the mode, then the length (the missing pointers, checked next and before any
    // queue is looked up, are rows of the guard sweep); write checks the queue before the length, and
    // takes exactly the maximum length. A deleted id is refused by every call (also at scale, below).
    const std::string hundred = std::string(40, 'a') + std::string(60, 'b');
    char buf[40], large[128];
    EXPECT_EQ(Codes({ORV_QueueCreate(nullptr, 1, nullptr, 2, 0), ORV_QueueCreate(nullptr, 1, nullptr, 1, 0),
                     ORV_QueueRead(gone, 0, buf, 1), ORV_QueueWrite(gone, buf, 0, 0), ORV_QueueWrite(id, buf, 0, 0),
                     ORV_QueueWrite(id, hundred.c_str(), 101, 0), ORV_QueueWrite(id, hundred.c_str(), 100, 0),
                     ORV_QueueWrite(id, "second", 6, 0)}),
              Codes({ORV_QUEUE_ERR_CREATE_MODE, ORV_QUEUE_ERR_CREATE_MSGLEN, ORV_QUEUE_ERR_READ_NO_QUEUE,
                     ORV_QUEUE_ERR_WRITE_NO_QUEUE, ORV_QUEUE_ERR_WRITE_LEN, ORV_QUEUE_ERR_WRITE_LEN, 0, 0}));
    // Full: a timed write gives up; a long message is cut to the reader's buffer.
    auto t0 = Clock::now();
    EXPECT_EQ(ORV_QueueWrite(id, "x", 1, 50), ORV_QUEUE_ERR_WRITE_TIMEOUT);
    EXPECT_TRUE(ms_since(t0) >= 49 && ms_since(t0) < 1000) << ms_since(t0);
    EXPECT_EQ(ORV_QueueRead(id, 0, buf, sizeof buf), 40u);
    EXPECT_EQ(std::string(buf, sizeof buf), std::string(40, 'a'));
    EXPECT_EQ(ORV_QueueRead(id, 100, large, sizeof large), 6u) << "the rest of the long message is dropped";
    t0 = Clock::now();
    EXPECT_EQ(ORV_QueueRead(id, 50, buf, sizeof buf), ORV_QUEUE_ERR_READ_TIMEOUT);
    EXPECT_GE(ms_since(t0), 49);
    EXPECT_EQ(ORV_QueueDelete(id), 0u);
}

// Ids stay consecutive and are refused once deleted, however many queues
// live and in whatever order they go; every one left is still found.
TEST(ORV_Queue, IdsAtScaleDeletedInAnyOrder) {
    struct Row {
        u32 queues;
        u32 (*nth)(u32 i, u32 n); // the position of the i-th queue deleted
    };
    const Row rows[] = {{10000, [](u32 i, u32) { return i; }},
                        {3000, [](u32 i, u32 n) { return n - 1 - i; }},
                        {3000, [](u32 i, u32 n) { return i < n / 2 ? 2 * i + 1 : 2 * (i - n / 2); }}};
    for (const Row& row : rows) {
        std::vector<u32> ids(row.queues);
        for (u32& id : ids)
            ASSERT_EQ(ORV_QueueCreate("scale", 2, &id, 0, 4), 0u);
        for (u32 i = 0; i < row.queues; ++i) {
            u32 id = ids[row.nth(i, row.queues)], next = ids[row.nth((i + 1) % row.queues, row.queues)];
            ASSERT_EQ(ORV_QueueDelete(id), 0u);
            ASSERT_EQ(ORV_QueueGetMsgNum(id), ORV_QUEUE_ERR_COUNT_NO_QUEUE);
            ASSERT_EQ(ORV_QueueDelete(id), ORV_QUEUE_ERR_DELETE_NO_QUEUE);
            ASSERT_TRUE(i + 1 == row.queues || ORV_QueueGetMsgNum(next) == 0) << next;
        }
        EXPECT_FALSE(qosa::queue::list_exists()) << "the last queue took the list with it";
    }
}

// A thread that was served (a waiting reader, or a writer waiting on a full
// queue) may delete the queue at once, while the serving call still returns.
TEST(ORV_QueueDelete, ServedThreadMayDeleteAtOnce) {
    u32 id = 0;
    for (int i = 0; i < 400; ++i) {
        bool writerWaits = i % 2 == 1;
        char b[8], mine[8];
        ASSERT_EQ(ORV_QueueCreate("served", 1, &id, 0, 8), 0u);
        ASSERT_TRUE(!writerWaits || ORV_QueueWrite(id, "full", 4, 0) == 0);
        std::thread served([id, writerWaits, &b] {
            EXPECT_EQ(writerWaits ? ORV_QueueWrite(id, "next", 4, 0) : ORV_QueueRead(id, 0, b, 4),
                      0u + !writerWaits * 4);
            EXPECT_EQ(ORV_QueueDelete(id), 0u);
        });
        while (i % 4 < 2 && counts(id).readWaiters + counts(id).writeWaiters == 0) // at times asleep when served
            std::this_thread::yield();
        EXPECT_EQ(writerWaits ? ORV_QueueRead(id, 0, mine, 8) : ORV_QueueWrite(id, "ping", 4, 0), 0u + writerWaits * 4);
        served.join();
    }
}

namespace {
// check (seq scrambled) catches torn copies; a message from producer kStop ends a consumer.
struct Msg {
    std::uint32_t producer, seq, check;
};
constexpr std::uint32_t kStop = 0xFFFFFFFFu;
std::uint32_t scramble(std::uint32_t v) { return v * 2654435761u ^ 0x5A5A5A5Au; }
u32 pick_timeout(std::uint32_t i) { return i % 3 == 0 ? 0 : 1 + i % 3; } // 0 (no limit) or 1 to 3 ms
// Every so often one whole side pauses 5 ms, so that the other side's timed calls run out.
struct Stall {
    std::atomic<std::uint32_t> done{0};
    std::atomic<Clock::rep> until{0};
    void step(std::uint32_t every) {
        if (done.fetch_add(1, std::memory_order_relaxed) % every == every - 1)
            until.store((Clock::now() + std::chrono::milliseconds(5)).time_since_epoch().count());
        std::this_thread::sleep_until(Clock::time_point{Clock::duration{until.load()}});
    }
};
} // namespace

TEST(ORV_QueueStress, FourProducersFourConsumersCapacityEight) {
    constexpr std::uint32_t kSide = 4, kPerProducer = 200000 / kSide;
    u32 id = 0;
    ASSERT_EQ(ORV_QueueCreate("stress", 8, &id, 0, sizeof(Msg)), 0u);
    Stall producersStall, consumersStall;
    std::vector<std::atomic<bool>> seen(kSide * kPerProducer);
    std::vector<std::thread> threads;
    for (std::uint32_t t = 0; t < kSide; ++t) {
        // Each producer ends with a stop message, after all of its own.
        threads.emplace_back([&, t] {
            for (std::uint32_t seq = 0, attempt = t; seq <= kPerProducer; ++seq) {
                producersStall.step(20000);
                Msg m = seq < kPerProducer ? Msg{t, seq, scramble(seq)} : Msg{kStop, 0, 0};
                u32 r = ORV_QUEUE_ERR_WRITE_TIMEOUT;
                while (r == ORV_QUEUE_ERR_WRITE_TIMEOUT)
                    r = ORV_QueueWrite(id, &m, sizeof m, pick_timeout(attempt++));
                EXPECT_EQ(r, 0u);
            }
        });
        // Each consumer sees every producer's numbers rise; all told, each arrives once.
        threads.emplace_back([&, t] {
            std::vector<std::int64_t> last(kSide, -1);
            for (std::uint32_t i = t;; ++i) {
                consumersStall.step(15000);
                Msg m{};
                u32 r = ORV_QueueRead(id, pick_timeout(i), &m, sizeof m);
                if (r != sizeof m) {
                    ASSERT_TRUE(r == ORV_QUEUE_ERR_READ_TIMEOUT || r == ORV_QUEUE_ERR_READ_RETRY_TIMEOUT) << r;
                    continue;
                }
                if (m.producer == kStop) return;
                ASSERT_TRUE(m.producer < kSide && m.seq < kPerProducer && m.check == scramble(m.seq));
                ASSERT_FALSE(seen[m.producer * kPerProducer + m.seq].exchange(true)) << "duplicate";
                ASSERT_GT(m.seq, last[m.producer]) << "producer order broken";
                last[m.producer] = m.seq;
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), std::ptrdiff_t{kSide * kPerProducer}) << "messages lost";
    EXPECT_EQ(counts(id).messages + counts(id).readWaiters + counts(id).writeWaiters, 0u) << "nothing left behind";
    EXPECT_EQ(ORV_QueueDelete(id), 0u);
}

// With memory tracking on, every message held is a tracked node and a tracked
// copy recorded with the queue's source file, and nothing is left once the
// messages are read (also one handed straight to a waiting reader). Last:
// tracking stays on for the rest of the process.
TEST(ORV_Queue, TrackedEveryMessageHeldIsRecorded) {
    auto blocks = [] { // sizes of the queue unit's live blocks
        std::multiset<u32> sizes;
        for (const QOSA_MEM_REC_S& r : tracked_records("minikarbo_queue"))
            sizes.insert(r.ulSize);
        return sizes;
    };
    QOSA_MemInitMemMange();
    u32 id = 0;
    char buf[64];
    ASSERT_EQ(ORV_QueueCreate("tracked", 4, &id, 0, 64), 0u);
    const std::size_t empty = blocks().size(); // the list, its index and the queue
    ASSERT_EQ(ORV_QueueWrite(id, std::string(17, 'm').data(), 17, 0), 0u);
    auto held = blocks();
    EXPECT_TRUE(held.size() == empty + 2 && held.count(17) == 1) << "a node and a copy per message";
    ASSERT_EQ(ORV_QueueRead(id, 0, buf, sizeof buf), 17u);
    std::thread reader([&] { EXPECT_EQ(ORV_QueueRead(id, 10000, buf, sizeof buf), 9u); });
    wait_until([&] { return counts(id).readWaiters != 0; });
    ASSERT_EQ(ORV_QueueWrite(id, "123456789", 9, 0), 0u);
    reader.join();
    EXPECT_EQ(blocks().size(), empty);
    EXPECT_EQ(ORV_QueueDelete(id), 0u);
}
