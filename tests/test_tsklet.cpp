// Tasklet queues and the tick-hook list.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "internal/timer_service.h"
#include "qosa_timer.h"

namespace {

std::string g_ran;
tsklet_head g_q;
char A = 'A', B = 'B', C = 'C', D = 'D', R = 'R', S = 'S';

void note(void* arg) { g_ran += *static_cast<const char*>(arg); }

} // namespace

TEST(Tasklets, OrderDrainAndDiscard) {
    g_ran.clear();
    ASSERT_EQ(tsklet_init(&g_q), 0);
    EXPECT_EQ(tsklet_invokeall(&g_q), 0); // empty: nothing runs
    for (char* c : {&A, &B, &C})
        ASSERT_EQ(tsklet_invokelater(&g_q, note, c), 0u);
    ASSERT_EQ(tsklet_invokefirst(&g_q, note, &D), 0u);
    EXPECT_EQ(tsklet_invokeall(&g_q), 0);
    EXPECT_EQ(tsklet_invokeall(&g_q), 0); // each ran once
    EXPECT_EQ(g_ran, "DABC");
    ASSERT_EQ(tsklet_invokelater(&g_q, note, &A), 0u);
    EXPECT_EQ(tsklet_delinit(&g_q), 0u);
    EXPECT_EQ(g_ran, "DABC"); // discarded unrun
}

// The queue is not held while the detached batch runs: another thread and
// the running tasklet itself may queue. What they queue waits for the next
// drain, behind the rest of the batch, and a front request still goes first.
TEST(Tasklets, QueueingWhileADrainRuns) {
    static std::atomic<bool> queued;
    static std::thread other;
    g_ran.clear();
    queued = false;
    ASSERT_EQ(tsklet_init(&g_q), 0);
    auto queue_more = +[](void*) {
        other = std::thread([] {
            EXPECT_EQ(tsklet_invokelater(&g_q, note, &S), 0u);
            queued = true;
        });
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!queued && std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        g_ran += queued ? 'X' : '-';
        EXPECT_EQ(tsklet_invokefirst(&g_q, note, &R), 0u);
    };
    ASSERT_EQ(tsklet_invokelater(&g_q, queue_more, nullptr), 0u);
    ASSERT_EQ(tsklet_invokelater(&g_q, note, &A), 0u);
    EXPECT_EQ(tsklet_invokeall(&g_q), 0);
    other.join();
    EXPECT_EQ(g_ran, "XA");
    EXPECT_EQ(tsklet_invokeall(&g_q), 0);
    EXPECT_EQ(g_ran, "XARS");
    EXPECT_EQ(tsklet_delinit(&g_q), 0u);
}

TEST(TickHooks, RegistrationRules) {
    auto hook = +[](s64) {};
    const int before = qosa::timer::tickhook_count();
    EXPECT_EQ(petimer_register_tickhook(hook, 0), 22u);
    EXPECT_EQ(petimer_register_tickhook(hook, -1), 22u);
    EXPECT_EQ(petimer_register_tickhook(nullptr, 1), 22u);
    // The same function twice gives two records; one deregistration takes one.
    ASSERT_EQ(petimer_register_tickhook(hook, 1), 0u);
    ASSERT_EQ(petimer_register_tickhook(hook, 7), 0u);
    EXPECT_EQ(qosa::timer::tickhook_count(), before + 2);
    EXPECT_EQ(petimer_deregister_tickhook(hook), 0u);
    EXPECT_EQ(petimer_deregister_tickhook(+[](s64) {}), 0u); // unknown: no change
    EXPECT_EQ(petimer_deregister_tickhook(nullptr), 22u);
    EXPECT_EQ(qosa::timer::tickhook_count(), before + 1);
    EXPECT_EQ(petimer_deregister_tickhook(hook), 0u);
    EXPECT_EQ(qosa::timer::tickhook_count(), before);
    EXPECT_EQ(petimer_isQuiting(), 0u);
}
