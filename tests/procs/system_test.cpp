#include "procs/program.h"
#include "procs/syscall_wrap.h"
#include "support/alloc_wrap.h"
#include "support/in_child.h"
#include "support/scratch_dir.h"

#include <cerrno>
#include <memory>
#include <sys/stat.h>

namespace {

using System = LoopTest;

int interrupts = 0;

void countInterrupt(int) {
    ++interrupts;
}

struct sigaction actionOf(int sig) {
    struct sigaction action = {};
    EXPECT_EQ(::sigaction(sig, nullptr, &action), 0);
    return action;
}

}  // namespace

TEST_F(System, ReturnsTheStatusWord) {
    EXPECT_EQ(ZORsystem("true"), 0);
    EXPECT_EQ(ZORsystem("exit 3"), 0x300);
    EXPECT_EQ(ZORsystem("kill -TERM $$"), SIGTERM);
    EXPECT_EQ(ZORsystem("no-such-program"), 0x7f00);
}

// Outside the loop's mask the child would be reaped by its signal before it is registered.
TEST_F(System, ChildIsNotMissedWhenSignalsAreLetInOutsideTheLoop) {
    for (int round = 0; round < 100; ++round) {
        ASSERT_EQ(enableSignals(), 0);
        ASSERT_EQ(ZORsystem("true"), 0);
        ASSERT_EQ(enableSignals(), 0);
        FILE *stream = ZORpopen("true", "r");
        ASSERT_EQ(ZORpclose(stream), 0);
    }
}

TEST_F(System, StopOfTheCommandEndsTheWait) {
    const ScratchDir dir;
    EXPECT_EQ(ZORsystem(("echo $$ > " + dir.path() + "/pid; kill -STOP $$").c_str()), 0x137f);
    EXPECT_EQ(ZORsystem(("read pid < " + dir.path() + "/pid; kill -KILL $pid").c_str()), 0);
    EXPECT_TRUE(runUntil([] { return !hasChildren(); }));
}

TEST_F(System, InterruptHandlersComeBackAsTheyWere) {
    for (const SchedSignalFunc handler : {SIG_DFL, SIG_IGN, SchedSignalFunc{countInterrupt}}) {
        ASSERT_NE(catchSignal(SIGINT, handler), SIG_ERR);
        ASSERT_NE(catchSignal(SIGQUIT, handler), SIG_ERR);
        EXPECT_EQ(ZORsystem("true"), 0);
        EXPECT_EQ(catchSignal(SIGINT, SIG_DFL), handler);
        EXPECT_EQ(catchSignal(SIGQUIT, SIG_DFL), handler);
    }
    // A handler that the library does not know stays what it is: a signal handler.
    struct sigaction own = {};
    own.sa_handler = countInterrupt;
    own.sa_flags = SA_RESTART;
    sigaddset(&own.sa_mask, SIGHUP);
    ASSERT_EQ(::sigaction(SIGQUIT, &own, nullptr), 0);
    ASSERT_EQ(catchSignal(SIGINT, countInterrupt), SIG_DFL);
    EXPECT_EQ(ZORsystem("kill -INT $PPID"), 0);
    (void)iosched(0);
    EXPECT_EQ(interrupts, 0) << "ignored during the wait";
    const struct sigaction after = actionOf(SIGQUIT);
    EXPECT_EQ(after.sa_handler, own.sa_handler);
    EXPECT_EQ(after.sa_flags & SA_RESTART, SA_RESTART);
    EXPECT_EQ(sigismember(&after.sa_mask, SIGHUP), 1);
    ::raise(SIGQUIT);
    EXPECT_EQ(interrupts, 1) << "at once, not in a later pass";
}

TEST_F(System, NestedCallsLeaveTheOuterOnesStateAlone) {
    ASSERT_EQ(catchSignal(SIGINT, countInterrupt), SIG_DFL);
    int inner = -1;
    TestTimer nested(1, [&] {
        inner = ZORsystem("exit 4");
        EXPECT_EQ(actionOf(SIGINT).sa_handler, SIG_IGN);
        EXPECT_EQ(actionOf(SIGQUIT).sa_handler, SIG_IGN);
    });
    startTimer(&nested);
    PlainPipe pipe;  // the command ends when the loop has gone on for so long
    TestTimer release(20, [&] { pipe.closeWriteEnd(); });
    startTimer(&release);
    ASSERT_EQ(::fcntl(pipe.readEnd(), F_SETFD, 0), 0);
    const std::string read = "read line < /proc/self/fd/" + std::to_string(pipe.readEnd());
    EXPECT_EQ(ZORsystem((read + "; exit 5").c_str()), 0x500);
    EXPECT_EQ(inner, 0x400);
    EXPECT_EQ(catchSignal(SIGINT, SIG_DFL), countInterrupt);
    EXPECT_EQ(actionOf(SIGQUIT).sa_handler, SIG_DFL);
}

TEST_F(System, ProcessForkedOffDuringTheWaitReturns) {
    const pid_t parent = ::getpid();
    PlainPipe pipe;  // the command ends when both processes have closed it
    std::unique_ptr<ReportedChild> child;
    TestTimer fork(1, [&] {
        const pid_t pid = ioFork();
        pipe.closeWriteEnd();
        if (pid != 0) child = std::make_unique<ReportedChild>(pid);
    });
    startTimer(&fork);
    ASSERT_EQ(::fcntl(pipe.readEnd(), F_SETFD, 0), 0);
    const std::string command = "read line < /proc/self/fd/" + std::to_string(pipe.readEnd());
    const int status = ZORsystem(command.c_str());
    if (::getpid() != parent) ::_exit(status == -1 && errno == ECHILD ? 0 : 1);
    EXPECT_EQ(status, 1 << 8);
    EXPECT_EQ(child->await(), 0);
}

TEST_F(System, CommandHasTheDispositionsOfBefore) {
    const ScratchDir dir;
    const std::string command = "grep SigIgn /proc/self/status > " + dir.path() + "/status";
    const auto ignoredByCommand = [&] {
        EXPECT_EQ(ZORsystem(command.c_str()), 0);
        const uint64_t ignored = maskIn(readFile(dir / "status"), "SigIgn:");
        return ignored & (maskOf(SIGINT) | maskOf(SIGQUIT));
    };
    ASSERT_NE(catchSignal(SIGINT, countInterrupt), SIG_ERR);
    EXPECT_EQ(ignoredByCommand(), 0u);
    ASSERT_NE(catchSignal(SIGQUIT, SIG_IGN), SIG_ERR);
    EXPECT_EQ(ignoredByCommand(), maskOf(SIGQUIT));
}

TEST_F(System, OutOfMemoryStartsNothing) {
    const ScratchDir dir;
    const std::string command = ": > " + dir.path() + "/ran";
    allocationsUntilFailure = 0;
    EXPECT_EQ(ZORsystem(command.c_str()), -1);
    EXPECT_EQ(errno, ENOMEM);
    failNextFork = true;
    EXPECT_EQ(ZORsystem(command.c_str()), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(ZORsystem(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(hasChildren());
    EXPECT_EQ(fileSize(dir / "ran"), -1);
}
