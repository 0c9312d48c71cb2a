#include "procs/procs_internal.h"
#include "support/alloc_wrap.h"
#include "support/in_child.h"
#include "support/loop.h"

#include <cerrno>
#include <csignal>
#include <memory>
#include <poll.h>
#include <string>
#include <vector>

namespace {

// A registered child process and what was reported of it.
struct TestChild {
    template <class Body>
    explicit TestChild(Body body) : pid(::fork()) {
        if (pid == 0) {
            body();
            ::_exit(0);
        }
        EXPECT_EQ(registerChild(pid, &TestChild::done, this), 0);
    }
    static void done(void *arg, const ChildStatus *status) {
        auto *child = static_cast<TestChild *>(arg);
        ++child->reports;
        child->status = *status;
        const auto action = child->onDone;  // a copy: it may replace itself
        if (action) action();
    }

    pid_t pid;
    int reports = 0;
    ChildStatus status{};
    std::function<void()> onDone;
};

// Waits, outside the loop, until the child has ended.
void awaitZombie(pid_t pid) {
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
}

struct HookCall {
    char name;
    int phase;
    int value;
    bool operator==(const HookCall &) const = default;
};

std::vector<HookCall> hookCalls;

// A hook with a name and an action.
struct TestHook {
    explicit TestHook(char hookName, std::function<void(int)> action = {})
        : name(hookName), onCall(std::move(action)) {}
    void add() { ASSERT_EQ(registerFork(&TestHook::call, this), 0); }
    int remove() { return unRegisterFork(&TestHook::call, this); }
    static void call(void *arg, int phase, int value) {
        auto *hook = static_cast<TestHook *>(arg);
        hookCalls.push_back({hook->name, phase, value});
        if (hook->onCall) hook->onCall(phase);
    }

    char name;
    std::function<void(int)> onCall;
};

std::string calledIn(int phase) {
    std::string names;
    for (const HookCall &call : hookCalls)
        if (call.phase == phase) names += call.name;
    return names;
}

using Children = LoopTest;
using Forking = LoopTest;

TEST_F(Children, AreReportedHoweverTheyEnd) {
    TestChild exits([] { ::_exit(3); });
    TestChild killed([] { (void)::raise(SIGKILL); });
    TestChild stops([] {
        (void)::raise(SIGSTOP);
        ::_exit(4);
    });
    EXPECT_TRUE(runUntil([&] { return exits.reports + killed.reports + stops.reports == 3; }));
    EXPECT_EQ(buildStatus(&exits.status), 0x300);
    EXPECT_EQ(buildStatus(&killed.status), SIGKILL);
    EXPECT_EQ(buildStatus(&stops.status), 0x137f);
    EXPECT_EQ(exits.status.pid, exits.pid);
    EXPECT_EQ(killed.status.exitCode + killed.status.coreDumped + killed.status.stopped, 0);
    EXPECT_EQ(stops.status.stopped, 1);
    EXPECT_EQ(stops.status.termSignal, SIGSTOP);
    EXPECT_GT(exits.status.usage.ru_maxrss, 0);
    // The stop ended the registration.
    EXPECT_EQ(registerChild(stops.pid, nullptr, nullptr), -1);
    EXPECT_EQ(errno, ESRCH);
    ASSERT_EQ(registerChild(stops.pid, &TestChild::done, &stops), 0);
    ASSERT_EQ(::kill(stops.pid, SIGCONT), 0);
    EXPECT_TRUE(runUntil([&] { return stops.reports == 2; }));
    EXPECT_EQ(buildStatus(&stops.status), 0x400);
}

TEST(BuildStatus, EncodesAsWaitDoes) {
    ChildStatus status{};
    status.exitCode = 255;
    EXPECT_EQ(buildStatus(&status), 0xff00);
    status = {};
    status.termSignal = SIGSEGV;
    status.coreDumped = 0x80;
    EXPECT_EQ(buildStatus(&status), 0x8b);
    status.stopped = 1;
    EXPECT_EQ(buildStatus(&status), 0xb7f);
}

// One signal may stand for several children, and children that nobody registered are reaped too.
TEST_F(Children, AreAllReapedInOnePass) {
    const pid_t stranger = ::fork();
    if (stranger == 0) ::_exit(0);
    std::vector<std::unique_ptr<TestChild>> children;
    for (int i = 0; i < 20; ++i)
        children.push_back(std::make_unique<TestChild>([] {}));
    awaitZombie(stranger);
    for (const auto &child : children)
        awaitZombie(child->pid);
    EXPECT_EQ(iosched(-1), 1);
    for (const auto &child : children)
        EXPECT_EQ(child->reports, 1);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);  // the stranger is gone too
}

