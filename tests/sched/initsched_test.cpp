#include "support/alloc_wrap.h"
#include "support/in_child.h"
#include "support/loop.h"

#include <cstring>
#include <string>

namespace {

std::string messageOf(int major, int minor, int expectedResult) {
    char msg[128];
    EXPECT_EQ(InitSched(major, minor, msg, sizeof msg), expectedResult) << msg;
    return msg;
}

int signalCalls = 0;

void countSignal(int) {
    ++signalCalls;
}

TEST(InitSched, JudgesTheCallersVersion) {
    constexpr struct {
        int major, minor, result;
        const char *message;
    } kCases[] = {
        {7, 2, SCHED_ERR_VERSION, "iosched(7.1,7.2):library too old"},
        {8, 0, SCHED_ERR_VERSION, "iosched(7.1,8.0):library too old"},
        {6, 9, SCHED_ERR_VERSION, "iosched(7.1,6.9):library too new"},
        {7, 1, 0, "iosched(7.1,7.1):"},
        {7, 0, 0, "iosched(7.1,7.0):"},
        {7, -1, 0, "iosched(7.1,7.-1):"},
    };
    for (const auto &c : kCases)
        EXPECT_EQ(messageOf(c.major, c.minor, c.result), c.message);
    EXPECT_EQ(ExitSched(), 2);  // the three that were accepted, less this one
    EXPECT_EQ(std::strncmp(iosched_version, "@(#)ZorbexVersion 7.1.0 ", 24), 0);
}

TEST(InitSched, CutsItsMessageToTheBuffer) {
    const std::string whole = "iosched(7.1,9.0):library too old";
    for (size_t size = 1; size <= whole.size() + 2; ++size) {
        std::string buffer(size + 1, '#');
        EXPECT_EQ(InitSched(9, 0, buffer.data(), static_cast<int>(size)), SCHED_ERR_VERSION);
        EXPECT_EQ(std::string(buffer.c_str()), whole.substr(0, size - 1));
        EXPECT_EQ(buffer[size], '#');
    }
}

TEST(InitSched, CountsAndClosesTheSignalPipeWithTheLast) {
    const int before = countOpenDescriptors();
    startLibrary();
    const int started = countOpenDescriptors();
    EXPECT_EQ(started, before + 2);
    startLibrary();
    EXPECT_EQ(countOpenDescriptors(), started);
    EXPECT_EQ(ExitSched(), 1);
    EXPECT_EQ(ExitSched(), 0);
    EXPECT_EQ(countOpenDescriptors(), before);
    EXPECT_EQ(iosched(0), 0);  // nobody polls the closed pipe
    EXPECT_EQ(WTERMSIG(inChild([] { (void)ExitSched(); })), SIGABRT);
}

TEST(InitSched, NamesTheModuleThatFailedAndStartsAgain) {
    const int before = countOpenDescriptors();
    for (const long tables : {0L, 1L}) {
        allocationsUntilFailure = tables;
        EXPECT_EQ(messageOf(7, 1, SCHED_ERR_SYSTEM),
                  "iosched(7.1,7.1):initIosched: Cannot allocate memory");
        EXPECT_EQ(errno, ENOMEM);
    }
    {
        DescriptorLimit limit(lowestFreeDescriptor());
        EXPECT_EQ(messageOf(7, 1, SCHED_ERR_SYSTEM),
                  "iosched(7.1,7.1):initSignals: Too many open files");
        limit.set(lowestFreeDescriptor() + 1);  // now for one end only
        EXPECT_EQ(messageOf(7, 1, SCHED_ERR_SYSTEM),
                  "iosched(7.1,7.1):initSignals: Too many open files");
    }
    EXPECT_EQ(countOpenDescriptors(), before);
    ASSERT_EQ(ResizeSchedTable(), 0);
    for (int i = 0; i < 2; ++i) {  // each start replaces the pipe of the failed one before
        allocationsUntilFailure = 0;
        EXPECT_EQ(messageOf(7, 1, SCHED_ERR_SYSTEM),
                  "iosched(7.1,7.1):initTimers: Cannot allocate memory");
        EXPECT_EQ(countOpenDescriptors(), before + 2);
    }
    startLibrary();
    EXPECT_EQ(countOpenDescriptors(), before + 2);
    EXPECT_EQ(msleep(1), 0);
}

TEST(InitSched, LowersAVeryHighDescriptorLimit) {
    const rlimit high{65536, 65536};
    if (::setrlimit(RLIMIT_NOFILE, &high) == -1) GTEST_SKIP() << "the hard limit is too low";
    startLibrary();
    rlimit now{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &now), 0);
    EXPECT_EQ(now.rlim_cur, 32767U);
    EXPECT_EQ(now.rlim_max, 32767U);
    EXPECT_EQ(registerInput(32766, nullptr, nullptr), 0);
    EXPECT_EQ(registerInput(32767, nullptr, nullptr), -1);
}

