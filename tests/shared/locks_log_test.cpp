// A full table: the line in the system log, the code, and a table that is as it was.
//
// The test stands in the log daemon's place with a socket of its own at /dev/log, in a mount namespace
// of its own, so that neither a daemon nor the machine's /dev notices.

#include "iosched/shared.h"
#include "support/in_child.h"
#include "support/lock_table.h"
#include "support/lock_table_bytes.h"

#include <cstring>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <vector>

namespace {

constexpr int kSkipped = 77;

// Runs the scenario with the descriptor of the log's socket; skips the test where the system forbids
// to put one in place.
template <class Scenario>
void withLogSocket(Scenario scenario) {
    const int status = inChild([&] {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", "/dev", "tmpfs", 0, "mode=755") != 0) {
            ::_exit(kSkipped);
        }
        const int log = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        ASSERT_EQ(::bind(log, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        ::openlog("locks", 0, LOG_LOCAL3);
        scenario(log);
    });
    if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipped) {
        GTEST_SKIP() << "no mount namespace of our own here";
    }
    EXPECT_EQ(status, 0);
}

// All that has been logged since the last call: "<priority>message", without time and tag.
std::vector<std::string> logged(int log) {
    std::vector<std::string> lines;
    char buffer[512];
    for (ssize_t n; (n = ::recv(log, buffer, sizeof buffer, 0)) > 0;) {
        const std::string line(buffer, static_cast<size_t>(n));
        const size_t tag = line.find("locks: ");
        lines.push_back(line.substr(0, line.find('>') + 1) +
                        (tag == std::string::npos ? line : line.substr(tag + 7)));
    }
    return lines;
}

const std::string kPriority = "<" + std::to_string(LOG_LOCAL3 | LOG_ERR) + ">";

std::string imageOf(const SharedFileLockTable *table, uint64_t bytes) {
    return {static_cast<const char *>(table->header), bytes};
}

TEST(LocksFullTable, WithoutAFreeRecordTheTableIsUnchangedAndTheLogSaysSo) {
    withLogSocket([](int log) {
        ScratchTable scratch(1, 4, 2);
        const Opener a{scratch.table, 1, 1};
        const SharedFileKey file{1, 1};
        ASSERT_EQ(a.open(file, SHARED_FILE_READ, 0, "name"), 0);
        ASSERT_EQ(a.lock(file, 0, 1, SHARED_FILE_LOCK_SHARED), 0);
        EXPECT_EQ(logged(log), std::vector<std::string>{});
        const std::string before = imageOf(scratch.table, CalcSharedFileLockTableSize(1, 4, 2));

        const std::vector line{kPriority + "addRangeLock: no more locks"};
        EXPECT_EQ(a.lock(file, 5, 1, SHARED_FILE_LOCK_SHARED), SHARED_ERR_NOLOCKS);
        EXPECT_EQ(logged(log), line);
        uint32_t combined = 7;
        EXPECT_EQ(OpenSharedFile(scratch.table, 1, 1, &file, 2, 0, nullptr, &combined),
                  SHARED_ERR_NOLOCKS);
        EXPECT_EQ(logged(log), line);
        EXPECT_EQ(combined, 7u);
        EXPECT_EQ(imageOf(scratch.table, before.size()), before);

        // A new file's entry is taken and given back: it is free again, with no name.
        const SharedFileKey fresh{2, 2};
        EXPECT_EQ(a.open(fresh, SHARED_FILE_READ, 0, "left over"), SHARED_ERR_NOLOCKS);
        EXPECT_EQ(logged(log), line);
        EXPECT_EQ(SharedFileIsOpen(scratch.table, &fresh), 0);
        EXPECT_EQ(imageOf(scratch.table, before.size()).find("left over"), std::string::npos);
        const TableBytes bytes = readTableBytes(scratch.table, 4, 2);
        EXPECT_EQ(bytes.fault, "");
        EXPECT_EQ(bytes.freeEntries, 3u);
    });
}

TEST(LocksFullTable, AnEntryWhoseLastRecordIsGoneIsGivenBackWhenAnOpenFindsNoRecord) {
    withLogSocket([](int) {
        ScratchTable scratch(1, 4, 2);
        const Opener a{scratch.table, 1, 1};
        const SharedFileKey file{1, 1}, other{2, 2};
        ASSERT_EQ(a.open(file, SHARED_FILE_READ), 0);
        ASSERT_EQ((Opener{scratch.table, 2, 2}).lock(file, 0, 1, SHARED_FILE_LOCK_SHARED), 0);
        ASSERT_EQ(a.close(file), 0);
        ASSERT_EQ((Opener{scratch.table, 2, 2}).unlock(file, 0, 1), 0);
        ASSERT_EQ(a.open(other, SHARED_FILE_READ), 0);
        ASSERT_EQ(a.open(other, SHARED_FILE_READ), 0);
        EXPECT_EQ(SharedFileIsOpen(scratch.table, &file), 1);
        EXPECT_EQ(a.open(file, SHARED_FILE_READ), SHARED_ERR_NOLOCKS);
        EXPECT_EQ(SharedFileIsOpen(scratch.table, &file), 0);
        EXPECT_EQ(readTableBytes(scratch.table, 4, 2).fault, "");
    });
}

TEST(LocksFullTable, WithoutAFreeEntryNoNewFileIsOpened) {
    withLogSocket([](int log) {
        ScratchTable scratch(1, 0, 5);
        const Opener a{scratch.table, 1, 1};
        const std::string before = imageOf(scratch.table, CalcSharedFileLockTableSize(1, 0, 5));
        EXPECT_EQ(a.open({1, 1}, SHARED_FILE_READ), SHARED_ERR_NOLOCKS);
        EXPECT_EQ(logged(log), std::vector{kPriority + "OpenSharedFile: no more locks"});
        EXPECT_EQ(imageOf(scratch.table, before.size()), before);
        EXPECT_EQ(readTableBytes(scratch.table, 0, 5).freeRecords, 5u);
    });
}

}  // namespace