TEST_F(Children, RegistrationIsReplacedAndRemoved) {
    TestChild child([] { (void)::poll(nullptr, 0, -1); });
    int replaced = 0;
    const auto count = [](void *arg, const ChildStatus *) { ++*static_cast<int *>(arg); };
    EXPECT_EQ(registerChild(child.pid, count, &replaced), 0);
    ASSERT_EQ(::kill(child.pid, SIGKILL), 0);
    EXPECT_TRUE(runUntil([&] { return replaced == 1; }));
    EXPECT_EQ(child.reports, 0);
    EXPECT_EQ(registerChild(child.pid, nullptr, nullptr), -1);
    EXPECT_EQ(registerChild(child.pid, count, &replaced), 0);
    EXPECT_EQ(registerChild(child.pid, nullptr, nullptr), 0);
    allocationsUntilFailure = 0;
    EXPECT_EQ(registerChild(child.pid, count, &replaced), -1);
    EXPECT_EQ(errno, ENOMEM);
}

// Between its end and its callback a child can still be given another callback, or be dropped.
TEST_F(Children, ReapedOnesMayBeReplacedAndDroppedByACallback) {
    TestChild first([] {}), second([] { ::_exit(9); }), third([] {});
    int exitCode = -1;
    const auto keepExitCode = [](void *arg, const ChildStatus *status) {
        *static_cast<int *>(arg) = status->exitCode;
    };
    for (const TestChild *child : {&first, &second, &third})
        awaitZombie(child->pid);
    std::vector<TestChild *> order = {&first, &second, &third};
    const auto shuffle = [&] {  // whichever is called first deals with the two others
        for (TestChild *child : order) {
            child->onDone = nullptr;
            if (child->reports != 0) continue;
            if (child == &second)
                EXPECT_EQ(registerChild(child->pid, keepExitCode, &exitCode), 0);
            else
                EXPECT_EQ(registerChild(child->pid, nullptr, nullptr), 0);
        }
    };
    for (TestChild *child : order)
        child->onDone = shuffle;
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(first.reports + second.reports + third.reports, 1);
    EXPECT_EQ(second.reports == 1 ? second.status.exitCode : exitCode, 9);
    EXPECT_EQ(callRegisteredChildFuncs(), 0U);
}

// Process ids are used again, maybe before the callback of the former process has run.
TEST_F(Children, ACommittedChildIsNotTakenForAReapedOneWithItsNumber) {
    constexpr int kPid = 4711;
    const auto keepCode = [](void *arg, const ChildStatus *status) {
        *static_cast<int *>(arg) = status->exitCode;
    };
    int former = -1, present = -1;
    ChildStatus status{};
    EXPECT_EQ(registerChild(kPid, keepCode, &former), 0);
    status.exitCode = 1;
    schedChildDied(kPid, &status);
    commitChild(reserveChild(), kPid, keepCode, &present);
    EXPECT_EQ(callRegisteredChildFuncs(), 1u);
    status.exitCode = 2;
    schedChildDied(kPid, &status);
    EXPECT_EQ(callRegisteredChildFuncs(), 1u);
    EXPECT_EQ(former, 1);
    EXPECT_EQ(present, 2);
}

