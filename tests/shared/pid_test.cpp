#include "shared/pid_internal.h"
#include "support/in_child.h"

#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>

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

// Lets one system call fail with EINVAL, as an older kernel's would.
void refuseMadvise() {
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_madvise, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{sizeof code / sizeof code[0], code};
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

TEST(Pid, IsRightWhereTheKernelWipesNoMemoryOrHasNone) {
    EXPECT_CHILD_OK([] {
        refuseMadvise();
        preparePid();
        EXPECT_EQ(*ownPidWord, 0u);
        expectOwnPid();
        EXPECT_CHILD_OK(expectOwnPid);
        EXPECT_EQ(inBareChild(expectOwnPid), 0);
    });
    EXPECT_CHILD_OK([] {
        const rlimit none{0, 0};
        ASSERT_EQ(::setrlimit(RLIMIT_AS, &none), 0);
        preparePid();
        const uint32_t remembered = *ownPidWord;
        const uint32_t found = ownPid();
        if (remembered != 0 || found != kernelPid()) ::_exit(2);
    });
}

}  // namespace
