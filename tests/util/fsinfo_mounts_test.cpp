// The mount-point cache, with a mount table written by the test: the real path, in a mount
// namespace where /etc is a tmpfs.
#include "util/own_mounts.h"
#include "util/util_internal.h"

namespace {

// Replaces /etc/mtab, within the namespace.
void writeMountTable(const std::string &text) {
    std::ofstream("/etc/mtab") << text;
}

void hideEtc() {
    ASSERT_EQ(::mount("etc", "/etc", "tmpfs", 0, nullptr), 0);
}

TEST(MountPoints, LastLineWinsAtTheLoadAndTheFirstInARescan) {
    runWithOwnMounts([] {
        ScratchMount scratch;
        const std::string early = scratch.tmpfs("early one");
        hideEtc();
        std::string quoted = early;
        quoted.replace(quoted.find(' '), 1, "\\040");
        writeMountTable("gone /no/such/place tmpfs rw 0 0\n"
                        "first " +
                        quoted +
                        " tmpfs rw 0 0\n"
                        "last " +
                        quoted + " tmpfs rw 0 0\n");
        EXPECT_STREQ(findMountedDevice(deviceNumber(early)), "last");

        const std::string late = scratch.tmpfs("late");
        writeMountTable("gone /no/such/place tmpfs rw 0 0\n"
                        "first " +
                        late +
                        " tmpfs rw 0 0\n"
                        "last " +
                        late + " tmpfs rw 0 0\n");
        EXPECT_STREQ(findMountedDevice(deviceNumber(late)), "first");

        writeMountTable("other " + late + " tmpfs rw 0 0\nother " + quoted + " tmpfs rw 0 0\n");
        EXPECT_STREQ(findMountedDevice(deviceNumber(early)), "last");
        EXPECT_STREQ(findMountedDevice(deviceNumber(late)), "first");
    });
}

TEST(MountPoints, MissingTableLeavesAnEmptyCacheAndRescans) {
    runWithOwnMounts([] {
        ScratchMount scratch;
        const std::string place = scratch.tmpfs("place");
        hideEtc();
        EXPECT_EQ(findMountedDevice(deviceNumber(place)), nullptr);
        writeMountTable("elsewhere / tmpfs rw 0 0\n");
        EXPECT_EQ(findMountedDevice(deviceNumber(place)), nullptr);
        // Loading counts as done, so this is a rescan: the first line wins.
        writeMountTable("first " + place + " tmpfs rw 0 0\nlast " + place + " tmpfs rw 0 0\n");
        EXPECT_STREQ(findMountedDevice(deviceNumber(place)), "first");
    });
}

TEST(MountPoints, LookupLeavesNoDescriptorOpen) {
    const int before = ::dup(0);
    ::close(before);
    (void)findMountedDevice(0);
    const int after = ::dup(0);
    ::close(after);
    EXPECT_EQ(after, before);
}

}  // namespace
