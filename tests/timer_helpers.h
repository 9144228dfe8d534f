// What the timer tests share: waiting for the timer thread, reading the live
// counts it changes, and counting the tracked blocks of the timer units.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "qosa.h"
#include "support.h"

namespace qosa_test {

using namespace std::chrono_literals;

// Sanitized builds run the timer thread several times slower.
inline constexpr int kSlack = kUnderTsan || kUnderAsan ? 4 : 1;

// Results of calls made in order (a braced list runs them left to right), checked at once.
using Codes = std::vector<u32>;

// Polls done() until it holds or the limit (times kSlack) passes.
template <class Pred>
bool eventually(Pred done, std::chrono::milliseconds limit = 3s) {
    for (auto end = Clock::now() + limit * kSlack; !done(); std::this_thread::sleep_for(2ms))
        if (Clock::now() > end) return false;
    return true;
}

// The live counts change on the timer thread: read them atomically.
inline s32 live(s32& count) { return std::atomic_ref<s32>(count).load(); }

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
