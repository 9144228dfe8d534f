// One sweep over every guarded entry point, linked with the shared library like a user: called with a missing
// argument, each must give its refusal value, leave the last error alone and not crash.
#include "guard_cases.h"
#include "support.h"

void PrintTo(const GuardCase& c, std::ostream* os) { *os << c.name; }
class Guards : public ::testing::TestWithParam<GuardCase> {};

TEST_P(Guards, MissingArgumentIsRefused) {
    errno = 4321;
    EXPECT_EQ(GetParam().call(), GetParam().refusal);
    EXPECT_EQ(errno, GetParam().lastError != 0 ? GetParam().lastError : 4321) << "the last error (4321: left alone)";
}

INSTANTIATE_TEST_SUITE_P(AllEntryPoints, Guards, ::testing::ValuesIn(guard_table()),
                         [](const auto& info) { return info.param.name; });
