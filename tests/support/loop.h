// What the tests of the loop share: the library started, function objects as callbacks, pipes, and
// waiting for a condition with a deadline.
#pragma once

#include "iosched/procs.h"
#include "iosched/sched.h"
#include "support/in_child.h"

#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <signal.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

inline void startLibrary() {
    char msg[128];
    ASSERT_EQ(InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, msg, sizeof msg), 0) << msg;
}

class LoopTest : public testing::Test {
protected:
    void SetUp() override { startLibrary(); }
};

// Runs passes until the condition holds. False when it does not within a minute.
template <class Condition>
bool runUntil(Condition condition) {
    const int64_t deadline = getAbsMonoTime() + 60000;
    while (!condition()) {
        if (getAbsMonoTime() > deadline) return false;
        (void)iosched(1);
    }
    return true;
}

// A child's end as the loop reports it. To be followed before the next pass after the fork.
struct ReportedChild {
    explicit ReportedChild(pid_t pid) {
        EXPECT_EQ(registerChild(pid, &ReportedChild::done, this), 0);
    }
    static void done(void *arg, const ChildStatus *status) {
        static_cast<ReportedChild *>(arg)->waitStatus = buildStatus(status);
    }
    int await() const {
        EXPECT_TRUE(runUntil([this] { return waitStatus != -1; }));
        return waitStatus;
    }

    int waitStatus = -1;  // until it has ended
};

// Waits for a state of a process as in /proc: S sleeps (this library does in poll alone), T
// stopped.
inline void awaitState(pid_t pid, char state) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    std::string stat;
    do {
        (void)ioYield();
        std::getline(std::ifstream(path), stat);
    } while (!stat.empty() && stat[stat.rfind(')') + 2] != state);
}

// A process that sends this one a signal as soon as it sleeps.
inline pid_t signalWhenAsleep(int sig) {
    const pid_t target = ::getpid();
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    awaitState(target, 'S');
    ::_exit(::kill(target, sig));
}

// With this as the limit of descriptors no further one can be opened.
inline rlim_t lowestFreeDescriptor() {
    int fd = 0;
    while (::fcntl(fd, F_GETFD) != -1)
        ++fd;
    return static_cast<rlim_t>(fd);
}

// The soft limit of descriptors; put back when it goes out of scope.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t soft) {
        ::getrlimit(RLIMIT_NOFILE, &saved_);
        set(soft);
    }
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &saved_); }
    DescriptorLimit(const DescriptorLimit &) = delete;
    DescriptorLimit &operator=(const DescriptorLimit &) = delete;
    void set(rlim_t soft) {
        const rlimit limit{soft, saved_.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    }

private:
    rlimit saved_;
};

// A descriptor whose callbacks are counted and handed on to function objects.
struct Watch {
    explicit Watch(int descriptor) : fd(descriptor) {}
    ~Watch() {
        (void)registerInput(fd, nullptr, nullptr);
        (void)registerOutput(fd, nullptr, nullptr);
    }
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    void input(std::function<void()> action = {}) {
        onInput = std::move(action);
        ASSERT_EQ(registerInput(fd, &Watch::inputFunc, this), 0);
    }
    void output(std::function<void()> action = {}) {
        onOutput = std::move(action);
        ASSERT_EQ(registerOutput(fd, &Watch::outputFunc, this), 0);
    }
    static void inputFunc(void *arg, int fd) {
        auto *watch = static_cast<Watch *>(arg);
        EXPECT_EQ(fd, watch->fd);
        ++watch->inputs;
        if (watch->onInput) watch->onInput();
    }
    static void outputFunc(void *arg, int fd) {
        auto *watch = static_cast<Watch *>(arg);
        EXPECT_EQ(fd, watch->fd);
        ++watch->outputs;
        if (watch->onOutput) watch->onOutput();
    }

    int fd;
    int inputs = 0;
    int outputs = 0;
    std::function<void()> onInput;
    std::function<void()> onOutput;
};

// A pipe with a watched read end.
struct TestPipe : Watch {
    explicit TestPipe(int flags = O_NONBLOCK | O_CLOEXEC) : Watch(-1) {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, flags), 0);
        fd = ends[0];
        writeEnd = ends[1];
    }
    ~TestPipe() {
        closeWriteEnd();
        ::close(fd);
    }
    void fill() const { ASSERT_EQ(::write(writeEnd, "x", 1), 1); }
    void drain() const {
        char byte;
        while (::read(fd, &byte, 1) > 0) {
        }
    }
    void closeWriteEnd() {
        if (writeEnd >= 0) ::close(writeEnd);
        writeEnd = -1;
    }

    int writeEnd = -1;
};

// A timer with a function object. What the library owns of the record starts as garbage.
struct TestTimer : SchedTimer {
    explicit TestTimer(int64_t ms, std::function<void()> action = {}) : onFire(std::move(action)) {
        func = &TestTimer::fire;
        arg = this;
        interval = ms;
        next = this;
        expires = -1;
    }
    static void fire(SchedTimer *timer) {
        auto *self = static_cast<TestTimer *>(timer->arg);
        ++self->fired;
        if (self->onFire) self->onFire();
    }

    int fired = 0;
    std::function<void()> onFire;
};

// A delayed call with a function object, its links garbage at first.
struct TestCall : DelayedCall {
    explicit TestCall(std::function<void()> action = {}) : onCall(std::move(action)) {
        func = &TestCall::run;
        next = this;
        prev = nullptr;
    }
    static void run(DelayedCall *call) {
        auto *self = static_cast<TestCall *>(call);
        ++self->calls;
        if (self->onCall) self->onCall();
    }

    int calls = 0;
    std::function<void()> onCall;
};
