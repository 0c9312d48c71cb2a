#include "support/in_child.h"
#include "support/loop.h"

#include <cstring>
#include <memory>
#include <string>
#include <sys/time.h>
#include <vector>

namespace {

// What is left of the interval timer, rounded up; 0 when it is not armed.
int64_t armedMs() {
    itimerval value{};
    EXPECT_EQ(::getitimer(ITIMER_REAL, &value), 0);
    return value.it_value.tv_sec * 1000 + (value.it_value.tv_usec + 999) / 1000;
}

using Timers = LoopTest;
using TimerRun = LoopTest;

TEST_F(Timers, FireByExpiryAndTiesInStartingOrder) {
    std::string order;
    std::vector<std::unique_ptr<TestTimer>> timers;
    for (const int64_t ms : {300, 100, 200, 0, -5}) {
        const char name = static_cast<char>('a' + timers.size());
        timers.push_back(std::make_unique<TestTimer>(ms, [&order, name] { order += name; }));
    }
    for (const auto &timer : timers)
        startTimer(timer.get());
    EXPECT_TRUE(runUntil([&] { return order.size() == 5; }));
    EXPECT_EQ(order, "debca");
    // Whatever the clock does meanwhile, of equals the first started is the first to fire.
    order.clear();
    for (const auto &timer : timers) {
        timer->interval = 10;
        startTimer(timer.get());
    }
    EXPECT_TRUE(runUntil([&] { return order.size() == 5; }));
    EXPECT_EQ(order, "abcde");
}

TEST_F(Timers, StopAndRestartReportWhetherItRan) {
    TestTimer timer(1000), later(2000);
    EXPECT_EQ(stopTimer(&timer), 0);
    EXPECT_EQ(armedMs(), 0);
    startTimer(&timer);
    startTimer(&later);
    EXPECT_LE(armedMs(), 1000);
    EXPECT_EQ(restartTimer(&timer), 1);
    EXPECT_EQ(stopTimer(&timer), 1);
    EXPECT_GT(armedMs(), 1000);
    EXPECT_EQ(stopTimer(&timer), 0);
    EXPECT_EQ(stopTimer(&later), 1);
    EXPECT_EQ(armedMs(), 0);
    timer.interval = 1;
    EXPECT_EQ(restartTimer(&timer), 0);
    EXPECT_TRUE(runUntil([&] { return timer.fired == 1; }));
}

TEST_F(Timers, StopAllForgetsThemAll) {
    TestTimer first(0), second(1);
    startTimer(&first);
    startTimer(&second);
    stopAllTimers();
    EXPECT_EQ(armedMs(), 0);
    (void)iosched(0);
    (void)iosched(0);  // the signal that the first had sent finds nothing due
    EXPECT_EQ(first.fired, 0);
    startTimer(&second);
    EXPECT_EQ(stopTimer(&first), 0);
    EXPECT_TRUE(runUntil([&] { return second.fired == 1; }));
}

TEST_F(Timers, StartingARunningOneEndsTheProcess) {
    TestTimer other(5000), timer(5000);
    startTimer(&other);
    EXPECT_EQ(WTERMSIG(inChild([&] {
                  startTimer(&timer);
                  startTimer(&timer);
              })),
              SIGABRT);
}

TEST_F(Timers, VeryLongIntervalsNeitherWrapNorDisturb) {
    TestTimer farthest(INT64_MAX), far(int64_t{1} << 50), backwards(INT64_MIN), soon(5);
    soon.func = nullptr;  // expires silently
    for (TestTimer *timer : {&farthest, &far, &backwards, &soon})
        startTimer(timer);
    EXPECT_TRUE(runUntil([&] { return backwards.fired == 1; }));
    EXPECT_EQ(msleep(10), 0);
    EXPECT_EQ(farthest.fired + far.fired, 0);
    EXPECT_GT(armedMs(), 0);  // for as long as the system can express
    EXPECT_EQ(stopTimer(&soon), 0);
}

TEST_F(Timers, FireInAForkedChildToo) {
    TestTimer due(0), later(20);
    startTimer(&due);
    startTimer(&later);
    const pid_t pid = ioFork();
    if (pid == 0) {
        EXPECT_TRUE(runUntil([&] { return due.fired == 1 && later.fired == 1; }));
        ::_exit(HasFailure() ? 1 : 0);
    }
    EXPECT_EQ(ReportedChild(pid).await(), 0);
    EXPECT_TRUE(runUntil([&] { return due.fired == 1 && later.fired == 1; }));
}

TEST_F(TimerRun, CallbackMayFreeRestartStartAndStop) {
    auto *freed = new SchedTimer{};
    freed->func = [](SchedTimer *timer) { delete timer; };
    TestTimer changing(0), doomed(0), after(0);
    changing.onFire = [&] {
        EXPECT_EQ(stopTimer(&changing), 0);  // off the list already
        (void)restartTimer(&doomed);
        EXPECT_EQ(stopTimer(&doomed), 1);
        (void)restartTimer(&after);
        if (changing.fired < 3) startTimer(&changing);
    };
    startTimer(freed);
    startTimer(&changing);
    startTimer(&doomed);
    EXPECT_TRUE(runUntil([&] { return changing.fired == 3 && after.fired > 0; }));
    EXPECT_EQ(doomed.fired, 0);
}

TEST_F(TimerRun, LeavesTheIntervalTimerAloneUntilItsEnd) {
    TestTimer other(5000), started(3000);
    TestTimer timer(1, [&] {
        EXPECT_EQ(armedMs(), 0);  // it has just fired
        startTimer(&other);
        startTimer(&started);
        EXPECT_EQ(armedMs(), 0);
        EXPECT_EQ(stopTimer(&started), 1);
        EXPECT_EQ(armedMs(), 0);
    });
    startTimer(&timer);
    EXPECT_TRUE(runUntil([&] { return timer.fired == 1; }));
    EXPECT_GT(armedMs(), 3000);
    EXPECT_EQ(stopTimer(&other), 1);
    EXPECT_EQ(armedMs(), 0);
}

TEST_F(TimerRun, ARestartWithZeroDoesNotKeepTheRunGoing) {
    TestPipe pipe;
    pipe.input([&] { pipe.drain(); });
    TestTimer timer(0);
    timer.onFire = [&] {
        if (pipe.inputs == 0) restartTimer(&timer);
    };
    startTimer(&timer);
    pipe.fill();
    EXPECT_TRUE(runUntil([&] { return pipe.inputs == 1; }));
    EXPECT_TRUE(runUntil([&] { return stopTimer(&timer) == 0; }));
}

// The worst that could happen here is a wait that never ends: the interval timer is not armed while
// a run is active, and the wait needs it.
TEST_F(TimerRun, ACallbackMayWaitSeveralLevelsDeep) {
    std::vector<std::unique_ptr<TestTimer>> timers;
    int depth = 0, deepest = 0;
    for (int level = 0; level < 6; ++level) {
        timers.push_back(std::make_unique<TestTimer>(level, [&] {
            deepest = std::max(deepest, ++depth);
            EXPECT_EQ(msleep(60), 0);
            --depth;
        }));
        startTimer(timers.back().get());
    }
    EXPECT_TRUE(runUntil([&] { return timers.back()->fired == 1 && depth == 0; }));
    EXPECT_GT(deepest, 1);
    EXPECT_EQ(armedMs(), 0);
}

// Each of the ways in which the held-back interval timer may change between two waits of a callback.
TEST_F(TimerRun, TimersChangedBetweenWaitsOfACallbackStillFire) {
    TestTimer late(100000), early(3), stopped(2);
    TestTimer timer(1, [&] {
        startTimer(&late);
        EXPECT_EQ(msleep(2), 0);
        startTimer(&early);  // a new head, after a pass had armed the old one
        EXPECT_TRUE(runUntil([&] { return early.fired == 1; }));
        startTimer(&stopped);
        EXPECT_EQ(stopTimer(&stopped), 1);
        EXPECT_EQ(msleep(2), 0);
        EXPECT_EQ(stopTimer(&late), 1);
        stopAllTimers();
        EXPECT_EQ(msleep(2), 0);
        startTimer(&early);  // left to the end of the run
    });
    startTimer(&timer);
    EXPECT_TRUE(runUntil([&] { return timer.fired == 1 && early.fired == 2; }));
    EXPECT_EQ(late.fired + stopped.fired, 0);
    EXPECT_EQ(armedMs(), 0);
}

// A run in which a callback waited must not arm by the time at which it began.
TEST_F(TimerRun, AWaitInsideDoesNotPutOffTheNextTimer) {
    TestTimer next(150);
    TestTimer timer(1, [&] {
        startTimer(&next);
        EXPECT_EQ(msleep(100), 0);
    });
    startTimer(&timer);
    EXPECT_TRUE(runUntil([&] { return timer.fired == 1; }));
    EXPECT_LE(armedMs(), 50);
    EXPECT_TRUE(runUntil([&] { return next.fired == 1; }));
}

TEST_F(TimerRun, AChildForkedInACallbackMayWaitThere) {
    std::unique_ptr<ReportedChild> child;
    TestTimer inherited(30);
    TestTimer timer(1, [&] {
        EXPECT_EQ(msleep(1), 0);  // has armed the interval timer, which the child does not inherit
        const pid_t pid = ioFork();
        if (pid != 0) {
            child = std::make_unique<ReportedChild>(pid);
            return;
        }
        EXPECT_EQ(msleep(5), 0);
        EXPECT_TRUE(runUntil([&] { return inherited.fired == 1; }));
        ::_exit(HasFailure() ? 1 : 0);
    });
    startTimer(&inherited);
    startTimer(&timer);
    EXPECT_TRUE(runUntil([&] { return inherited.fired == 1; }));
    EXPECT_EQ(child->await(), 0);
}

TEST_F(TimerRun, PeekingInACallbackSeesWhatIsDue) {
    TestTimer due(0);
    TestTimer timer(1, [&] {
        startTimer(&due);
        EXPECT_EQ(iopeek(), 1);
    });
    startTimer(&timer);
    EXPECT_TRUE(runUntil([&] { return due.fired == 1; }));
}

}  // namespace
