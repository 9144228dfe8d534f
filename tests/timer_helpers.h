// What the timer tests share: waiting for the timer thread, reading the live
// counts it changes, checking the results of several calls at once.
#pragma once

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

} // namespace qosa_test
