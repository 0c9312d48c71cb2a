// Scenarios that mount file systems of their own.
//
// Each runs in a child with a mount namespace of its own, so that everything it mounts, loop devices
// included, goes away with it, whatever becomes of it. A scenario that this machine cannot run ends
// its child through skipScenario(), and the test is skipped with the reason.
#pragma once

#include "support/in_child.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

constexpr int kSkippedStatus = 77;
constexpr size_t kReasonBytes = 256;
inline char *sharedReason = nullptr;  // kReasonBytes that a scenario's child shares with the test

[[noreturn]] inline void skipScenario(const std::string &reason) {
    (void)std::snprintf(sharedReason, kReasonBytes, "%s", reason.c_str());
    ::_exit(kSkippedStatus);
}

// Runs a command with its output discarded; returns its wait status.
inline int runCommand(std::vector<std::string> words) {
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    const int failed = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    return failed != 0 ? -1 : waitForChild(pid);
}

inline void enterOwnMounts() {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        skipScenario(std::string("no mount namespace of its own: ") + std::strerror(errno));
    }
}

// The last statement of a test: runs the scenario among mounts of its own.
template <class Scenario>
void runWithOwnMounts(Scenario scenario) {
    sharedReason = static_cast<char *>(
        ::mmap(nullptr, kReasonBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(sharedReason, MAP_FAILED);
    const int status = inChild([&] {
        enterOwnMounts();
        scenario();
    });
    const std::string reason = sharedReason;
    (void)::munmap(sharedReason, kReasonBytes);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kSkippedStatus) GTEST_SKIP() << reason;
    EXPECT_EQ(status, 0);
}

// An empty directory with a tmpfs over it; the tmpfs goes with the namespace, the directory here.
class ScratchMount {
public:
    ScratchMount() : path_(::testing::TempDir() + "iosched-mounts-XXXXXX") {
        if (::mkdtemp(path_.data()) == nullptr) skipScenario("no scratch directory");
        if (::mount("scratch", path_.c_str(), "tmpfs", 0, "size=64m") != 0) {
            skipScenario(std::string("no tmpfs: ") + std::strerror(errno));
        }
    }
    ~ScratchMount() { remove(); }
    ScratchMount(const ScratchMount &) = delete;
    ScratchMount &operator=(const ScratchMount &) = delete;

    // A new directory on the tmpfs, with an empty tmpfs of its own over it if asked for.
    std::string directory(const std::string &name) const {
        const std::string made = path_ + "/" + name;
        (void)::mkdir(made.c_str(), 0755);
        return made;
    }
    std::string tmpfs(const std::string &name, const char *options = "size=1m") const {
        const std::string place = directory(name);
        EXPECT_EQ(::mount(name.c_str(), place.c_str(), "tmpfs", 0, options), 0);
        return place;
    }
    // A fresh ext4 file system of 16 MiB in 4096-byte blocks, mounted from a loop device.
    std::string ext4(const std::string &name, std::vector<std::string> mkfsOptions = {}) const {
        const std::string place = directory(name), image = path_ + "/" + name + ".img";
        std::ofstream(image) << "";
        EXPECT_EQ(::truncate(image.c_str(), 16 << 20), 0);
        std::vector<std::string> mkfs{"mkfs.ext4", "-q", "-F", "-b", "4096"};
        mkfs.insert(mkfs.end(), mkfsOptions.begin(), mkfsOptions.end());
        mkfs.push_back(image);
        if (runCommand(mkfs) != 0) skip("mkfs.ext4 is missing or cannot make this file system");
        if (runCommand({"mount", "-o", "loop", image, place}) != 0) {
            skip("the kernel mounts no such ext4 image from a loop device");
        }
        return place;
    }

private:
    void remove() const {
        (void)::umount2(path_.c_str(), MNT_DETACH);
        (void)::rmdir(path_.c_str());
    }
    [[noreturn]] void skip(const std::string &reason) const {
        remove();  // no destructor runs on the way out
        skipScenario(reason);
    }

    std::string path_;
};

inline uint64_t deviceNumber(const std::string &path) {
    struct stat file {};
    EXPECT_EQ(::stat(path.c_str(), &file), 0);
    return file.st_dev;
}

// Puts an empty tmpfs over /etc, within the namespace, for a mount table of the test's own.
inline void hideEtc() {
    ASSERT_EQ(::mount("etc", "/etc", "tmpfs", 0, nullptr), 0);
}

inline void writeMountTable(const std::string &text) {
    std::ofstream("/etc/mtab") << text;
}
