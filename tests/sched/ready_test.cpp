#include "sched/ready_internal.h"
#include "support/in_child.h"
#include "support/loop.h"

#include <array>
#include <sys/epoll.h>

namespace {

using Parked = LoopTest;

TEST_F(Parked, IdleDescriptorsAreParkedAndBusyOnesAreNot) {
    parkingPolicy = Parking::kByCost;
    std::array<TestPipe, 40> pipes;
    for (TestPipe &pipe : pipes)
        pipe.input();                                // once filled, ready in every pass
    Watch file(::open("/proc/self/exe", O_RDONLY));  // always ready, and nothing for epoll
    file.input();
    pipes[7].fill();
    for (int pass = 0; pass < 100; ++pass)
        EXPECT_EQ(iosched(-1), 2);
    EXPECT_TRUE(parking);
    for (TestPipe &pipe : pipes)
        pipe.fill();
    for (int pass = 0; pass < 100; ++pass)
        EXPECT_EQ(iosched(-1), 41);
    EXPECT_FALSE(parking);
    EXPECT_EQ(pipes[7].inputs, 200);
    EXPECT_EQ(pipes[39].inputs, 100);
}

TEST_F(Parked, WhatIsClosedBehindTheLoopsBackIsNoticed) {
    parkingPolicy = Parking::kAlways;
    (void)::close(STDIN_FILENO);  // so that the pipe is the first that a look comes to
    TestPipe pipe, other;
    const int heldOpen = ::dup(pipe.fd);  // so that the file stays in the set
    pipe.input();
    EXPECT_EQ(iosched(0), 0);
    EXPECT_EQ(::close(pipe.fd), 0);
    EXPECT_EQ(iosched(60), 1);  // reported as poll reports it, and nobody called
    EXPECT_EQ(pipe.inputs, 0);
    EXPECT_EQ(::dup2(other.fd, pipe.fd), pipe.fd);
    pipe.fill();  // the former file must not count any more
    EXPECT_EQ(iosched(0), 0);
    other.fill();
    EXPECT_TRUE(runUntil([&] { return pipe.inputs > 0; }));
    (void)::close(heldOpen);
}

TEST_F(Parked, AFileRegisteredAnewUnderItsNumberIsServedAtOnce) {
    parkingPolicy = Parking::kAlways;
    TestPipe pipe, other;
    pipe.input();
    EXPECT_EQ(iosched(0), 0);
    EXPECT_EQ(::dup2(other.fd, pipe.fd), pipe.fd);
    pipe.input();
    other.fill();
    EXPECT_EQ(iosched(0), 1);
}

TEST_F(Parked, AnotherSetInItsPlaceIsNotBelieved) {
    parkingPolicy = Parking::kAlways;
    TestPipe pipe;
    pipe.input();
    pipe.fill();
    EXPECT_EQ(iosched(0), 1);
    const int foreign = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{EPOLLIN, {.u64 = 0x7fffffff}};
    ASSERT_EQ(::epoll_ctl(foreign, EPOLL_CTL_ADD, pipe.fd, &event), 0);
    ASSERT_EQ(::dup2(foreign, parkingFd), parkingFd);
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(pipe.inputs, 2);
    (void)::close(foreign);
}

TEST_F(Parked, MoreThanAreComparedInOneGo) {
    parkingPolicy = Parking::kAlways;
    const DescriptorLimit limit(4096);
    ASSERT_EQ(ResizeSchedTable(), 0);
    std::array<TestPipe, 1100> pipes;
    for (TestPipe &pipe : pipes) {
        pipe.input();
        pipe.fill();
    }
    for (int pass = 0; pass < 3; ++pass)
        EXPECT_EQ(iosched(0), 1100);
}

// A child of a plain fork makes sets of its own in place of those that it has from its parent, and
// leaves its own files alone where it has closed everything.
TEST_F(Parked, AChildReplacesItsParentsSetsAndClosesNothingElse) {
    parkingPolicy = Parking::kAlways;
    TestPipe pipe;
    pipe.input();
    (void)iosched(0);
    const int open = countOpenDescriptors();
    for (const bool closesAll : {false, true}) {
        EXPECT_CHILD_OK([=] {
            if (closesAll) (void)::close_range(3, ~0U, 0);
            const int own = closesAll ? ::open("/dev/null", O_RDONLY) : -1;
            for (int last = own; closesAll && last < open + 10;)
                last = ::dup(own);
            const int before = countOpenDescriptors();
            for (int look = 0; look < 2; ++look) {
                EXPECT_EQ(iopeek(), closesAll ? 1 : 0);
                EXPECT_EQ(countOpenDescriptors(), before + (closesAll ? 2 : 0));
                EXPECT_TRUE(parking);
            }
        });
    }
}

// Room for the self-pipe, then for the signalfd too; the set of parked ones always comes too late.
TEST(ParkedNowhere, WithoutASetTheLoopPolls) {
    for (const rlim_t room : {2U, 3U}) {
        EXPECT_CHILD_OK([=] {
            parkingPolicy = Parking::kAlways;
            static int signals = 0;
            TestPipe pipe;
            const DescriptorLimit limit(lowestFreeDescriptor() + room);
            startLibrary();
            pipe.input([&] { pipe.drain(); });
            (void)catchSignal(SIGUSR1, [](int) { ++signals; });
            pipe.fill();
            ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
            EXPECT_EQ(iosched(-1), 2);
            EXPECT_EQ(pipe.inputs + signals, 2);
            EXPECT_EQ(msleep(1), 0);
            EXPECT_FALSE(parking);
        });
    }
}

// Looks for closed descriptors cut a wait, but not for ever: a server with nothing to do sleeps.
TEST_F(Parked, AWaitIsCutForOneLapOnly) {
    parkingPolicy = Parking::kAlways;
    TestPipe pipe;
    pipe.input();
    (void)iosched(0);
    rusage before{}, after{};
    (void)::getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(iosched(1), 0);
    (void)::getrusage(RUSAGE_SELF, &after);
    EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 4);
}

// poll goes on when the process was stopped in it. A stop signal needs a process group of its own.
TEST(ParkedWait, OutlivesAStop) {
    TestPipe pipe;
    const pid_t loop = ::fork();
    if (loop == 0) {
        (void)::setpgid(0, 0);
        startLibrary();
        parkingPolicy = Parking::kAlways;
        pipe.input();
        ::_exit(iosched(-1) == 1 && pipe.inputs == 1 ? 0 : 1);
    }
    for (const auto &[state, sig] : {std::pair{'S', SIGTSTP}, {'T', SIGCONT}}) {
        awaitState(loop, state);
        ASSERT_EQ(::kill(loop, sig), 0);
    }
    awaitState(loop, 'S');
    pipe.fill();
    EXPECT_EQ(waitForChild(loop), 0);
}

}  // namespace
