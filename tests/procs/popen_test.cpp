#include "procs/program.h"
#include "procs/syscall_wrap.h"
#include "support/alloc_wrap.h"
#include "support/in_child.h"
#include "support/scratch_dir.h"

#include <cerrno>
#include <cstdio>

namespace {

using Popen = LoopTest;

}  // namespace

TEST_F(Popen, ReadsTheCommandsOutput) {
    FILE *stream = ZORpopen("echo one; echo two; exit 3", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(readAll(::fileno(stream)), "one\ntwo\n");
    EXPECT_EQ(ZORpclose(stream), 0x300);
}

TEST_F(Popen, AnyOtherModeWritesTheCommandsInput) {
    const ScratchDir dir;
    const std::string command = "cat > " + dir.path() + "/input; exit 4";
    for (const char *mode : {"w", "a"}) {
        FILE *stream = ZORpopen(command.c_str(), mode);
        ASSERT_NE(stream, nullptr);
        EXPECT_GT(std::fprintf(stream, "to the command"), 0);
        EXPECT_EQ(ZORpclose(stream), 0x400);  // cat has seen the end of its input
        EXPECT_EQ(readFile(dir / "input"), "to the command");
    }
}

// If a later command held an earlier stream's end, the earlier one's cat would never see the end.
TEST_F(Popen, NoStreamsEndReachesAnotherStreamsCommand) {
    (void)catchSignal(SIGPIPE, SIG_DFL);  // whoever runs the tests may ignore it
    FILE *first = ZORpopen("cat > /dev/null", "w");
    FILE *second = ZORpopen("cat > /dev/null", "w");
    FILE *third = ZORpopen("yes", "r");
    EXPECT_EQ(ZORpclose(first), 0);
    EXPECT_EQ(ZORpclose(second), 0);
    EXPECT_EQ(ZORpclose(third), SIGPIPE);
}

TEST_F(Popen, StatusOfACommandThatEndedLongBeforeIsKept) {
    FILE *stream = ZORpopen("exit 6", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_TRUE(runUntil([] { return !hasChildren(); }));
    FILE *other = ZORpopen("exit 7", "r");
    EXPECT_EQ(ZORpclose(other), 0x700);
    EXPECT_EQ(ZORpclose(stream), 0x600);
}

TEST_F(Popen, StreamOfSomebodyElseIsClosedWithMinusOne) {
    const int before = countOpenDescriptors();
    EXPECT_EQ(ZORpclose(std::fopen("/dev/null", "re")), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(countOpenDescriptors(), before);
}

TEST_F(Popen, CallbackMayOpenAStreamOnTheDescriptorBeingClosed) {
    FILE *outer = ZORpopen("cat > /dev/null; sleep 0.05; exit 1", "w");
    ASSERT_NE(outer, nullptr);
    const int fd = ::fileno(outer);
    int inner = -1;
    TestTimer nested(0, [&] {
        FILE *stream = ZORpopen("cat > /dev/null; exit 2", "w");
        EXPECT_EQ(::fileno(stream), fd);
        inner = ZORpclose(stream);
    });
    startTimer(&nested);
    EXPECT_EQ(ZORpclose(outer), 0x100);
    EXPECT_EQ(inner, 0x200);
}

TEST_F(Popen, WhatCannotStartLeavesNothingBehind) {
    const int before = countOpenDescriptors();
    const auto expectFailure = [&](const char *command, const char *mode, int error) {
        EXPECT_EQ(ZORpopen(command, mode), nullptr);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(countOpenDescriptors(), before);
        EXPECT_FALSE(hasChildren());
    };
    const struct {
        const char *command, *mode;
    } kInvalid[] = {
        {"true", "x"}, {"true", "rx+"}, {"true", ""}, {nullptr, "r"}, {"true", nullptr}};
    for (const auto &call : kInvalid)
        expectFailure(call.command, call.mode, EINVAL);
    for (const int allocations : {0, 1}) {
        allocationsUntilFailure = allocations;
        expectFailure("true", "r", ENOMEM);
    }
    failNextFork = true;
    expectFailure("true", "w", EAGAIN);
    const DescriptorLimit none(lowestFreeDescriptor());
    EXPECT_EQ(ZORpopen("true", "r"), nullptr);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(Popen, StreamInheritedThroughAForkIsNotWaitedFor) {
    FILE *stream = ZORpopen("read line; exit 8", "w");
    ASSERT_NE(stream, nullptr);
    const pid_t pid = ioFork();
    if (pid == 0) {
        const bool refused = ZORpclose(stream) == -1 && errno == ECHILD;
        ::_exit(refused ? 0 : 1);
    }
    EXPECT_EQ(statusOf(pid), 0);
    EXPECT_EQ(ZORpclose(stream), 0x800);
}
