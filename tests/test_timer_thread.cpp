// The timer thread (tick accounting, tasklet queues, tick hooks, start and
// stop) and the relative timers' wheel driven by hand, one reltm_trigger call a pass.

#include <algorithm>
#include <tuple>

#include "internal/timer_service.h"
#include "timer_helpers.h"

namespace {

using namespace qosa_test;
using namespace qosa::timer;

void stop_service(pthread_t tid) {
    petimer_setQuitingFlag(1, 1);
    EXPECT_EQ(petimer_stop(tid), 0);
    petimer_setQuitingFlag(0, 0);
}

std::string g_ran;
tsklet_head g_q;
char A = 'A', B = 'B', C = 'C', D = 'D', R = 'R', S = 'S';
void note(void* arg) { g_ran += *static_cast<const char*>(arg); }

} // namespace

TEST(TimerThread, SleepUsAndCycleTicksSettleTheCarryAndSliceABurst) {
    EXPECT_EQ(Codes({sleep_us(0), sleep_us(3), sleep_us(25), sleep_us(0xFFFFFFF0u)}),
              Codes({10000, 7000, 5000, 10000})); // the last: the clock stepped back

    EXPECT_EQ(cycle_ticks(0, 10000, 10, 0), (CycleTicks{1, 0}));   // on time
    EXPECT_EQ(cycle_ticks(0, 10000, 35, 0), (CycleTicks{3, -5}));  // overslept by 25 ms
    EXPECT_EQ(cycle_ticks(0, 10000, 10, -5), (CycleTicks{1, -5})); // the rest waits
    EXPECT_EQ(cycle_ticks(0, 10000, 5, 0), (CycleTicks{1, 5}));    // woke early
    EXPECT_EQ(cycle_ticks(0, 10000, 5, 5), (CycleTicks{0, 0}));    // early twice: one tick withheld
    EXPECT_EQ(cycle_ticks(25, 5000, 5, 0), (CycleTicks{3, 0}));    // the passes took 25 ms
    // A clock that stepped back or stood still: the sleep's one tick, carry untouched.
    EXPECT_EQ(cycle_ticks(0xFFFFFF00u, 10000, 10, 0), (CycleTicks{1, 0}));
    EXPECT_EQ(cycle_ticks(0, 10000, 0xFFFFFFF0u, 7), (CycleTicks{1, 7}));
    EXPECT_EQ(cycle_ticks(0, 10000, 0, 7), (CycleTicks{1, 7}));
    // A forward jump during the passes is sliced like one during the sleep.
    EXPECT_EQ(cycle_ticks(100000, 10000, 10, 0), (CycleTicks{1024, -(10000 - 1023) * 10}));

    // An hour's jump is handed over in slices until caught up, every 10 ms once.
    CycleTicks c = cycle_ticks(0, 10000, 3600000, 0);
    s64 handed = c.ticks, most = c.ticks, cycles = 1;
    for (; c.ticks > 1; ++cycles, handed += c.ticks, most = std::max(most, c.ticks))
        c = cycle_ticks(0, 10000, 10, c.carry);
    EXPECT_EQ(std::tuple(c.carry, handed, most), std::tuple(0, 360000 + (cycles - 1), kMaxTicksPerCycle));
    EXPECT_LT(cycles, 400);
}

// A failed start leaves nothing behind; the same hook twice gives two records.
TEST(TimerThread, PetimerStartRunsTheTickHooksUntilPetimerStop) {
    static std::vector<s64> seen; // written by the timer thread, read after the join
    const int hooksBefore = tickhook_count();
    auto hook = +[](s64 n) { seen.push_back(n); };
    EXPECT_EQ(petimer_register_tickhook(hook, -1), 22u);
    ASSERT_EQ(petimer_register_tickhook(hook, 1000), 0u); // not reached
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    // No room for such a stack. Under qemu-user, which keeps flags for every page the host grants
    // (the stack's reserve too), 64 GiB: still more than the machine commits, cheap to map there.
    ASSERT_EQ(pthread_attr_setstacksize(&attr, std::size_t{1} << (kUnderEmulator ? 36 : 45)), 0);
    pthread_t tid = static_cast<pthread_t>(12345), untouched = tid;
    if (petimer_start(&tid, &attr) == 0)
        stop_service(tid); // this system grants such a stack
    else
        EXPECT_TRUE(tid == pthread_t{} && petimer_getTreadId() == pthread_t{} && service_set_up() == 0);
    pthread_attr_destroy(&attr);

    ASSERT_EQ(petimer_register_tickhook(hook, 3), 0u);
    ASSERT_EQ(petimer_start(&tid, nullptr), 0u);
    EXPECT_TRUE(tid != pthread_t{} && petimer_getTreadId() == tid && service_set_up() == 1);
    EXPECT_EQ(petimer_start(&untouched, nullptr), 0u);
    EXPECT_EQ(untouched, static_cast<pthread_t>(12345));
    std::this_thread::sleep_for(600ms);
    stop_service(tid);
    EXPECT_TRUE(petimer_getTreadId() == pthread_t{} && service_set_up() == 0);
    // The thread took its own hooks off; an unknown hook is no change.
    std::vector<int> counts{tickhook_count() - hooksBefore};
    for (petimer_tickhook_fn h : {hook, +[](s64) {}, hook})
        counts.push_back(petimer_deregister_tickhook(h) == 0 ? tickhook_count() - hooksBefore : -1);
    EXPECT_EQ(counts, std::vector<int>({2, 1, 1, 0}));

    // About 20 calls of 3 ticks; a late cycle may hand over a little more (commonly under TSan).
    EXPECT_GE(seen.size(), kUnderTsan ? 5u : 10u);
    EXPECT_LE(seen.size(), 25u);
    EXPECT_GE(*std::min_element(seen.begin(), seen.end()), 3);
    EXPECT_GE(std::count(seen.begin(), seen.end(), 3) * (kUnderTsan ? 4 : 2), std::ptrdiff_t(seen.size()));
}

