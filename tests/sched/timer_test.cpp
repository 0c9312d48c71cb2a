#include "support/alloc_wrap.h"
#include "support/in_child.h"
#include "support/loop.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <random>
#include <sys/time.h>
#include <vector>

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec *now);
int __real_setitimer(int which, const itimerval *value, itimerval *old);
int __wrap_clock_gettime(clockid_t clock, timespec *now);
int __wrap_setitimer(int which, const itimerval *value, itimerval *old);
}

namespace {

// A clock that stands until it is moved, and an interval timer that goes by it. -1: the system's.
int64_t clockMs = -1;
int64_t alarmAtMs = 0;  // 0: not armed
int armings = 0;

int64_t armedMs() {
    itimerval value{};
    EXPECT_EQ(::getitimer(ITIMER_REAL, &value), 0);
    return value.it_value.tv_sec * 1000 + (value.it_value.tv_usec + 999) / 1000;
}

}  // namespace

int __wrap_clock_gettime(clockid_t clock, timespec *now) {
    if (clockMs < 0 || clock != CLOCK_MONOTONIC) return __real_clock_gettime(clock, now);
    *now = {clockMs / 1000, clockMs % 1000 * 1000000};
    return 0;
}

int __wrap_setitimer(int which, const itimerval *value, itimerval *old) {
    if (clockMs < 0) return __real_setitimer(which, value, old);
    EXPECT_EQ(value->it_interval.tv_sec + value->it_interval.tv_usec, 0);
    const int64_t ms = value->it_value.tv_sec * 1000 + value->it_value.tv_usec / 1000;
    alarmAtMs = ms == 0 ? 0 : clockMs + ms;
    ++armings;
    return 0;
}

namespace {

// Random timers against a sorted vector, with callbacks that start, stop, wait and run passes.
class TimerModel : public LoopTest {
protected:
    struct Running {
        int64_t expires;
        int id;
    };

    TimerModel() {
        for (int i = 0; i < kTimers; ++i)
            timers_.emplace_back(0, [this, i] { onFire(i); });
    }
    void SetUp() override {
        LoopTest::SetUp();
        clockMs = 1000;
    }
    void TearDown() override { clockMs = -1; }

    int pick(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }
    TestTimer &timer(int id) { return timers_[static_cast<size_t>(id)]; }
    bool isFirst(int id) const { return !running_.empty() && running_.front().id == id; }
    bool remove(int id) {
        return std::erase_if(running_, [id](const Running &r) { return r.id == id; }) != 0;
    }
    void insert(int id) {
        const int64_t expires = clockMs + std::max<int64_t>(timer(id).interval, 0);
        const auto later = std::find_if(running_.begin(), running_.end(),
                                        [&](const Running &r) { return r.expires > expires; });
        running_.insert(later, {expires, id});
    }

    // After a call: the interval timer was set once if it had to be, and else left alone.
    void expectArmings(int before, bool mustArm) const {
        if (depth_ > 0) mustArm = false;  // the run does it at its end
        const bool isDue = !running_.empty() && running_.front().expires <= clockMs;
        ASSERT_EQ(armings - before, mustArm && !isDue ? 1 : 0);
        const int64_t expected = running_.empty() ? 0 : running_.front().expires;
        ASSERT_EQ(alarmAtMs, mustArm && !isDue ? expected : alarmAtMs);
    }

    void step() {
        const int id = pick(kTimers), before = armings;
        const bool wasFirst = isFirst(id);
        if (starved_ || pick(16) == 0) allocationsUntilFailure = 0;
        const int what = pick(depth_ > 3 ? 11 : 13);
        if (what < 8) {
            const bool wasRunning = remove(id);
            timer(id).interval = pick(3) == 0 ? 20 : pick(40) - 2;
            insert(id);
            if (wasRunning || pick(2) == 0) {
                ASSERT_EQ(restartTimer(&timer(id)), wasRunning ? 1 : 0);
            } else {
                startTimer(&timer(id));
            }
            expectArmings(before, wasFirst || isFirst(id));
        } else if (what < 10) {
            ASSERT_EQ(stopTimer(&timer(id)), remove(id) ? 1 : 0);
            expectArmings(before, wasFirst);
        } else if (what == 10) {
            if (pick(20) == 0) stopAll();
            if (pick(200) == 0) moveToChild();
        } else {
            passTime(pick(30));
        }
    }

