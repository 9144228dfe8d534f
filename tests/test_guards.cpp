// One sweep over every guarded entry point: a missing argument gives the
// documented refusal and never reaches the platform. Each family adds its
// rows to the table.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "qosa.h"

namespace {

struct GuardCase {
    const char* name;
    std::function<std::int64_t()> call; // the entry point with a missing argument
    std::int64_t refusal;
};

std::int64_t ptr(const void* p) { return p == nullptr ? 0 : 1; }

const std::vector<GuardCase>& cases() {
    static const std::vector<GuardCase> table = {
        // locks
        {"QOSA_MutexInit", [] { return QOSA_MutexInit(nullptr, nullptr); }, -1},
        {"QOSA_MutexInitRecursive", [] { return QOSA_MutexInitRecursive(nullptr); }, -1},
        {"QOSA_MutexDestroy", [] { return QOSA_MutexDestroy(nullptr); }, -1},
        {"QOSA_MutexLock", [] { return QOSA_MutexLock(nullptr); }, -1},
        {"QOSA_MutexTryLock", [] { return QOSA_MutexTryLock(nullptr); }, -1},
        {"QOSA_MutexUnLock", [] { return QOSA_MutexUnLock(nullptr); }, -1},
        // strings
        {"QOSA_StrLen", [] { return QOSA_StrLen(nullptr); }, 0},
        {"QOSA_StrToUper", [] { return ptr(QOSA_StrToUper(nullptr)); }, 0},
        {"QOSA_StrToLower", [] { return ptr(QOSA_StrToLower(nullptr)); }, 0},
        {"QOSA_Ultostr", [] { return QOSA_Ultostr(nullptr, 12, 1, 10); }, -1},
        {"QOSA_StrToInt32", [] { return QOSA_StrToInt32(nullptr, nullptr); }, 1},
        {"QOSA_StrTok_S", [] { return ptr(QOSA_StrTok_S(nullptr, ",", nullptr)); }, 0},
        // operate history
        {"QOSA_AddOperateRec", [] { return QOSA_AddOperateRec(nullptr) != 0; }, 1},
        {"QOSA_DumpOperateHistory", [] { return QOSA_DumpOperateHistory(nullptr, 100) != 0; }, 1},
    };
    return table;
}

class Guards : public ::testing::TestWithParam<GuardCase> {};

} // namespace

TEST_P(Guards, MissingArgumentIsRefused) {
    const GuardCase& c = GetParam();
    errno = 4321;
    EXPECT_EQ(c.call(), c.refusal) << c.name;
    EXPECT_EQ(errno, 4321) << c.name << " must leave the last error alone";
}

INSTANTIATE_TEST_SUITE_P(AllEntryPoints, Guards, ::testing::ValuesIn(cases()),
                         [](const ::testing::TestParamInfo<GuardCase>& info) { return std::string(info.param.name); });
