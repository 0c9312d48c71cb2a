#include "support/alloc_wrap.h"
#include "support/loop.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kSmallTable = 64;

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
using Pass = LoopTest;

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
    const TestPipe pipe;
    ASSERT_EQ(::dup2(pipe.fd, 0), 0);
    Watch lowest(0);
    lowest.input();
    pipe.fill();
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(lowest.inputs, 1);
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
    for (const long table : {0L, 1L, 2L}) {
        allocationsUntilFailure = table;
        EXPECT_EQ(ResizeSchedTable(), SCHED_ERR_SYSTEM);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(registerInput(kSmallTable, nullptr, nullptr), -1);
    }
    allocationsUntilFailure = 3;  // nothing can be parked any more, and nobody notices
    EXPECT_EQ(ResizeSchedTable(), 0);
    EXPECT_EQ(registerInput(kSmallTable, nullptr, nullptr), 0);
    limit.set(static_cast<rlim_t>(pipe.writeEnd) + 1);
    EXPECT_EQ(ResizeSchedTable(), 0);
    EXPECT_EQ(registerInput(kSmallTable - 1, nullptr, nullptr), 0);
    pipe.fill();
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(pipe.inputs, 1);
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

// poll refuses a table longer than the limit; a pass that failed would never see the self-pipe.
TEST_F(Pass, SurvivesALimitBelowTheNumberOfDescriptors) {
    std::array<TestPipe, 4> pipes;
    for (TestPipe &pipe : pipes)
        pipe.input([&] { pipe.drain(); });
    const DescriptorLimit limit(2);
    EXPECT_EQ(iopeek(), 0);
    EXPECT_EQ(iosched(0), 0);
    EXPECT_EQ(msleep(5), 0);
    pipes[3].fill();
    EXPECT_EQ(iopeek(), 1);
    EXPECT_EQ(iosched(-1), 1);
    const auto fillLate = [](void *pipe) -> void * {
        (void)::poll(nullptr, 0, 20);
        static_cast<TestPipe *>(pipe)->fill();
        return nullptr;
    };
    pthread_t late;  // no std::thread: UBSan needs a pipe to check its object, and there is no room
    ASSERT_EQ(::pthread_create(&late, nullptr, fillLate, &pipes[3]), 0);
    EXPECT_EQ(iosched(-1), 1);  // and one that becomes ready in the wait
    (void)::pthread_join(late, nullptr);
    EXPECT_EQ(pipes[3].inputs, 2);
    EXPECT_EQ(iosched(0), 0);
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
    SetSchedTraceCallback(recordTrace, SCHED_TRACE_LOOP);
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

}  // namespace
