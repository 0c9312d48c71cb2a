#include "iosched/util.h"

#include <gtest/gtest.h>

namespace {

TEST(FileTime, BothWaysAgreeAndFractionsAreDroppedDownwards) {
    EXPECT_EQ(win2unixtime(116444736000000000), 0);
    EXPECT_EQ(win2unixtime(116444736009999999), 0);
    EXPECT_EQ(win2unixtime(116444735999999999), -1);
    EXPECT_EQ(win2unixtime(0), -11644473600);
    EXPECT_EQ(unix2wintime(-11644473600), 0u);
    EXPECT_EQ(unix2wintime(1), UINT64_C(116444736010000000));
}

TEST(FileTime, TimesOutsideTheRangeWrap) {
    EXPECT_EQ(win2unixtime(UINT64_MAX), INT64_C(1833029933770));
    EXPECT_EQ(unix2wintime(-11644473601), UINT64_MAX - 9999999);
    EXPECT_EQ(unix2wintime(INT64_MAX), UINT64_C(116444736000000000) - 10000000);
    EXPECT_EQ(unix2wintime(INT64_MIN), UINT64_C(116444736000000000));
}

}  // namespace
