// What the tests of programs and commands share.
#pragma once

#include "procs/procs_internal.h"
#include "support/loop.h"
#include "support/scratch_dir.h"

#include <cerrno>

// The next fork fails with EAGAIN; every fork returns in the parent when the child has ended already.
// fork_test.cpp stands before the C library's fork.
inline bool failNextFork = false, forksAwaitTheEnd = false;

inline std::string readAll(int fd) {
    std::string text;
    char bytes[4096];
    ssize_t count = 0;
    while ((count = ::read(fd, bytes, sizeof bytes)) > 0)
        text.append(bytes, static_cast<size_t>(count));
    return text;
}

// A pipe with blocking ends that no program inherits by accident.
struct PlainPipe : TestPipe {
    PlainPipe() : TestPipe(O_CLOEXEC) {}
    std::string rest() {  // what the others have written, once they all have closed it
        closeWriteEnd();
        return readAll(fd);
    }
};

// Waits for a child through the loop; its status word.
inline int statusOf(pid_t pid) {
    return ReportedChild(pid).await();
}

// Waits, outside the loop, until a child has ended.
inline void awaitZombie(pid_t pid) {
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
}

inline bool hasChildren() {
    siginfo_t info;
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// A hexadecimal mask of /proc/<pid>/status, such as "SigIgn:", in its text.
inline uint64_t maskIn(const std::string &status, const std::string &name) {
    return std::stoull(status.substr(status.find(name)).substr(name.size()), nullptr, 16);
}

inline uint64_t maskOf(int sig) {
    return uint64_t{1} << (sig - 1);
}

inline uint64_t presentMask() {
    return maskIn(readFile("/proc/thread-self/status"), "SigBlk:");
}
