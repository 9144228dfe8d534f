// Absolute timers through the public interface, matched against local time a
// few seconds ahead.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <mutex>
#include <thread>
#include <vector>

#include "qosa.h"
#include "sanitizers.h"

namespace {

using namespace std::chrono_literals;

constexpr int kSlack = qosa_test::kUnderTsan || qosa_test::kUnderAsan ? 3 : 1;

template <class Pred>
bool eventually(Pred done, std::chrono::milliseconds limit) {
    for (auto end = std::chrono::steady_clock::now() + limit * kSlack; !done(); std::this_thread::sleep_for(5ms))
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

constexpr QOSA_SysTime kEverySecond{-1, -1, -1, -1, -1, -1, 0, 0, 0, 0, nullptr};

// Which timer fired (the number its argument points to), in order, and when.
std::mutex s_lock;
std::vector<std::pair<int, time_t>> s_hits;
int s_ids[4] = {0, 1, 2, 3};
void record(void* arg) {
    std::lock_guard<std::mutex> l(s_lock);
    s_hits.emplace_back(*static_cast<int*>(arg), time(nullptr));
}
size_t hits(int who) {
    std::lock_guard<std::mutex> l(s_lock);
    return std::count_if(s_hits.begin(), s_hits.end(), [=](auto& h) { return h.first == who; });
}
void count_up(void* arg) { static_cast<std::atomic<int>*>(arg)->fetch_add(1); }

class AbsTimer : public ::testing::Test {
  protected:
    void SetUp() override {
        std::lock_guard<std::mutex> l(s_lock);
        s_hits.clear();
    }
    void TearDown() override { QOSA_StopTimerTask(); }
};

} // namespace

TEST_F(AbsTimer, FullPatternFiresOnceAtItsSecondNewestStartedFirst) {
    void* older = QOSA_CreateAbsTimerM(record, QOSA_TIMER_LOOP);
    void* newer = QOSA_CreateAbsTimerM(record, QOSA_TIMER_LOOP);
    const time_t due = time(nullptr) + 2;
    struct tm t {};
    localtime_r(&due, &t);
    QOSA_SysTime when{t.tm_sec, t.tm_min, t.tm_hour, t.tm_mday, t.tm_mon + 1, t.tm_year + 1900, 0, 0, -1, 0, nullptr};
    ASSERT_EQ(QOSA_StartAbsTimer(older, &when, &s_ids[0]), 0u);
    ASSERT_EQ(QOSA_StartAbsTimer(newer, &when, &s_ids[1]), 0u);
    ASSERT_TRUE(eventually([] { return hits(0) == 1; }, 4000ms));
    std::this_thread::sleep_for(1500ms);
    std::lock_guard<std::mutex> l(s_lock);
    ASSERT_EQ(s_hits.size(), 2u) << "each fires once";
    EXPECT_EQ(s_hits[0].first, 1) << "newest started fires first";
    EXPECT_GE(s_hits[0].second, due);
    EXPECT_LE(s_hits[0].second, due + kSlack);
}

TEST_F(AbsTimer, EverySecondPatternInEachMode) {
    void* loop = QOSA_CreateAbsTimerM(record, QOSA_TIMER_LOOP);
    void* once = QOSA_CreateAbsTimerM(record, QOSA_TIMER_ONCE);
    void* onceFree = QOSA_CreateAbsTimerM(record, QOSA_TIMER_ONCE_FREE);
    ASSERT_EQ(std::atomic_ref<s32>(g_abstmNum).load(), 3);
    ASSERT_EQ(QOSA_StartAbsTimer(loop, &kEverySecond, &s_ids[0]), 0u);
    ASSERT_EQ(QOSA_StartAbsTimer(once, &kEverySecond, &s_ids[1]), 0u);
    ASSERT_EQ(QOSA_StartAbsTimer(onceFree, &kEverySecond, &s_ids[2]), 0u);
    ASSERT_TRUE(eventually([] { return hits(0) >= 3; }, 5000ms));
    EXPECT_EQ(hits(1), 1u) << "a one-shot becomes inactive";
    EXPECT_EQ(hits(2), 1u);
    EXPECT_EQ(std::atomic_ref<s32>(g_abstmNum).load(), 2) << "the releasing one-shot is gone";
    EXPECT_EQ(QOSA_FreeAbsTimer(onceFree), 22u);

    // Started again, the one-shot fires once more; a stopped loop no more.
    std::atomic<int> done{0};
    ASSERT_EQ(QOSA_StartAbsTimer(once, &kEverySecond, &s_ids[1]), 0u);
    ASSERT_EQ(QOSA_StopAbsTimer_Safe(loop, count_up, &done), 0u);
    ASSERT_TRUE(eventually([&] { return done == 1 && hits(1) == 2; }, 3000ms));
    size_t loops = hits(0);
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(hits(0), loops);
    EXPECT_EQ(hits(1), 2u);
}

TEST_F(AbsTimer, StartValidatesTheDateTimeAndTheHandle) {
    void* h = QOSA_CreateAbsTimerM(record, QOSA_TIMER_LOOP);
    QOSA_SysTime june31{0, 0, 0, 31, 6, 2030, 0, 0, 0, 0, nullptr};
    EXPECT_EQ(QOSA_StartAbsTimer(h, &june31, nullptr), 22u);
    QOSA_SysTime daily{0, 30, 7, -1, -1, -1, 0, 0, 0, 0, nullptr};
    EXPECT_EQ(QOSA_StartAbsTimer(h, &daily, &s_ids[3]), 0u);

    std::atomic<int> done{0};
    ASSERT_EQ(QOSA_StopAbsTimer_Safe(h, count_up, &done), 0u);
    ASSERT_TRUE(eventually([&] { return done == 1; }, 3000ms));
    void* out = nullptr;
    EXPECT_EQ(QOSA_StopAbsTimer_SafeEx(h, nullptr, nullptr, nullptr), 22u);
    EXPECT_EQ(QOSA_StopAbsTimer_SafeEx(h, nullptr, nullptr, &out), 0u);
    EXPECT_EQ(out, &s_ids[3]) << "the argument of the last start";
    EXPECT_EQ(QOSA_FreeAbsTimer(h), 0u);
    EXPECT_EQ(QOSA_FreeAbsTimer(h), 22u);
    EXPECT_EQ(QOSA_StartAbsTimer(h, &daily, nullptr), 22u);
}