    void stopAll() {
        running_.clear();
        stopAllTimers();
        ASSERT_EQ(alarmAtMs, 0);
    }

    // The model goes on in the child, which has its parent's timers and no interval timer.
    void moveToChild() {
        alarmAtMs = 0;
        const pid_t pid = ioFork();
        if (pid != 0) ::_exit(waitForChild(pid, 100000) == 0 ? 0 : 1);
        expectArmed();
    }

    // Outside all runs the interval timer is set for the first timer that is not due.
    void expectArmed() const {
        const bool waits = depth_ == 0 && !running_.empty() && running_.front().expires > clockMs;
        ASSERT_EQ(alarmAtMs, waits ? running_.front().expires : alarmAtMs);
    }

    // Time goes by, and passes serve what it brings.
    void passTime(int ms) {
        clockMs += ms;
        for (int pass = 0; pass < 3; ++pass) {
            const int before = armings;
            (void)iopeek();  // arms what a run holds back, and disturbs nothing
            ASSERT_TRUE(depth_ > 0 || armings == before);
            if (alarmAtMs != 0 && alarmAtMs <= clockMs) {
                alarmAtMs = 0;
                ASSERT_EQ(::kill(::getpid(), SIGALRM), 0);
            }
            (void)iosched(0);
        }
        expectArmed();
    }

    void onFire(int id) {
        ASSERT_TRUE(isFirst(id)) << id;
        ASSERT_LE(running_.front().expires, clockMs);
        running_.erase(running_.begin());
        ASSERT_EQ(stopTimer(&timer(id)), 0);
        timer(id).next = &timer(0);  // what the function does to its record is its own affair
        timer(id).expires = 1;
        ++depth_;
        for (int steps = pick(3); steps > 0 && !HasFatalFailure(); --steps)
            step();
        --depth_;
    }

    static constexpr int kTimers = 70;
    std::minstd_rand random_{7};
    std::deque<TestTimer> timers_;
    std::vector<Running> running_;  // by expiry, ties in the order of starting
    int depth_ = 0;                 // callbacks that are running
    bool starved_ = true;           // no memory for more timers than the first few
};

TEST_F(TimerModel, FireInOrderAndArmNoMoreThanNeeded) {
    for (int i = 0; i < 60000 && !HasFatalFailure(); ++i) {
        starved_ = i < 30000;
        step();
        if (i % 50 != 0) continue;
        // A run arms by the time at which it began, so what has become due since may wait a little.
        for (int tries = 0; !running_.empty() && running_.front().expires <= clockMs; ++tries) {
            ASSERT_LT(tries, 1000);
            passTime(static_cast<int>(std::max<int64_t>(alarmAtMs - clockMs, 0)));
        }
        ASSERT_TRUE(running_.empty() || alarmAtMs >= running_.front().expires);
    }
}

using Timers = LoopTest;

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
    startTimer(&farthest);
    EXPECT_GT(armedMs(), int64_t{1} << 40);  // for as long as the system can express
    for (TestTimer *timer : {&far, &backwards, &soon})
        startTimer(timer);
    EXPECT_TRUE(runUntil([&] { return backwards.fired == 1; }));
    EXPECT_EQ(msleep(10), 0);
    EXPECT_EQ(farthest.fired + far.fired, 0);
    EXPECT_EQ(stopTimer(&soon), 0);
}

TEST_F(Timers, MicrosecondsAreArmedAsSuch) {
    TestTimer timer(1999);
    startTimer(&timer);
    EXPECT_GT(armedMs(), 1900);
    EXPECT_LE(armedMs(), 1999);
}

// In a run, passes and peeks arm what the run holds back; nothing else answers for a timer here.
TEST_F(Timers, InARunPeeksSeeWhatIsDueAndWhatIsStoppedIsNotArmed) {
    TestTimer stopped(5000), due(0);
    TestTimer timer(0, [&] {
        (void)iosched(0);  // drains the pipe
        EXPECT_EQ(iopeek(), 0);
        startTimer(&due);
        EXPECT_EQ(iopeek(), 1);
        (void)iosched(0);
        startTimer(&stopped);
        (void)iosched(0);
        EXPECT_GT(armedMs(), 0);
        EXPECT_EQ(stopTimer(&stopped), 1);
    });
    startTimer(&timer);
    EXPECT_TRUE(runUntil([&] { return timer.fired == 1; }));
    EXPECT_EQ(armedMs(), 0);
}

}  // namespace
