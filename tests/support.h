// What the tests share. What the build runs them under: a sanitizer, for the few checks that a sanitizer itself
// reports as an error (destroying a locked mutex, a deliberate fault); the cross build's user-mode emulator
// (qemu-user), for the few checks of what it fakes or forwards differently. How a forked child ends; elapsed
// time; a file's contents.
#pragma once

// Every test file starts from this header: GoogleTest, the public headers and the standard headers most tests use.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qosa.h"

namespace qosa_test {
inline constexpr bool kUnderTsan = QOSA_TEST_TSAN;
inline constexpr bool kUnderAsan = QOSA_TEST_ASAN;
inline constexpr bool kUnderEmulator = QOSA_TEST_EMULATED;

using Clock = std::chrono::steady_clock;

inline double ms_since(Clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// The whole contents of a file ("" when it cannot be read).
inline std::string slurp(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Names this process (its main thread: at most 15 characters kept) and returns
// the name that the /proc scans see. qemu-user makes up the emulated process's
// own stat line, named after the executable.
inline std::string name_self(const std::string& name) {
    prctl(PR_SET_NAME, name.c_str());
    if (!kUnderEmulator) return name.substr(0, 15);
    const std::string line = slurp("/proc/self/stat");
    return line.substr(line.find('(') + 1, line.rfind(')') - line.find('(') - 1);
}

// Polls every millisecond until pred() holds (a waiter has queued, a thread has started).
template <class Pred>
void wait_until(Pred pred) {
    while (!pred())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// The live tracked blocks whose source file name holds filter (any case; every block for none), by address (0),
// size (1) or in the order allocated (2).
inline std::vector<QOSA_MEM_REC_S> tracked_records(const char* filter, int order = 2) {
    QOSA_MEM_REC_S* recs = nullptr;
    const u32 n = sysMemSortMemInfo(&recs, const_cast<char*>(filter), order);
    std::vector<QOSA_MEM_REC_S> out(recs, recs + n);
    std::free(recs);
    return out;
}

// A forked child that ends with _exit writes its coverage counters first (make coverage).
#ifdef QOSA_COVERAGE
extern "C" void __gcov_dump(void);
inline void write_counters() { __gcov_dump(); }
#else
inline void write_counters() {}
#endif
// Ends a forked child at once: no atexit work, no stdio flush.
[[noreturn]] inline void child_exit(int code) {
    write_counters();
    _exit(code);
}
} // namespace qosa_test
