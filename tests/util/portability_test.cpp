#include "iosched/util.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

extern "C" int callGetUTF8ArgsFromC(void);

namespace {

TEST(SetBlockingMode, ChangesOnlyItsOwnFlag) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ASSERT_EQ(::fcntl(ends[1], F_SETFL, O_APPEND), 0);
    const int blocking = ::fcntl(ends[1], F_GETFL);
    ASSERT_EQ(blocking & (O_NONBLOCK | O_APPEND), O_APPEND);

    EXPECT_EQ(SetBlockingMode(ends[1], 0), 0);
    EXPECT_EQ(::fcntl(ends[1], F_GETFL), blocking | O_NONBLOCK);
    EXPECT_EQ(SetBlockingMode(ends[1], 2), 0);
    EXPECT_EQ(::fcntl(ends[1], F_GETFL), blocking);
    EXPECT_EQ(SetBlockingMode(-1, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Portability, GetUTF8ArgsTakesAnyArguments) {
    int argc = 0;
    char **argv = nullptr;
    EXPECT_EQ(GetUTF8Args(), 0);
    EXPECT_EQ(GetUTF8Args(&argc, &argv, 1.5), 0);
    EXPECT_EQ(callGetUTF8ArgsFromC(), 0);
}

}  // namespace
