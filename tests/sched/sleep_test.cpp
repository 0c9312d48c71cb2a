#include "support/loop.h"

#include <cerrno>
#include <string>

namespace {

using Sleep = LoopTest;

TEST_F(Sleep, LastsAsLongAsAskedWhileTheLoopGoesOn) {
    TestPipe pipe;
    pipe.input([&] { pipe.drain(); });
    TestTimer writer(5, [&] { pipe.fill(); });
    static int signals = 0;
    (void)catchSignal(SIGUSR1, [](int) { ++signals; });
    TestTimer sender(10, [] { (void)::kill(::getpid(), SIGUSR1); });
    startTimer(&writer);
    startTimer(&sender);
    const int64_t start = getAbsMonoTime();
    EXPECT_EQ(msleep(50), 0);
    EXPECT_GE(getAbsMonoTime() - start, 50);  // neither signal nor descriptor cuts it short
    EXPECT_TRUE(runUntil([&] { return pipe.inputs == 1 && signals == 1; }));
    const int64_t others = getAbsMonoTime();
    EXPECT_EQ(ZORsleep(1), 0U);
    EXPECT_EQ(ZORusleep(5999), 0);
    EXPECT_GE(getAbsMonoTime() - others, 1005);
}

TEST_F(Sleep, OfZeroRunsOnePass) {
    TestPipe pipe;
    pipe.input();  // stays ready
    pipe.fill();
    EXPECT_EQ(msleep(0), 0);
    EXPECT_EQ(pipe.inputs, 1);
    EXPECT_EQ(ZORsleep(0), 0U);
    EXPECT_EQ(pipe.inputs, 2);
    pipe.drain();
    TestTimer timer(200);
    startTimer(&timer);
    EXPECT_EQ(msleep(0), 0);
    EXPECT_EQ(iopeek(), 0);  // nor has it waited until the timer came
}

// 4294968 s are 704 ms in 32 bits of milliseconds.
TEST_F(Sleep, OfManyDaysIsNotCutToAnInstant) {
    const pid_t pid = ioFork();
    if (pid == 0) {
        (void)ZORsleep(4294968);
        ::_exit(0);
    }
    const ReportedChild child(pid);
    EXPECT_EQ(msleep(1000), 0);
    EXPECT_EQ(child.waitStatus, -1);
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    EXPECT_EQ(child.await(), SIGKILL);
}

TEST_F(Sleep, OuterReturnsAfterInner) {
    std::string order;
    TestTimer inner(1, [&] {
        EXPECT_EQ(msleep(40), 0);
        order += 'i';
    });
    startTimer(&inner);
    EXPECT_EQ(msleep(10), 0);
    order += 'o';
    EXPECT_EQ(order, "io");
}

TEST_F(Sleep, PauseEndsWithASignalBeforeItsCallback) {
    TestPipe pipe;
    pipe.input([&] {
        pipe.drain();
        if (pipe.inputs < 3) pipe.fill();
    });
    pipe.fill();
    static int signals = 0;
    (void)catchSignal(SIGUSR1, [](int) { ++signals; });
    const ReportedChild sender(signalWhenAsleep(SIGUSR1));
    errno = 0;
    EXPECT_EQ(ZORpause(), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(pipe.inputs, 3);
    EXPECT_EQ(signals, 0);
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(signals, 1);
}

}  // namespace
