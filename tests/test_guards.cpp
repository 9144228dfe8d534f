// One sweep over every guarded entry point, linked with the shared library like a user.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <regex>

#include "guard_cases.h"

std::vector<std::string> guard_names(const char* spelled) {
    static const std::regex lastWord(R"((?:s_)?(\w+)[^\w,]*(?:,|$))");
    std::vector<std::string> names;
    for (std::cregex_iterator it(spelled, spelled + std::strlen(spelled), lastWord), end; it != end; ++it)
        names.push_back((*it)[1]);
    return names;
}

class Guards : public ::testing::TestWithParam<GuardCase> {};

TEST_P(Guards, MissingArgumentIsRefused) {
    errno = 4321;
    EXPECT_EQ(GetParam().call(), GetParam().refusal);
    EXPECT_EQ(errno, GetParam().lastError != 0 ? GetParam().lastError : 4321) << "the last error (4321: left alone)";
}

INSTANTIATE_TEST_SUITE_P(AllEntryPoints, Guards, ::testing::ValuesIn(guard_registry()),
                         [](const auto& info) { return info.param.name; });
