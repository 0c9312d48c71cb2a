#include "shared/pid_internal.h"
#include "support/in_child.h"

namespace {

uint32_t kernelPid() {
    return static_cast<uint32_t>(::syscall(SYS_getpid));
}

// Runs the scenario in a child that no hook hears of: the bare system call, with a copy of the
// memory.
template <class Scenario>
int inBareChild(Scenario scenario) {
    const auto pid =
        static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0));
    if (pid == 0) {
        scenario();
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    return waitForChild(pid);
}

// Borrows this process's memory and asks for the id there; all that it does, this process finds.
void lendMemory(uint32_t inPage) {
    volatile uint32_t seen = 0;
    const pid_t borrower = ::vfork();
    if (borrower == 0) {
        seen = ownPid();
        ::_exit(0);
    }
    EXPECT_EQ(waitForChild(borrower), 0);
    EXPECT_EQ(seen, inPage != 0 ? inPage : static_cast<uint32_t>(borrower));
}

void expectOwnPid() {
    EXPECT_EQ(ownPid(), kernelPid());
    EXPECT_EQ(ownPid(), kernelPid()) << "the second time";
}

TEST(Pid, IsRightBeforeAndAfterItIsRememberedAndInEveryKindOfChild) {
    expectOwnPid();
    EXPECT_EQ(*ownPidWord, 0u);
    preparePid();
    EXPECT_EQ(*ownPidWord, kernelPid());
    preparePid();
    expectOwnPid();
    lendMemory(kernelPid());
    EXPECT_CHILD_OK([] {
        EXPECT_EQ(*ownPidWord, kernelPid()) << "the hook makes it fast at once";
        EXPECT_CHILD_OK(expectOwnPid);
        expectOwnPid();
    });
    EXPECT_EQ(inBareChild([] {
                  lendMemory(
                      0);  // nothing is remembered here: the borrower asks, and must not write
                  expectOwnPid();
                  EXPECT_EQ(inBareChild(expectOwnPid), 0);
                  EXPECT_CHILD_OK(expectOwnPid);
                  expectOwnPid();
              }),
              0);
    expectOwnPid();
}

}  // namespace
