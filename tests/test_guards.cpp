// One sweep over every guarded entry point, linked with the shared library.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "guard_cases.h"

std::vector<GuardCase>& guard_registry() {
    static std::vector<GuardCase> rows;
    return rows;
}

namespace {
class Guards : public ::testing::TestWithParam<GuardCase> {};
} // namespace

TEST_P(Guards, MissingArgumentIsRefused) {
    const GuardCase& c = GetParam();
    errno = 4321;
    EXPECT_EQ(c.call(), c.refusal) << c.name;
    if (c.lastError == 0)
        EXPECT_EQ(errno, 4321) << c.name << " must leave the last error alone";
    else
        EXPECT_EQ(errno, c.lastError) << c.name;
}

INSTANTIATE_TEST_SUITE_P(AllEntryPoints, Guards, ::testing::ValuesIn(guard_registry()),
                         [](const ::testing::TestParamInfo<GuardCase>& info) { return std::string(info.param.name); });
