// Relative timer groups: the result codes in the order the checks are made,
// members started and stopped by number, and the release of a whole group.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "qosa.h"
#include "sanitizers.h"

namespace {

using namespace std::chrono_literals;

// Expiries: member number, its value, ms after t0.
struct Hit {
    u32 index, value;
    double atMs;
};
std::mutex s_lock;
std::vector<Hit> s_hits;
const auto s_t0 = std::chrono::steady_clock::now();
void on_expiry(u32 index, u32 value) {
    std::lock_guard<std::mutex> l(s_lock);
    s_hits.push_back(
        {index, value, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - s_t0).count()});
}
std::vector<Hit> hits() {
    std::lock_guard<std::mutex> l(s_lock);
    return s_hits;
}

class TimerGroup : public ::testing::Test {
  protected:
    void TearDown() override { QOSA_StopTimerTask(); }
};

} // namespace

TEST_F(TimerGroup, ResultCodesInCheckOrder) {
    QOSA_RelTimerGrp* g = nullptr;
    EXPECT_EQ(QOSA_InitReltimerGrp(nullptr, 2001, nullptr), 0x20160032u);
    EXPECT_EQ(QOSA_InitReltimerGrp(&g, 2001, nullptr), 0x20160037u);
    EXPECT_EQ(QOSA_InitReltimerGrp(&g, 2001, on_expiry), 0x20160034u);
    EXPECT_EQ(QOSA_InitReltimerGrp(&g, 0, on_expiry), 0x20160036u) << "no block of 0 bytes";
    EXPECT_EQ(g, nullptr);
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 3, on_expiry), 0u);

    QOSA_RelTimerGrp invalid = *g;
    invalid.valid = 0;
    EXPECT_EQ(QOSA_StartRelTimerofGrp(nullptr, 0, 100, 0, 0), 0x20160039u);
    EXPECT_EQ(QOSA_StartRelTimerofGrp(&invalid, 3, 100, 0, 2), 0x20160039u);
    EXPECT_EQ(QOSA_StartRelTimerofGrp(g, 3, 100, 0, 2), 0x2016003Bu);
    EXPECT_EQ(QOSA_StartRelTimerofGrp(g, 2, 100, 0, 2), 0x2016003Cu);

    EXPECT_EQ(QOSA_StopRelTimerofGrp(nullptr, 0), 0x20160040u);
    EXPECT_EQ(QOSA_StopRelTimerofGrp(&invalid, 3), 0x20160041u);
    EXPECT_EQ(QOSA_StopRelTimerofGrp(g, 3), 0x20160042u);
    EXPECT_EQ(QOSA_StopRelTimerofGrp(g, 2), 0x20160044u);

    EXPECT_EQ(QOSA_FreeRelTimerGrp(nullptr), 0x20160046u);
    EXPECT_EQ(QOSA_FreeRelTimerGrp(&invalid), 0x20160047u);
    // The service never ran: the group is released at once (a leak shows under ASan).
    EXPECT_EQ(QOSA_FreeRelTimerGrp(g), 0u);
}

TEST_F(TimerGroup, MembersFireWithTheirNumberAndValueUntilStopped) {
    QOSA_RelTimerGrp* g = nullptr;
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 3, on_expiry), 0u);
    ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 0, 100, 7, 0), 0u);
    ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 2, 250, 9, 1), 0u);
    ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 0, 20, 99, 0), 0u) << "a running member is not restarted";
    std::this_thread::sleep_for(1100ms);
    ASSERT_EQ(QOSA_StopRelTimerofGrp(g, 0), 0u);
    std::this_thread::sleep_for(50ms);

    std::map<u32, std::vector<double>> at;
    for (const Hit& h : hits()) {
        EXPECT_EQ(h.value, h.index == 0 ? 7u : 9u);
        at[h.index].push_back(h.atMs);
    }
    ASSERT_EQ(at.size(), 2u);
    // 100 ms fires every 110 ms, 250 ms every 260 ms (re-armed the tick after).
    int slack = qosa_test::kUnderTsan || qosa_test::kUnderAsan ? 3 : 1;
    EXPECT_GE(at[0].size(), 10u - 2 * slack);
    EXPECT_LE(at[0].size(), 10u);
    EXPECT_GE(at[2].size(), 4u - slack);
    EXPECT_LE(at[2].size(), 4u);
    EXPECT_NEAR((at[2].back() - at[2].front()) / double(at[2].size() - 1), 260.0, 10.0 * slack);

    // Stopped: member 0 fires no more; it can be started again at once.
    size_t n0 = at[0].size();
    ASSERT_EQ(QOSA_StartRelTimerofGrp(g, 0, 30, 8, 0), 0u);
    ASSERT_EQ(QOSA_FreeRelTimerGrp(g), 0u);
    std::this_thread::sleep_for(100ms);
    size_t after = hits().size();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(hits().size(), after) << "no callback once the group's release ran";
    std::vector<Hit> all = hits();
    EXPECT_EQ(std::count_if(all.begin(), all.end(), [](const Hit& h) { return h.value == 7; }), long(n0));
    EXPECT_EQ(std::atomic_ref<s32>(g_reltmNum).load(), 0);
}

TEST_F(TimerGroup, MemberWhoseTimerCannotBeMadeReports3D) {
    QOSA_TMRSetMaxReltmNum(1);
    QOSA_RelTimerGrp* g = nullptr;
    ASSERT_EQ(QOSA_InitReltimerGrp(&g, 1, on_expiry), 0u);
    void* other = QOSA_CreateRelTimerM([](void*) {}, QOSA_TIMER_LOOP, __LINE__, "test_timer_group.cpp");
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(QOSA_StartRelTimerofGrp(g, 0, 100, 1, 0), 0x2016003Du);
    ASSERT_EQ(QOSA_FreeRelTimer(other), 0u);
    EXPECT_EQ(QOSA_StartRelTimerofGrp(g, 0, 100, 1, 0), 0u);
    EXPECT_EQ(QOSA_FreeRelTimerGrp(g), 0u);
    EXPECT_EQ(QOSA_StopTimerTask(), 0u);
    QOSA_TMRSetMaxReltmNum(2000);
}
