#include "procs/program.h"

#include <malloc.h>

extern "C" pid_t __real_fork(void), __wrap_fork(void);

namespace {

std::string hookCalls;  // NAME and PHASE of each
int lastValue = 0;

// A hook with a name and an action.
struct TestHook {
    void add() { ASSERT_EQ(registerFork(&TestHook::call, this), 0); }
    int remove() { return unRegisterFork(&TestHook::call, this); }
    static void call(void *arg, int phase, int value) {
        auto *hook = static_cast<TestHook *>(arg);
        hookCalls += {hook->name, static_cast<char>('0' + phase)};
        lastValue = value;
        if (hook->onCall) hook->onCall(phase);
    }

    char name;
    std::function<void(int)> onCall = {};
};

using Forking = LoopTest;

}  // namespace

pid_t __wrap_fork(void) {
    if (std::exchange(failNextFork, false)) {
        errno = EAGAIN;
        return -1;
    }
    const pid_t pid = __real_fork();
    if (pid > 0 && forksAwaitTheEnd) awaitZombie(pid);
    return pid;
}

TEST_F(Forking, CallsHooksOldestFirstInEveryPhase) {
    TestHook a{'a', [](int phase) { EXPECT_TRUE(phase != FORK_PREPARE || lastValue == -1); }};
    TestHook b{'b', [](int) { errno = EPROTO; }};
    a.add();
    b.add();
    a.add();  // twice registered, twice called
    const pid_t pid = ioFork();
    EXPECT_EQ(hookCalls, pid == 0 ? "a0b0a0a2b2a2" : "a0b0a0a1b1a1");
    EXPECT_EQ(lastValue, pid == 0 ? ::getpid() : pid);
    if (pid == 0) ::_exit(HasFailure() ? 1 : 0);
    EXPECT_EQ(waitForChild(pid), 0);
    EXPECT_EQ(a.remove(), 0);  // the older registration goes
    hookCalls.clear();
    failNextFork = true;
    EXPECT_EQ(ioFork(), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(lastValue, EAGAIN);
    EXPECT_EQ(hookCalls, "b0a0b3a3");
    EXPECT_EQ(a.remove() + b.remove(), 0);
    EXPECT_EQ(b.remove(), -1);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(unRegisterFork(nullptr, nullptr), -1);
    EXPECT_EQ(registerFork(nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Forking, HooksMayChangeTheTableDuringAWalk) {
    size_t heap = 0;
    for (int round = 0; round < 20; ++round) {
        TestHook late{'l'}, victim{'v'}, changer{'c'};
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
        EXPECT_EQ(std::exchange(hookCalls, ""), "c0l0l1");
        EXPECT_EQ(late.remove(), 0);
        if (round == 9) heap = ::mallinfo2().uordblks;
    }
    EXPECT_EQ(::mallinfo2().uordblks, heap) << "removed hooks are not freed";
}

TEST_F(Forking, AHookMayForkAndRemoveHooksInside) {
    TestHook first{'1'}, forker{'f'}, gone{'3'}, last{'4'};
    pid_t inner = -1;
    forker.onCall = [&](int phase) {
        if (phase != FORK_CHILD || std::exchange(inner, 0) != -1) return;
        EXPECT_EQ(forker.remove() + gone.remove(), 0);
        inner = ioFork();
        EXPECT_EQ(first.remove(), 0);
    };
    for (TestHook *hook : {&first, &forker, &gone, &last})
        hook->add();
    const pid_t pid = ioFork();
    if (pid == 0) {
        EXPECT_EQ(hookCalls, std::string("10f0304012f21040") + (inner == 0 ? "124242" : "114142"));
        EXPECT_EQ(lastValue, ::getpid());
        EXPECT_EQ(inner == 0 ? 0 : waitForChild(inner), 0);
        EXPECT_EQ(first.remove() + forker.remove() + gone.remove() + last.remove(), -3);
        EXPECT_EQ(msleep(1), 0);
        ::_exit(HasFailure() ? 1 : 0);
    }
    EXPECT_EQ(waitForChild(pid), 0);
    EXPECT_EQ(hookCalls, "10f0304011f13141");
}

// The loop's model shows that it serves whatever else is registered and queued, wherever it forks.
TEST_F(Forking, TheChildStartsWithoutChildren) {
    const ReportedChild registered(1 << 24);  // above all process ids
    const int before = countOpenDescriptors();
    const pid_t pid = ioFork();
    if (pid == 0) {
        EXPECT_FALSE(anyChildRegistered());
        EXPECT_EQ(countOpenDescriptors(), before);
        const pid_t own = ::fork();
        if (own == 0) ::_exit(2);
        EXPECT_EQ(ReportedChild(own).await(), 0x200);
        ::_exit(HasFailure() ? 1 : 0);
    }
    EXPECT_EQ(waitForChild(pid), 0);
    EXPECT_TRUE(anyChildRegistered());
}
