// Last error and error texts.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "qosa_error.h"

TEST(LastError, IsPerThreadAndTextsFitOrAreRefused) {
    QOSA_SetLastErr(1234);
    u32 other = 0;
    std::thread([&] {
        QOSA_SetLastErr(99);
        other = QOSA_GetLastErr();
    }).join();
    EXPECT_EQ(QOSA_GetLastSocketErr(), 1234u);
    EXPECT_EQ(other, 99u);

    char buf[128], tiny[4];
    EXPECT_EQ(QOSA_StrError_S(buf, sizeof buf, ENOENT), 0);
    EXPECT_STREQ(buf, std::strerror(ENOENT));
    EXPECT_STREQ(QOSA_StrError(ENOENT), buf);
    EXPECT_EQ(QOSA_StrError_S(tiny, sizeof tiny, ENOENT), ERANGE);
}
