// Rows of the guard sweep. Each family's guards_<family>.cpp registers the
// entry points it guards: called with a missing argument, each must give its
// refusal value, leave the last error alone and not crash.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <vector>

struct GuardCase {
    const char* name;                   // the entry point (one row per guarded argument is fine: add a suffix)
    std::function<std::int64_t()> call; // calls it with the missing argument
    std::int64_t refusal;               // what it must return
    int lastError = 0;                  // 0: the last error is left alone; else what the refusal sets
};

std::vector<GuardCase>& guard_registry();

struct GuardRows {
    GuardRows(std::initializer_list<GuardCase> rows) { guard_registry().insert(guard_registry().end(), rows); }
};

// Turns a pointer result into 0 (null) or 1, for the table.
inline std::int64_t as_flag(const void* p) { return p == nullptr ? 0 : 1; }
