// A scenario in a process of its own.
//
// Scheduler state cannot be torn down, so a scenario that needs it fresh, forks, or is expected to
// end the process runs in a child. The parent keeps the deadline (SIGALRM is the library's) and
// kills the child that misses it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// Waits for a child at most so long and returns its wait status; SIGKILLs it when the time is up.
inline int waitForChild(pid_t pid, int deadlineMs = 60000) {
    const int pidFd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    pollfd waiter{pidFd, POLLIN, 0};
    if (pidFd >= 0 && ::poll(&waiter, 1, deadlineMs) == 0) {
        std::fprintf(stderr, "child %d missed its deadline of %d ms\n", pid, deadlineMs);
        (void)::kill(pid, SIGKILL);
    }
    int status = 0;
    (void)::waitpid(pid, &status, 0);
    if (pidFd >= 0) (void)::close(pidFd);
    return status;
}

// Runs the scenario in a forked child and returns its wait status. The child ends with exit status
// 0 when no EXPECT or ASSERT failed in it, else 1; its failures appear in the test's output.
template <class Scenario>
int inChild(Scenario scenario, int deadlineMs = 60000) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        scenario();
        std::fflush(nullptr);
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    return waitForChild(pid, deadlineMs);
}

// Descriptors that this process has open. Needs none itself, so that it works when none is left.
inline int countOpenDescriptors() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd)
        count += ::fcntl(fd, F_GETFD) >= 0;
    return count;
}

#define EXPECT_CHILD_OK(...) EXPECT_EQ(inChild(__VA_ARGS__), 0)
