// What the timer tests share: waiting for the timer thread, reading the live
// counts it changes, and counting the tracked blocks of the timer units.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "qosa.h"
#include "support.h"

namespace qosa_test {

using namespace std::chrono_literals;

// Sanitized builds run the timer thread several times slower.
inline constexpr int kSlack = kUnderTsan || kUnderAsan ? 4 : 1;

inline const QOSA_SysTime kEverySecond{-1, -1, -1, -1, -1, -1, 0, 0, 0, 0, nullptr};

// Polls done() until it holds or the limit (times kSlack) passes.
template <class Pred>
bool eventually(Pred done, std::chrono::milliseconds limit = 3s) {
    for (auto end = Clock::now() + limit * kSlack; !done(); std::this_thread::sleep_for(2ms))
        if (Clock::now() > end) return false;
    return true;
}

// The live counts change on the timer thread: read them atomically.
inline s32 live(s32& count) { return std::atomic_ref<s32>(count).load(); }

// A timer callback counting its calls in the std::atomic<int> it is given.
inline void count_up(void* counter) { static_cast<std::atomic<int>*>(counter)->fetch_add(1); }

// Live tracked blocks whose source file name contains each filter, summed.
template <class... Filters>
u32 blocks(Filters... filters) {
    u32 n = 0;
    for (const char* filter : {filters...}) {
        QOSA_MEM_REC_S* recs = nullptr;
        n += sysMemSortMemInfo(&recs, const_cast<char*>(filter), 2);
        std::free(recs);
    }
    return n;
}

} // namespace qosa_test
