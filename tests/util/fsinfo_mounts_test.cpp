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

std::string tableLine(const std::string &device, const std::string &place) {
    return device + " " + place + " tmpfs rw 0 0\n";
}

TEST(MountPoints, LastLineWinsAtTheLoadAndTheFirstInARescan) {
    runWithOwnMounts([] {
        const uint64_t early = deviceNumber(newTmpfs("early one"));
        const std::string quoted = ::testing::TempDir() + "early\\040one";
        const std::string gone = tableLine("gone", "/no/such/place");
        hideEtc();
        writeMountTable(gone + tableLine("first", quoted) + tableLine("last", quoted));
        EXPECT_STREQ(findMountedDevice(early), "last");
        const std::string place = newTmpfs("late");
        const uint64_t late = deviceNumber(place);
        writeMountTable(gone + tableLine("first", place) + tableLine("last", place));
        EXPECT_STREQ(findMountedDevice(late), "first");
        writeMountTable(tableLine("other", place) + tableLine("other", quoted));
        EXPECT_STREQ(findMountedDevice(early), "last");
        EXPECT_STREQ(findMountedDevice(late), "first");
    });
}

TEST(MountPoints, MissingTableLeavesAnEmptyCacheAndRescans) {
    runWithOwnMounts([] {
        const std::string place = newTmpfs("place");
        hideEtc();
        EXPECT_EQ(findMountedDevice(deviceNumber(place)), nullptr);
        // Loading counts as done, so this is a rescan: the first line wins.
        writeMountTable(tableLine("first", place) + tableLine("last", place));
        const int lowest = ::dup(0);
        EXPECT_STREQ(findMountedDevice(deviceNumber(place)), "first");
        EXPECT_EQ(::dup(0), lowest + 1) << "the table was left open";
    });
}

// A record that cannot be had costs its own line, a device that cannot be copied ends the loading,
// and a rescan that meets either finds nothing. Of one place's lines, the device found tells which
// were loaded: the last of those.
TEST(MountPoints, LackOfMemoryCostsOneLineOrTheRest) {
    const struct {
        unsigned callocs, strdups;
        const char *device;
    } cases[] = {{0b100, 0, "two"}, {0b010, 0, "three"},  {0, 0b100, "two"},     {0, 0b010, "one"},
                 {0, 0b001, "one"}, {0b1111, 0, nullptr}, {0b0111, 0b1, nullptr}};
    for (const auto &lack : cases) {
        runWithOwnMounts([&] {
            const std::string place = newTmpfs("place");
            hideEtc();
            writeMountTable(tableLine("one", place) + tableLine("two", place) +
                            tableLine("three", place));
            failingCallocs = lack.callocs;
            failingStrdups = lack.strdups;
            EXPECT_STREQ(findMountedDevice(deviceNumber(place)), lack.device);
            failingCallocs = failingStrdups = 0;
        });
        if (IsSkipped()) return;
    }
}

}  // namespace
