#include "sched/sched_internal.h"
#include "support/in_child.h"
#include "support/loop.h"

#include <cerrno>
#include <memory>
#include <vector>

namespace {

std::vector<int> arrived;
std::function<void()> onFirst;  // runs once, in the first callback

void record(int sig) {
    arrived.push_back(sig);
    if (onFirst) std::exchange(onFirst, nullptr)();
}

void other(int) {}

void raiseHere(int sig) {
    ASSERT_EQ(::kill(::getpid(), sig), 0);
}

using Log = std::vector<int>;
using Signals = LoopTest;

TEST_F(Signals, CatchSignalReportsThePreviousHandler) {
    EXPECT_EQ(catchSignal(SIGUSR1, record), SIG_DFL);
    EXPECT_EQ(catchSignal(SIGUSR1, other), record);
    EXPECT_EQ(catchSignal(SIGUSR1, SIG_IGN), other);
    EXPECT_EQ(catchSignal(SIGUSR1, record), SIG_IGN);
    EXPECT_EQ(catchSignal(SIGUSR1, SIG_DFL), record);
    EXPECT_EQ(catchSignal(SIGUSR1, SIG_DFL), SIG_DFL);
    ASSERT_NE(::signal(SIGUSR1, other), SIG_ERR);  // installed outside the library
    EXPECT_EQ(catchSignal(SIGUSR1, record), other);
    for (const int sig : {SIGKILL, SIGSTOP, 0, -1, 65, 1000}) {
        errno = 0;
        EXPECT_EQ(catchSignal(sig, record), SIG_ERR) << sig;
        EXPECT_EQ(errno, EINVAL);
    }
    errno = 0;
    EXPECT_EQ(catchSignal(SIGUSR1, SIG_ERR), SIG_ERR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(catchSignal(SIGUSR1, other), record);  // as it was
    EXPECT_EQ(catchSignal(SIGRTMAX, record), SIG_DFL);
    raiseHere(SIGRTMAX);
    EXPECT_TRUE(runUntil([] { return arrived == Log{SIGRTMAX}; }));
    const int status = inChild([] {
        (void)catchSignal(SIGUSR1, SIG_DFL);
        raiseHere(SIGUSR1);
    });
    EXPECT_EQ(WTERMSIG(status), SIGUSR1);
}

// What says that a signal has arrived is one open file for both until the child's first pass.
TEST_F(Signals, AChildThatCatchesOneNoMoreLeavesItToItsParent) {
    (void)catchSignal(SIGUSR1, record);
    TestPipe busy;
    busy.input();
    busy.fill();
    EXPECT_CHILD_OK([] { (void)catchSignal(SIGUSR1, SIG_DFL); });
    for (int pass = 0; pass < 4; ++pass) {
        if (pass == 2) raiseHere(SIGUSR1);  // the first two serve the child's end
        EXPECT_GT(iosched(0), 0);
    }
    EXPECT_EQ(arrived, Log{SIGUSR1});
}

TEST_F(Signals, FromAnotherProcessEndTheWaitBeforeTheCallback) {
    (void)catchSignal(SIGUSR1, record);
    const ReportedChild sender(signalWhenAsleep(SIGUSR1));
    errno = 0;
    EXPECT_EQ(iosched(-1), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_TRUE(arrived.empty());
    sigset_t pending;
    EXPECT_EQ(::sigpending(&pending), 0);
    EXPECT_EQ(sigismember(&pending, SIGUSR1), 0);  // its handler has run in the wait
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(arrived, Log{SIGUSR1});
    EXPECT_EQ(sender.await(), 0);
    // A handler past the library ends it too; and nothing else here, not the sender's end.
    ASSERT_NE(::signal(SIGUSR2, other), SIG_ERR);
    (void)catchSignal(SIGCHLD, SIG_DFL);
    EXPECT_GT(signalWhenAsleep(SIGUSR2), 0);
    EXPECT_EQ(iosched(20), -1);
}

// The wait inside the callback is interrupted by a signal that the dispatch has already gone past,
// and no pass follows inside: its byte is drained, its mark must still get its callback.
TEST_F(Signals, AMarkLeftByANestedPassIsNotDrained) {
    (void)catchSignal(SIGUSR1, record);
    (void)catchSignal(SIGXFSZ, record);
    std::unique_ptr<ReportedChild> sender;
    onFirst = [&] {
        EXPECT_EQ(iosched(-1), 1);  // finds the byte of SIGXFSZ itself, and drains it
        sender = std::make_unique<ReportedChild>(signalWhenAsleep(SIGUSR1));
        EXPECT_EQ(iosched(-1), -1);
    };
    raiseHere(SIGXFSZ);
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(arrived, Log{SIGXFSZ});
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(arrived, (Log{SIGXFSZ, SIGUSR1}));
    EXPECT_EQ(sender->await(), 0);
}

TEST_F(Signals, EnableSignalsRunsCallbacksAtOnceAndKeepsErrno) {
    (void)catchSignal(SIGUSR1, [](int sig) {
        record(sig);
        errno = EPROTO;
    });
    EXPECT_EQ(iosched(0), 0);
    EXPECT_EQ(enableSignals(), 0);
    errno = ENOENT;
    raiseHere(SIGUSR1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(arrived, Log{SIGUSR1});
    EXPECT_EQ(disableSignals(), 0);
    raiseHere(SIGUSR1);
    EXPECT_EQ(arrived, Log{SIGUSR1});
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(arrived, (Log{SIGUSR1, SIGUSR1}));
}

TEST_F(Signals, ACallbackThatFaultsReachesTheProgramsOwnHandler) {
    const int status = inChild([] {
        (void)::signal(SIGSEGV, [](int) { ::_exit(7); });
        (void)catchSignal(SIGUSR1, [](int) {
            (void)::raise(SIGSEGV);
            ::_exit(8);  // reached only where the fault is held back
        });
        (void)enableSignals();
        raiseHere(SIGUSR1);
    });
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

sigset_t maskNow() {
    sigset_t mask;
    (void)::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
}

// By a pass that has something to serve, and so need not touch the mask for its own sake.
TEST_F(Signals, AMaskSetPastTheLibraryIsPutBack) {
    (void)catchSignal(SIGUSR1, record);
    TestPipe pipe;
    bool blocked = true;
    pipe.input([&] {
        const sigset_t mask = maskNow();
        blocked = sigismember(&mask, SIGUSR1) == 1 && sigismember(&mask, SIGUSR2) == 0;
    });
    pipe.fill();
    sigset_t wrong;
    (void)sigemptyset(&wrong);
    for (int turn = 0; turn < 40; ++turn) {  // the caught one unblocked; then another one blocked
        (void)(turn % 2 == 0 ? sigdelset : sigaddset)(&wrong, SIGUSR2);
        ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &wrong, nullptr), 0);
        EXPECT_EQ(iosched(-1), 1);
        EXPECT_TRUE(blocked);
    }
    for (int pass = 0; pass < 5000; ++pass) {
        EXPECT_EQ(iosched(-1), 1);
        EXPECT_TRUE(blocked);
    }
    (void)catchSignal(SIGUSR1, [](int) { (void)iosched(0); });
    EXPECT_EQ(enableSignals(), 0);
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_TRUE(blocked) << "let in by the program, held back by the next pass";
    EXPECT_EQ(enableSignals(), 0);
    raiseHere(SIGUSR1);  // a pass inside the handler, whose return lets signals in again
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_TRUE(blocked);
    ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &wrong, nullptr), 0);
    for (int pass = 0; pass < 65; ++pass)
        EXPECT_EQ(iosched(-1), 1);
    EXPECT_TRUE(blocked);
}

TEST_F(Signals, AFullPipeLosesNothing) {
    static int calls = 0;
    (void)catchSignal(SIGUSR1, [](int) { ++calls; });
    (void)catchSignal(SIGUSR2, record);
    holdSignalCallbacks(true);
    (void)enableSignals();
    for (int i = 0; i < 70000; ++i)  // a byte each; a pipe holds 65536
        raiseHere(SIGUSR1);
    raiseHere(SIGUSR2);
    (void)disableSignals();
    holdSignalCallbacks(false);
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(arrived, Log{SIGUSR2});
    EXPECT_EQ(iosched(0), 0);
}

TEST_F(Signals, AChildWithoutAPipeLosesNoSignal) {
    // While the hook's limit holds, the child cannot open anything.
    ASSERT_EQ(registerFork(
                  [](void *, int phase, int) {
                      rlimit now{};
                      (void)::getrlimit(RLIMIT_NOFILE, &now);
                      now.rlim_cur = phase == FORK_PREPARE ? 3 : now.rlim_max;
                      if (phase != FORK_CHILD) (void)::setrlimit(RLIMIT_NOFILE, &now);
                  },
                  nullptr),
              0);
    (void)catchSignal(SIGUSR1, record);
    const int before = countOpenDescriptors();
    const pid_t pid = ioFork();
    if (pid != 0) {
        EXPECT_EQ(waitForChild(pid), 0);
        return;
    }
    onFirst = [] { EXPECT_EQ(msleep(30), 0); };  // waits in a callback that no descriptor caused
    raiseHere(SIGUSR1);
    EXPECT_TRUE(runUntil([] { return arrived.size() == 1; }));
    raiseHere(SIGUSR1);
    EXPECT_EQ(iosched(-1), 0);  // delivered in this pass: a mark without a byte
    EXPECT_EQ(iopeek(), 1);
    EXPECT_EQ(arrived.size(), 1U);
    const DescriptorLimit enough(1024);
    EXPECT_CHILD_OK([] {
        const int open = countOpenDescriptors();
        EXPECT_EQ(ExitSched() + iosched(0), 0);
        EXPECT_LE(countOpenDescriptors(), open) << "a pipe after the end";
    });
    EXPECT_EQ(iosched(-1), 1);  // makes the pipe, which tells of the mark
    EXPECT_EQ(arrived.size(), 2U);
    for (int pass = 0; pass < 4; ++pass)  // and no other
        EXPECT_EQ(iosched(0), 0);
    EXPECT_LE(countOpenDescriptors(), before);
    ::_exit(HasFailure() ? 1 : 0);
}

}  // namespace
