#include "procs/program.h"
#include "procs/syscall_wrap.h"
#include "support/in_child.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>

TEST(Daemonify, LeavesADaemonAndEndsTheCallerWithItsExitHandlers) {
    // Orphans come to this process, so that the daemon's end is seen too.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    PlainPipe report;
    static int reportFd;
    reportFd = report.writeEnd();
    const int status = inChild([] {
        std::atexit([] { (void)!::write(reportFd, "exit handler\n", 13); });
        const pid_t caller = ::getpid();
        EXPECT_EQ(daemonify(), 0);
        while (::getppid() == caller)  // nothing tells of a parent's end
            (void)::poll(nullptr, 0, 1);
        EXPECT_NE(::getpid(), caller);
        EXPECT_EQ(::getsid(0), ::getpid());
        EXPECT_EQ(::open("/dev/tty", O_RDWR | O_CLOEXEC), -1);
        EXPECT_EQ(errno, ENXIO);
        (void)!::write(reportFd, "daemon\n", 7);
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(report.rest(), "exit handler\ndaemon\n");
    int daemonStatus = -1;
    EXPECT_GT(::wait(&daemonStatus), 0);
    EXPECT_EQ(daemonStatus, 0);
}

TEST(Daemonify, FailedForkLeavesTheCallerInTheForeground) {
    const pid_t session = ::getsid(0);
    failNextFork = true;
    EXPECT_EQ(daemonify(), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(::getsid(0), session);
}

TEST(Disassociate, StartsASessionUnlessTheCallerLeadsAGroup) {
    EXPECT_CHILD_OK([] {
        EXPECT_EQ(disassociate(), ::getpid());
        EXPECT_EQ(::getsid(0), ::getpid());
        EXPECT_EQ(disassociate(), -1);
        EXPECT_EQ(errno, EPERM);
    });
}
