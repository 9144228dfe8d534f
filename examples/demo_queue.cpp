// Demo section: a semaphore's wake-up order and a producer/consumer run
// through a message queue.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "demo.h"
#include "qosa.h"

namespace {

void waiters_in_order() {
    demo::heading("semaphore: waiters wake in the order they came");
    QOSA_SEM_S sem{};
    QOSA_SemInit(&sem, 0, 0);
    QOSA_SEM_S done{};
    QOSA_SemInit(&done, 0, 0);
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&, i] {
            QOSA_SemWait(&sem);
            std::printf("  waiter %d woke\n", i);
            QOSA_SemPost(&done);
        });
        QOSA_SleepMs(20); // let it start waiting before the next one comes
    }
    for (int i = 0; i < 3; ++i) {
        QOSA_SemPost(&sem);
        QOSA_SemWait(&done);
    }
    for (auto& t : waiters)
        t.join();
    std::printf("QOSA_SemWaitTimeOut(unposted, 100 ms) -> %d\n", QOSA_SemWaitTimeOut(&sem, 100));
    QOSA_SemDestroy(&sem);
    QOSA_SemDestroy(&done);
}

void producer_consumer() {
    constexpr int kProducers = 2, kConsumers = 2;
    constexpr u32 kPerProducer = 20000, kLen = 64, kCapacity = 16;
    demo::heading("message queue: 2 producers, 2 consumers, capacity 16, 64-byte messages");
    u32 id = 0;
    u32 r = ORV_QueueCreate("demo", kCapacity, &id, 0, kLen);
    std::printf("ORV_QueueCreate -> 0x%X, queue id %u\n", r, id);
    if (r != 0) return;

    auto t0 = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p)
        threads.emplace_back([id, p] {
            char msg[kLen];
            std::memset(msg, 'a' + p, sizeof msg);
            for (u32 i = 0; i < kPerProducer; ++i)
                ORV_QueueWrite(id, msg, sizeof msg, 0);
        });
    for (int c = 0; c < kConsumers; ++c)
        threads.emplace_back([id] {
            char buf[kLen];
            for (u32 i = 0; i < kPerProducer * kProducers / kConsumers; ++i)
                ORV_QueueRead(id, 0, buf, sizeof buf);
        });
    for (auto& t : threads)
        t.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    u32 total = kPerProducer * kProducers;
    std::printf("%u messages in %.3f s: %.0f messages per second\n", total, secs, total / secs);
    std::printf("(the memory section switched tracking on: each message is two tracked blocks, guarded\n"
                " page-aligned allocations, so this is the rate with tracking)\n");

    char buf[8];
    std::printf("left in the queue: %u; a read with a 50 ms time-out -> 0x%X\n", ORV_QueueGetMsgNum(id),
                ORV_QueueRead(id, 50, buf, sizeof buf));
    std::printf("ORV_QueueDelete -> 0x%X\n", ORV_QueueDelete(id));
}

void run() {
    waiters_in_order();
    producer_consumer();
}

} // namespace

static demo::Section s_section{80, "semaphores and message queues", run};