TEST(InitSched, LeavesTheStandardDescriptorsToTheProgram) {
    for (const int closedMask : {1, 2, 4, 6, 7}) {
        EXPECT_CHILD_OK([=] {
            ASSERT_EQ(::close_range(3, ~0U, 0), 0);
            for (int fd = 0; fd < 3; ++fd)
                if ((closedMask >> fd & 1) != 0) ::close(fd);
            startLibrary();
            for (int fd = 0; fd < 3; ++fd)
                EXPECT_EQ(::fcntl(fd, F_GETFD) == -1, (closedMask >> fd & 1) != 0);
            for (int fd = 3; fd < 9; ++fd) {
                if (::fcntl(fd, F_GETFD) == -1) continue;
                EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
                EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
            }
            EXPECT_EQ(msleep(1), 0);
        });
    }
}

TEST(InitSched, SecondStartKeepsWhatIsRegistered) {
    startLibrary();
    TestPipe pipe;
    TestTimer timer(1);
    TestCall call;
    pipe.input([&] { pipe.drain(); });
    startTimer(&timer);
    registerDelayedCall(&call);
    ASSERT_EQ(ExitSched(), 0);
    pipe.fill();
    startLibrary();
    EXPECT_TRUE(runUntil([&] { return pipe.inputs == 1 && timer.fired == 1 && call.calls == 1; }));
}

TEST(InitSched, SecondStartCallsNoSignalCallbackItself) {
    startLibrary();
    ASSERT_EQ(catchSignal(SIGUSR1, countSignal), SIG_DFL);
    ASSERT_EQ(catchSignal(SIGUSR2, countSignal), SIG_DFL);
    ASSERT_EQ(ExitSched(), 0);
    ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
    (void)iosched(0);  // delivers it, with no pipe to tell of it
    ASSERT_EQ(::kill(::getpid(), SIGUSR2), 0);
    startLibrary();
    EXPECT_EQ(signalCalls, 0);
    EXPECT_EQ(iosched(-1), 1);
    EXPECT_EQ(signalCalls, 2);
}

TEST(InitSched, MayBeTakenBackAndRepeatedInACallback) {
    startLibrary();
    TestPipe first, second;
    first.input([&] {
        first.drain();
        EXPECT_EQ(ExitSched(), 0);
        startLibrary();
    });
    second.input([&] { second.drain(); });
    first.fill();
    second.fill();
    EXPECT_EQ(iosched(0), 2);
    EXPECT_EQ(second.inputs, 1);
    static int restarts = 0;
    ASSERT_EQ(catchSignal(SIGUSR1,
                          [](int) {
                              EXPECT_EQ(ExitSched(), 0);
                              startLibrary();
                              ++restarts;
                          }),
              SIG_DFL);
    ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
    EXPECT_TRUE(runUntil([&] { return restarts == 1; }));
    EXPECT_EQ(msleep(1), 0);
}

}  // namespace