TEST_F(Children, CallbackMayStartRegisterAndAwaitOthers) {
    TestChild outer([] {}), sibling([] {});
    awaitZombie(outer.pid);
    awaitZombie(sibling.pid);
    std::string order;
    std::unique_ptr<TestChild> inner;
    const auto awaitInner = [&] {
        outer.onDone = sibling.onDone = [&] { order += 's'; };
        inner = std::make_unique<TestChild>([] {});
        EXPECT_TRUE(runUntil([&] { return inner->reports == 1; }));
        order += 'o';
    };
    outer.onDone = sibling.onDone = awaitInner;
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(order, "so");  // the sibling's turn came in a pass of the first callback
    EXPECT_EQ(outer.reports + sibling.reports, 2);
}

TEST_F(Children, AChildForkedInACallbackHasNone) {
    TestChild child([] {}), sibling([] {});
    awaitZombie(child.pid);
    awaitZombie(sibling.pid);
    pid_t pid = -1;
    std::unique_ptr<ReportedChild> forked;
    const auto forkOnce = [&] {
        child.onDone = sibling.onDone = nullptr;
        pid = ioFork();
        if (pid != 0) forked = std::make_unique<ReportedChild>(pid);
    };
    child.onDone = sibling.onDone = forkOnce;
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(child.reports + sibling.reports, pid == 0 ? 1 : 2);
    if (pid == 0) {
        EXPECT_EQ(registerChild(sibling.pid, nullptr, nullptr), -1);
        EXPECT_EQ(msleep(1), 0);
        ::_exit(HasFailure() ? 1 : 0);
    }
    EXPECT_EQ(forked->await(), 0);
}

