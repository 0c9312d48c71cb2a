#include "support/alloc_wrap.h"
#include "support/loop.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace {

constexpr int kSmallTable = 64;

// One end of a connected pair of sockets; both directions are ready once the other end has written.
struct ReadySocket : Watch {
    ReadySocket() : Watch(-1) {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        fd = ends[0];
        EXPECT_EQ(::write(ends[1], "x", 1), 1);
    }
};

std::vector<std::string> traced;

void recordTrace(const char *file, int line, const char *function, int category, const char *format,
                 ...) {
    EXPECT_NE(std::strstr(file, "iosched"), nullptr);
    EXPECT_GT(line, 0);
    EXPECT_STREQ(function, "iosched");
    EXPECT_EQ(category, SCHED_TRACE_LOOP);
    char text[64];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    traced.emplace_back(text);
}

using Registration = LoopTest;
using Dispatch = LoopTest;
using Pass = LoopTest;
using Peek = LoopTest;

TEST_F(Registration, AcceptsDescriptorsOfTheTableOnly) {
    const int size = ::getdtablesize();
    for (const int fd : {-1, size}) {
        errno = 0;
        EXPECT_EQ(registerInput(fd, &Watch::inputFunc, nullptr), -1);
        EXPECT_EQ(registerOutput(fd, &Watch::outputFunc, nullptr), -1);
        EXPECT_EQ(disableSched(fd), -1);
        EXPECT_EQ(enableSched(fd), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(registerInput(size - 1, &Watch::inputFunc, nullptr), 0);
    EXPECT_EQ(registerInput(size - 1, nullptr, nullptr), 0);
    EXPECT_EQ(registerInput(size - 2, nullptr, nullptr), 0);  // never registered
    EXPECT_EQ(iosched(0), 0);
}

TEST(ResizeSchedTable, MovesTheTablesUnderARunningPass) {
    DescriptorLimit limit(kSmallTable);
    startLibrary();
    TestPipe first, second;
    first.input([&] {
        first.drain();
        limit.set(8192);
        EXPECT_EQ(ResizeSchedTable(), 0);
        EXPECT_EQ(registerInput(8191, nullptr, nullptr), 0);
    });
    second.input([&] { second.drain(); });
    first.fill();
    second.fill();
    EXPECT_EQ(iosched(0), 2);
    EXPECT_EQ(second.inputs, 1);
    first.input([&] { first.drain(); });
    first.fill();
    EXPECT_EQ(iosched(0), 1);  // its direction was resumed in the table as it then stood
    EXPECT_EQ(first.inputs, 2);
}

TEST(ResizeSchedTable, KeepsTheTableOnFailureAndForALowerLimit) {
    DescriptorLimit limit(kSmallTable);
    startLibrary();
    TestPipe pipe;
    pipe.input([&] { pipe.drain(); });
    limit.set(1024);
    for (const long table : {0L, 1L}) {
        allocationsUntilFailure = table;
        EXPECT_EQ(ResizeSchedTable(), SCHED_ERR_SYSTEM);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(registerInput(kSmallTable, nullptr, nullptr), -1);
    }
    limit.set(static_cast<rlim_t>(pipe.writeEnd) + 1);
    EXPECT_EQ(ResizeSchedTable(), 0);
    EXPECT_EQ(registerInput(kSmallTable - 1, nullptr, nullptr), 0);
    pipe.fill();
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(pipe.inputs, 1);
}

TEST_F(Dispatch, GivesAHangUpToTheActiveInputCallback) {
    TestPipe pipe;
    pipe.closeWriteEnd();
    pipe.output();
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(pipe.outputs, 1);  // nobody else to tell
    pipe.input();
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(pipe.inputs, 1);
    EXPECT_EQ(pipe.outputs, 1);
    // Inside its own callback the input is not active.
    pipe.input([&] { EXPECT_EQ(iosched(0), 1); });
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(pipe.inputs, 2);
    EXPECT_EQ(pipe.outputs, 2);
}

TEST_F(Dispatch, ReadsTheRegistrationAtTheMomentOfTheCall) {
    TestPipe first, removed, replaced;
    int replacements = 0;
    first.input([&] {
        EXPECT_EQ(registerInput(removed.fd, nullptr, nullptr), 0);
        replaced.input([&] { ++replacements; });
    });
    removed.input();
    replaced.input([&] { FAIL() << "replaced before its turn"; });
    for (const TestPipe *pipe : {&first, &removed, &replaced})
        pipe->fill();
    EXPECT_EQ(iosched(0), 3);
    EXPECT_EQ(removed.inputs, 0);
    EXPECT_EQ(replacements, 1);
}

TEST_F(Dispatch, SuspensionKeepsPollingAndStopsCalls) {
    ReadySocket socket;
    std::string order;
    socket.output([&] { order += 'o'; });
    socket.input([&] { order += 'i'; });
    EXPECT_EQ(disableSched(socket.fd), 0);
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(order, "");
    EXPECT_EQ(enableSched(socket.fd), 0);
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(order, "io");
    // From its own input callback the suspension lasts for the output direction alone.
    socket.input([&] { EXPECT_EQ(disableSched(socket.fd), 0); });
    for (int pass = 0; pass < 2; ++pass)
        EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(socket.inputs, 3);
    EXPECT_EQ(socket.outputs, 1);
    socket.input();
    socket.output();  // registering resumes nothing, removing does
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(socket.outputs, 1);
    EXPECT_EQ(registerOutput(socket.fd, nullptr, nullptr), 0);
    socket.output();
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(socket.outputs, 2);
}

TEST_F(Dispatch, ANestedPassEndsTheOuterOne) {
    TestPipe first, second, third;
    std::string order;
    first.input([&] {
        order += '1';
        first.drain();
        first.fill();  // ready again, but its callback is running
        EXPECT_EQ(iosched(0), 3);
        order += '.';
        first.drain();
        second.fill();
    });
    second.input([&] {
        order += '2';
        second.drain();
    });
    third.input([&] {
        order += '3';
        third.drain();
    });
    for (const TestPipe *pipe : {&first, &second, &third})
        pipe->fill();
    EXPECT_EQ(iosched(0), 3);
    EXPECT_EQ(order, "123.");  // no second call from the outer pass's results
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(order, "123.2");
}

TEST_F(Dispatch, EnableSchedLetsANestedPassReenterTheCallback) {
    TestPipe pipe;
    int depth = 0, deepest = 0;
    pipe.input([&] {
        deepest = std::max(deepest, ++depth);
        EXPECT_EQ(enableSched(pipe.fd), 0);
        if (depth < 4)
            EXPECT_EQ(iosched(0), 1);
        else
            pipe.drain();
        --depth;
    });
    pipe.fill();
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(deepest, 4);
    pipe.fill();
    EXPECT_EQ(iosched(0), 1);  // not left suspended
    EXPECT_EQ(pipe.inputs, 8);
}

TEST_F(Dispatch, AClosedDescriptorIsReportedAndNotCalled) {
    int closed = -1;
    {
        TestPipe pipe;
        closed = pipe.fd;
    }
    Watch watch(closed);
    watch.input();
    watch.output();
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(watch.inputs + watch.outputs, 0);
}

TEST_F(Pass, ClampsTimeoutsThatPollCannotExpress) {
    // A timer's signal ends each wait; a product wrapped in 32 bits would be 0 ms for the first.
    for (const int seconds : {1 << 29, 2147484, INT32_MAX, -1, INT32_MIN}) {
        TestTimer timer(1);
        startTimer(&timer);
        EXPECT_NE(ioschedFd(-1, seconds), 0) << seconds;
        EXPECT_TRUE(runUntil([&] { return timer.fired == 1; }));
    }
}

TEST_F(Pass, ReportsPollsErrorAndStaysUsable) {
    std::array<TestPipe, 4> pipes;
    for (TestPipe &pipe : pipes)
        pipe.input([&] { pipe.drain(); });
    pipes[0].fill();
    {
        DescriptorLimit limit(4);  // poll refuses more entries than this
        errno = 0;
        EXPECT_EQ(iosched(-1), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(iopeek(), 1);
    }
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(pipes[0].inputs, 1);
}

TEST_F(Pass, AllocatesNothing) {
    TestPipe pipe;
    TestTimer timer(0);
    TestCall call;
    timer.onFire = [&] { startTimer(&timer); };
    pipe.input([&] {
        registerDelayedCall(&call);
        // Both changes make the next pass rebuild its table.
        if (registerOutput(pipe.writeEnd, &Watch::outputFunc, nullptr) != 0) std::abort();
        if (registerOutput(pipe.writeEnd, nullptr, nullptr) != 0) std::abort();
    });
    pipe.fill();
    startTimer(&timer);
    const unsigned long before = allocationCount;
    for (int pass = 0; pass < 1000; ++pass)
        (void)iosched(0);
    EXPECT_EQ(allocationCount, before);
    EXPECT_GT(timer.fired, 0);
    EXPECT_GT(call.calls, 100);
}

TEST_F(Pass, TracesLevelsOfNestedPasses) {
    TestPipe pipe;
    pipe.input([&] {
        pipe.drain();
        (void)iosched(0);
    });
    pipe.fill();
    SetSchedTraceCallback(recordTrace, SCHED_TRACE_LOOP | 0x100);
    EXPECT_EQ(iosched(0), 1);
    const std::vector<std::string> expected = {"enter, level=1\n", "enter, level=2\n",
                                               "leave, level=2\n", "leave, level=1\n"};
    EXPECT_EQ(traced, expected);
    SetSchedTraceCallback(recordTrace, SCHED_TRACE_CHUNKS);
    (void)iosched(0);
    SetSchedTraceCallback(nullptr, SCHED_TRACE_LOOP);
    (void)iosched(0);
    EXPECT_EQ(traced, expected);
}

TEST_F(Peek, SeesSignalsAndDescriptorsOnly) {
    TestCall call;
    registerDelayedCall(&call);
    EXPECT_EQ(iopeek(), 0);
    (void)iosched(0);
    TestPipe pipe;
    pipe.input();
    pipe.fill();
    EXPECT_EQ(iopeek(), 1);
    EXPECT_EQ(pipe.inputs, 0);
    pipe.drain();
    EXPECT_EQ(iopeek(), 0);
    ASSERT_EQ(::kill(::getpid(), SIGALRM), 0);
    EXPECT_EQ(iopeek(), 1);
    EXPECT_TRUE(runUntil([] { return iopeek() == 0; }));
}

TEST_F(Peek, InsideACallbackLeavesThePassItsResults) {
    constexpr size_t kPipes = 130;  // more than the peek looks at in one go
    std::array<TestPipe, kPipes> pipes;
    for (TestPipe &pipe : pipes) {
        pipe.input();
        pipe.fill();
    }
    pipes[0].input([&] {
        EXPECT_EQ(registerInput(pipes[1].fd, nullptr, nullptr), 0);  // moves every later entry up
        for (const TestPipe &pipe : pipes)
            pipe.drain();
        EXPECT_EQ(iopeek(), 0);
        pipes[kPipes - 1].fill();
        EXPECT_EQ(iopeek(), 1);
    });
    EXPECT_EQ(iosched(0), int{kPipes});
    EXPECT_EQ(pipes[1].inputs, 0);
    for (size_t i = 2; i < kPipes; ++i)
        EXPECT_EQ(pipes[i].inputs, 1) << i;
}

}  // namespace
