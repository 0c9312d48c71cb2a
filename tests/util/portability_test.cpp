#include "iosched/util.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

TEST(SetBlockingMode, ChangesOnlyItsOwnFlag) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ASSERT_EQ(::fcntl(ends[1], F_SETFL, O_APPEND), 0);
    const int blocking = ::fcntl(ends[1], F_GETFL);
    EXPECT_EQ(SetBlockingMode(ends[1], 0), 0);
    EXPECT_EQ(::fcntl(ends[1], F_GETFL), blocking | O_NONBLOCK);
    EXPECT_EQ(SetBlockingMode(ends[1], 2), 0);
    EXPECT_EQ(::fcntl(ends[1], F_GETFL), blocking);
}

// From C, tests/install/consumer calls it.
TEST(GetUTF8Args, TakesAnyArguments) {
    EXPECT_EQ(GetUTF8Args() | GetUTF8Args("", 1.5), 0);
}

// Fractions of a second are dropped downwards; times outside the range wrap.
TEST(FileTime, BothWaysAgreeToTheSecondInAndOutsideTheRange) {
    constexpr uint64_t kSecond = 10000000, k1970 = 116444736000000000;
    EXPECT_EQ(win2unixtime(0), -11644473600);
    EXPECT_EQ(win2unixtime(k1970 - 1), -1);
    EXPECT_EQ(win2unixtime(k1970 + 2 * kSecond - 1), 1);
    EXPECT_EQ(win2unixtime(UINT64_MAX), 1833029933770);
    EXPECT_EQ(unix2wintime(1833029933770), 18446744073700000000u);
    EXPECT_EQ(unix2wintime(-1), k1970 - kSecond);
    EXPECT_EQ(unix2wintime(-11644473601), UINT64_MAX - (kSecond - 1));
    EXPECT_EQ(unix2wintime(INT64_MAX), k1970 - kSecond);
    EXPECT_EQ(unix2wintime(INT64_MIN), k1970);
}

// snprintf does the same: behind nothing, or behind what is there if that leaves any room.
TEST(Strlfuncs, EveryLengthAndSizeAgreesWithTheDefinition) {
    for (size_t before = 0; before <= 5; ++before) {
        for (size_t length = 0; length <= 10; ++length) {
            const std::string src(length, 's');
            for (size_t size = 0; size <= 16; ++size) {
                std::string dst(16, '~'), expected = dst;
                EXPECT_EQ(strlcpy(dst.data(), src.c_str(), size), length);
                (void)std::snprintf(expected.data(), size, "%s", src.c_str());
                EXPECT_EQ(dst, expected) << "length " << length << " size " << size;
                dst.assign(before, 'h').append(1, '\0').resize(16, '~');
                expected = dst;
                const size_t kept = std::min(before, size);
                EXPECT_EQ(strlcat(dst.data(), src.c_str(), size), before + length);
                (void)std::snprintf(&expected[kept], size - kept, "%s", src.c_str());
                EXPECT_EQ(dst, expected) << before << "+" << length << " size " << size;
            }
        }
    }
}

}  // namespace