// While a detached batch runs, another thread and the running tasklet may
// queue; that waits for the next drain, and a front request still goes first.
// A tasklet in storage of its own is run and discarded like the others, but never freed.
TEST(TimerThread, TskletInvokeallOrderQueueingWhileADrainRunsAndDelinitDiscards) {
    static OwnedTasklet own;
    static std::atomic<bool> queued{false};
    static std::thread other;
    ASSERT_EQ(tsklet_init(&g_q), 0);
    auto queue_more = +[](void*) {
        other = std::thread([] {
            EXPECT_EQ(tsklet_invokelater(&g_q, note, &S), 0u);
            queued = true;
        });
        g_ran += eventually([] { return queued.load(); }) ? 'X' : '-';
        EXPECT_EQ(tsklet_invokefirst(&g_q, note, &R), 0u);
    };
    ASSERT_EQ(Codes({tsklet_invokelater(&g_q, note, &A), tsklet_invokelater(&g_q, queue_more, nullptr),
                     tsklet_invokelater(&g_q, note, &B), tsklet_invokefirst(&g_q, note, &D)}),
              Codes(4, 0));
    EXPECT_EQ(tsklet_invokeall(&g_q), 0);
    other.join();
    EXPECT_EQ(g_ran, "DAXB");
    EXPECT_EQ((std::pair{tsklet_invokeall(&g_q), tsklet_invokeall(&g_q)}), std::pair(0, 0));
    EXPECT_EQ(g_ran, "DAXBRS") << "each ran once";
    tsklet_post(&g_q, &own, note, &A, QueueAt::back);
    ASSERT_EQ(tsklet_invokefirst(&g_q, note, &C), 0u);
    EXPECT_EQ(tsklet_invokeall(&g_q), 0);
    EXPECT_EQ(g_ran, "DAXBRSCA");
    tsklet_post(&g_q, &own, note, &A, QueueAt::front); // again, once it ran
    ASSERT_EQ(tsklet_invokelater(&g_q, note, &C), 0u);
    EXPECT_EQ(tsklet_delinit(&g_q), 0u);
    EXPECT_EQ(g_ran, "DAXBRSCA") << "discarded unrun";
}

// The index entry points exported beside the service's own use of them.
TEST(TimerThread, IndexLocksBuildsAndPetimerRelAbsIndex) {
    EXPECT_EQ(std::vector<s32>({reltmr_idxLock(), reltmr_idxUnLock(), abstmr_indexLock(), abstmr_indexUnLock()}),
              std::vector<s32>(4, 0));
    ASSERT_EQ(init_abstm(), 0u);
    auto** slot = static_cast<void**>(petimer_create_abstimer([](void*) {}, QOSA_TIMER_LOOP));
    ASSERT_NE(slot, nullptr);
    void* record = *slot;
    EXPECT_EQ(Codes({petimer_relAbsIndex(slot), petimer_relAbsIndex(slot)}), Codes({0, 22}));
    QOSA_MemTypeFreeD(record, QOSA_MEM_DYN, __LINE__, __FILE__); // no slot holds it any more
    EXPECT_EQ(Codes({delinit_abstm(), init_AbsIndex(), u32(delinit_AbsIndex())}), Codes(3, 0));
}

namespace {
std::string g_log;    // "<timer><tick> " per firing
std::vector<void*> h; // handles of the timers a, b, c, ... of a test
char kNames[] = "abcdefghij";

void on_fire(void* name) { g_log += *static_cast<char*>(name) + std::to_string(reltm_tick_last()) + ' '; }

void passes(int n, s64 ticksEach = 1) {
    for (int i = 0; i < n; ++i)
        reltm_trigger(ticksEach);
}

// Creates (counted like the public create counts) and starts the next timers.
void start(u32 mode, std::initializer_list<u32> ms, QOSA_TimerProc proc = on_fire) {
    for (u32 interval : ms) {
        void* t = petimer_create_reltimer(proc, mode);
        ASSERT_NE(t, nullptr);
        reltm_count().add();
        ASSERT_EQ(petimer_start_reltimer(t, interval, &kNames[h.size()]), 0u);
        h.push_back(t);
    }
}

class TimerWheel : public ::testing::Test {
  protected:
    void SetUp() override {
        g_log.clear();
        h.clear();
        ASSERT_EQ(init_reltm(), 0u);
    }
    void TearDown() override {
        passes(1);                      // carry out what is still queued
        EXPECT_EQ(delinit_reltm(), 0u); // frees the timers every test leaves behind
        EXPECT_EQ(live(g_reltmNum), 0);
    }
};
} // namespace

