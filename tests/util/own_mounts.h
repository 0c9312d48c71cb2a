// Scenarios that mount file systems of their own.
//
// Each runs in a child with a mount namespace of its own and an empty tmpfs as its directory of
// temporary files, so that everything it makes goes away with it, loop devices included. A scenario
// that this machine cannot run ends its child through skipScenario(), and the test is skipped.
#pragma once

#include "support/in_child.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>

constexpr int kSkippedStatus = 77;

[[noreturn]] inline void skipScenario(const char *what) {
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(errno));
    ::_exit(kSkippedStatus);
}

inline void mountTmpfs(const std::string &place, const char *options = "size=64m") {
    if (::mount("tmpfs", place.c_str(), "tmpfs", 0, options) != 0) skipScenario("no tmpfs");
}

// A user namespace serves where the tests do not run as root: there, mounts of one's own are
// allowed.
inline bool enterOwnNamespace() {
    const uid_t uid = ::geteuid();
    if (uid == 0) return ::unshare(CLONE_NEWNS) == 0;
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    return ::geteuid() == 0;
}

// The last statement of a test: runs the scenario among mounts of its own.
template <class Scenario>
void runWithOwnMounts(Scenario scenario) {
    const int status = inChild([&] {
        if (!enterOwnNamespace() ||
            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            skipScenario("no mount namespace");
        mountTmpfs(::testing::TempDir());
        scenario();
    });
    if (status == kSkippedStatus << 8) GTEST_SKIP() << "for the reason above";
    EXPECT_EQ(status, 0);
}

inline std::string newDirectory(const std::string &name) {
    const std::string path = ::testing::TempDir() + name;
    EXPECT_EQ(::mkdir(path.c_str(), 0755), 0);
    return path;
}

inline std::string newTmpfs(const std::string &name, const char *options = "size=1m") {
    const std::string place = newDirectory(name);
    mountTmpfs(place, options);
    return place;
}

// 16 MiB in 4096-byte blocks, on a loop device.
inline std::string newExt4(const std::string &name, const std::string &options) {
    const std::string place = newDirectory(name), image = place + ".img";
    const std::string script = "exec >/dev/null 2>&1; truncate -s 16M " + image +
                               " && mkfs.ext4 -qF -b 4096 " + options + " " + image +
                               " && mount -o loop " + image + " " + place;
    if (inChild([&] { (void)::execl("/bin/sh", "sh", "-c", script.c_str(), nullptr); }) != 0)
        skipScenario("no such ext4 on a loop device");
    return place;
}

inline uint64_t deviceNumber(const std::string &path) {
    struct stat file {};
    EXPECT_EQ(::stat(path.c_str(), &file), 0);
    return file.st_dev;
}

// Puts an empty tmpfs over /etc, for a mount table of the test's own.
inline void hideEtc() {
    mountTmpfs("/etc");
}

inline void writeMountTable(const std::string &text) {
    std::ofstream("/etc/mtab") << text;
}
