// The mount-point cache, with a mount table written by the test: the real path, in a mount
// namespace where /etc is a tmpfs.
#include "util/own_mounts.h"
#include "util/util_internal.h"

// The linker sends this program's calls of calloc and strdup through here, the library's included.
// Each fails for the calls whose bit is set, the next call's bit being the lowest.
extern "C" {
unsigned failingCallocs = 0, failingStrdups = 0;
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size) {
    const bool fails = (failingCallocs & 1) != 0;
    failingCallocs >>= 1;
    return fails ? nullptr : __real_calloc(count, size);
}
char *__real_strdup(const char *text);
char *__wrap_strdup(const char *text) {
    const bool fails = (failingStrdups & 1) != 0;
    failingStrdups >>= 1;
    return fails ? nullptr : __real_strdup(text);
}
}

namespace {

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

// A record that cannot be had costs its own line, a name that cannot be copied ends the loading, and
// a rescan that meets either finds nothing. Of one place's lines, the device found tells which were
// loaded: the last of those.
TEST(MountPoints, LackOfMemoryCostsOneLineOrTheRest) {
    const struct {
        unsigned callocs, strdups;
        const char *device;
    } cases[] = {{0b100, 0, "two"},      {0b010, 0, "three"},  {0, 0b010000, "two"},
                 {0, 0b000100, "one"},   {0, 0b000001, "one"}, {0b1111, 0, nullptr},
                 {0b0111, 0b10, nullptr}};
    for (const auto &lack : cases) {
        runWithOwnMounts([&] {
            ScratchMount scratch;
            const std::string place = scratch.tmpfs("place");
            hideEtc();
            writeMountTable("one " + place + " tmpfs rw 0 0\n" + "two " + place +
                            " tmpfs rw 0 0\n" + "three " + place + " tmpfs rw 0 0\n");
            failingCallocs = lack.callocs;
            failingStrdups = lack.strdups;
            EXPECT_STREQ(findMountedDevice(deviceNumber(place)), lack.device);
            failingCallocs = failingStrdups = 0;
        });
        if (IsSkipped()) return;
    }
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