// Far timers keep their order; a stopped one hands its revolutions on, also
// once some were taken off.
TEST_F(TimerWheel, PetimerStartReltimerRoundsToTicksAndStopKeepsFarTimersOnTime) {
    ASSERT_EQ(init_RelIndex(), 0u); // a fresh index replaces the set-up's
    start(QOSA_TIMER_ONCE, {0, 14, 15, 10235, 10240, 10245, 30720, 20480, 20480});
    passes(1, 3100); // all placed at tick 0
    EXPECT_EQ(g_log, "a1 b1 c2 d1024 e1024 f1025 h2048 i2048 g3072 ");

    g_log.clear();
    h.clear();
    start(QOSA_TIMER_ONCE, {20480, 30720, 40960});
    passes(1, 1500);
    ASSERT_EQ(petimer_stop_reltimer_safe(h[1], nullptr, nullptr), 0u);
    start(QOSA_TIMER_ONCE, {20480, 30720}); // d leaves as a first record
    ASSERT_EQ(petimer_stop_reltimer_safe(h[3], nullptr, nullptr), 0u);
    passes(1, 3100);
    EXPECT_EQ(g_log, "a5148 c7196 e7672 ");
}

// Periodic timers fire T + 1 ticks apart. A callback stopping its own timer:
// the re-arm runs first, then the stop, whose done callback may use the timers.
TEST_F(TimerWheel, PetimerStopReltimerSafeFromItsOwnCallbackRunsAfterTheReArm) {
    static u32 freedFromDone = 99;
    auto stop_self = +[](void* name) {
        on_fire(name);
        auto done = +[](void*) { freedFromDone = petimer_free_reltimer(h[1]); };
        EXPECT_EQ(petimer_stop_reltimer_safe(h[1], done, nullptr), 0u);
    };
    start(QOSA_TIMER_LOOP, {50});
    start(QOSA_TIMER_LOOP, {20}, stop_self);
    passes(3);
    EXPECT_EQ(freedFromDone, 99u); // the stop runs in the next pass
    passes(17);
    EXPECT_EQ(freedFromDone, 0u);
    EXPECT_EQ(g_log, "b2 a5 a11 a17 ");
    void* arg = nullptr;
    EXPECT_EQ(petimer_stop_reltimer_safeEx(h[0], nullptr, nullptr, &arg), 0u);
    EXPECT_EQ(petimer_stop_reltimer_safeEx(h[0], nullptr, nullptr, nullptr), 22u) << "no place for the argument";
    EXPECT_EQ(arg, &kNames[0]);
}

// Requests queued in a pass before a periodic timer fires in it: a freed
// timer's callback is not called; a stopped one is re-armed, then taken off.
TEST_F(TimerWheel, ReltmTriggerRunsRequestsQueuedBeforeAFiringFirst) {
    start(QOSA_TIMER_ONCE, {10}, [](void*) {
        EXPECT_EQ(petimer_free_reltimer(h[1]), 0u);
        EXPECT_EQ(petimer_stop_reltimer_safe(h[2], nullptr, nullptr), 0u);
    });
    start(QOSA_TIMER_LOOP, {10, 10}); // same tick, after the first
    passes(6);
    EXPECT_EQ(g_log, "c1 ");
}

TEST_F(TimerWheel, PetimerStartReltimerOnceKeepsOnceFreeReleasesStaleHandlesRefused) {
    start(QOSA_TIMER_ONCE, {10});
    start(QOSA_TIMER_ONCE_FREE, {10});
    passes(5);
    ASSERT_EQ(petimer_start_reltimer(h[0], 10, &kNames[0]), 0u); // stopped, not gone
    passes(3);
    EXPECT_EQ(g_log, "a1 b1 a6 ");

    void* misaligned = static_cast<char*>(h[0]) + 1;
    for (void* bad : {misaligned, static_cast<void*>(g_szRelTimer + ulMaxReltmNum), h[1]})
        EXPECT_EQ(Codes({petimer_start_reltimer(bad, 10, nullptr), petimer_stop_reltimer_safe(bad, nullptr, nullptr),
                         petimer_free_reltimer(bad)}),
                  Codes(3, 22));
    EXPECT_EQ(Codes({petimer_free_reltimer(h[0]), petimer_free_reltimer(h[0])}), Codes({0, 22}));
}