TEST_F(Forking, CallsHooksOldestFirstInEveryPhase) {
    TestHook a('a'), b('b');
    a.add();
    b.add();
    a.add();  // twice registered, twice called
    const pid_t pid = ioFork();
    const int phase = pid == 0 ? FORK_CHILD : FORK_PARENT, value = pid == 0 ? ::getpid() : pid;
    const std::vector<HookCall> expected = {{'a', FORK_PREPARE, -1}, {'b', FORK_PREPARE, -1},
                                            {'a', FORK_PREPARE, -1}, {'a', phase, value},
                                            {'b', phase, value},     {'a', phase, value}};
    EXPECT_EQ(hookCalls, expected);
    if (pid == 0) ::_exit(HasFailure() ? 1 : 0);
    EXPECT_EQ(waitForChild(pid), 0);
    EXPECT_EQ(a.remove(), 0);  // the older registration goes
    hookCalls.clear();
    applyForkTab(FORK_PREPARE, -1);
    EXPECT_EQ(calledIn(FORK_PREPARE), "ba");
    EXPECT_EQ(a.remove() + b.remove(), 0);
    EXPECT_EQ(b.remove(), -1);
    EXPECT_EQ(errno, ESRCH);
    allocationsUntilFailure = 0;
    EXPECT_EQ(registerFork(&TestHook::call, nullptr), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(registerFork(nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Forking, FailureIsTold) {
    EXPECT_CHILD_OK([] {
        TestHook hook('h', [](int) { errno = EPROTO; });
        hook.add();
        // Neither root nor a privileged user is bound by it, hence the change of identity.
        const rlimit none{0, 0};
        ASSERT_EQ(::setrlimit(RLIMIT_NPROC, &none), 0);
        if (::geteuid() == 0 && ::setuid(65534) != 0) FAIL() << "cannot become nobody";
        EXPECT_EQ(ioFork(), -1);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(hookCalls,
                  (std::vector<HookCall>{{'h', FORK_PREPARE, -1}, {'h', FORK_FAILED, EAGAIN}}));
    });
}

TEST_F(Forking, HooksMayChangeTheTableDuringAWalk) {
    TestHook late('l'), victim('v');
    TestHook changer('c');
    changer.onCall = [&](int) {
        EXPECT_EQ(changer.remove(), 0);  // itself, running
        EXPECT_EQ(changer.remove(), -1);
        EXPECT_EQ(victim.remove(), 0);  // not reached yet
        late.add();
    };
    changer.add();
    victim.add();
    applyForkTab(FORK_PREPARE, -1);
    applyForkTab(FORK_PARENT, 1);
    EXPECT_EQ(calledIn(FORK_PREPARE), "cl");
    EXPECT_EQ(calledIn(FORK_PARENT), "l");
}

// A hook that forks: the inner walk must not free what the outer one stands on.
TEST_F(Forking, AHookMayForkAndRemoveHooksInside) {
    TestHook first('1'), forker('f'), last('3');
    pid_t inner = -1;
    bool forked = false;
    forker.onCall = [&](int phase) {
        if (phase != FORK_CHILD || std::exchange(forked, true)) return;
        EXPECT_EQ(forker.remove(), 0);
        EXPECT_EQ(last.remove(), 0);
        inner = ioFork();
        EXPECT_EQ(first.remove(), 0);
    };
    first.add();
    forker.add();
    last.add();
    const pid_t pid = ioFork();
    if (pid == 0) {
        EXPECT_EQ(calledIn(FORK_CHILD), inner == 0 ? "1f1" : "1f");
        EXPECT_EQ(inner == 0 ? 0 : waitForChild(inner), 0);
        EXPECT_EQ(first.remove() + forker.remove() + last.remove(), -3);
        EXPECT_EQ(msleep(1), 0);
        ::_exit(HasFailure() ? 1 : 0);
    }
    EXPECT_EQ(waitForChild(pid), 0);
    EXPECT_EQ(calledIn(FORK_PARENT), "1f3");
}

// The grandchild returns into its parent's walk and finishes it; the hooks must not hear their
// grandparent's child called the present process.
TEST_F(Forking, HooksAfterOneThatForksHearTheirOwnProcessId) {
    TestHook forker('f'), last('l');
    pid_t inner = -1;
    forker.onCall = [&](int phase) {
        if (phase == FORK_CHILD && inner == -1) {
            inner = 0;  // once
            inner = ioFork();
        }
    };
    forker.add();
    last.add();
    const pid_t pid = ioFork();
    if (pid == 0) {
        EXPECT_EQ(hookCalls.back(), (HookCall{'l', FORK_CHILD, ::getpid()}));
        EXPECT_EQ(inner == 0 ? 0 : waitForChild(inner), 0);
        ::_exit(HasFailure() ? 1 : 0);
    }
    EXPECT_EQ(waitForChild(pid), 0);
}

TEST_F(Forking, TheChildStartsWithoutChildrenAndKeepsTheRest) {
    TestChild sleeper([] { (void)::poll(nullptr, 0, -1); });
    TestPipe pipe;
    TestCall call;
    pipe.input([&] { pipe.drain(); });
    pipe.fill();
    registerDelayedCall(&call);
    const int before = countOpenDescriptors();
    const pid_t pid = ioFork();
    if (pid == 0) {
        EXPECT_EQ(registerChild(sleeper.pid, nullptr, nullptr), -1);
        EXPECT_EQ(errno, ESRCH);
        EXPECT_EQ(countOpenDescriptors(), before);
        EXPECT_EQ(iosched(-1), 1);
        EXPECT_EQ(pipe.inputs + call.calls, 2);
        TestChild own([] { ::_exit(2); });
        EXPECT_TRUE(runUntil([&] { return own.reports == 1; }));
        EXPECT_EQ(own.status.exitCode, 2);
        ::_exit(HasFailure() ? 1 : 0);
    }
    EXPECT_EQ(waitForChild(pid), 0);
    ASSERT_EQ(::kill(sleeper.pid, SIGKILL), 0);
    EXPECT_TRUE(runUntil([&] { return sleeper.reports == 1; }));
}

}  // namespace
