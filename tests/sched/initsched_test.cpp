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

// 0: the system's own. Few systems let a test have more descriptors than the library takes.
int pretendedLimit = 0;

}  // namespace

extern "C" {
int __real_getdtablesize();
int __real_setrlimit(__rlimit_resource_t resource, const rlimit *limit);

int __wrap_getdtablesize();
int __wrap_setrlimit(__rlimit_resource_t resource, const rlimit *limit);

int __wrap_getdtablesize() {
    return pretendedLimit != 0 ? pretendedLimit : __real_getdtablesize();
}

int __wrap_setrlimit(__rlimit_resource_t resource, const rlimit *limit) {
    if (pretendedLimit == 0) return __real_setrlimit(resource, limit);
    EXPECT_EQ(limit->rlim_cur, limit->rlim_max);
    pretendedLimit = static_cast<int>(limit->rlim_cur);
    return 0;
}
}

namespace {

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
    EXPECT_EQ(started, before + 4);  // the pipe, a signalfd, the set of parked ones
    ASSERT_EQ(catchSignal(SIGUSR1, countSignal), SIG_DFL);
    startLibrary();  // only counts: what is caught stays blocked
    ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
    EXPECT_EQ(signalCalls, 0);
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(countOpenDescriptors(), started);
    EXPECT_EQ(ExitSched(), 1);
    EXPECT_EQ(ExitSched(), 0);
    EXPECT_EQ(iosched(0), 0);  // nobody polls the closed pipe, and nothing comes back
    EXPECT_EQ(countOpenDescriptors(), before);
    EXPECT_EQ(WTERMSIG(inChild([] { (void)ExitSched(); })), SIGABRT);
    startLibrary();
    EXPECT_EQ(countOpenDescriptors(), started);
}

TEST(InitSched, NamesTheModuleThatFailedAndKeepsWhatIsThereForTheNextStart) {
    const int before = countOpenDescriptors();
    allocationsUntilFailure = 0;
    EXPECT_EQ(messageOf(7, 1, SCHED_ERR_SYSTEM),
              "iosched(7.1,7.1):initIosched: Cannot allocate memory");
    ASSERT_EQ(ResizeSchedTable(), 0);
    for (int i = 0; i < 2; ++i) {  // each start replaces the pipe of the failed one before
        allocationsUntilFailure = 0;
        EXPECT_EQ(messageOf(7, 1, SCHED_ERR_SYSTEM),
                  "iosched(7.1,7.1):initTimers: Cannot allocate memory");
        EXPECT_EQ(countOpenDescriptors(), before + 2);
    }
    startLibrary();
    EXPECT_EQ(countOpenDescriptors(), before + 4);
}

TEST(InitSched, LowersAVeryHighDescriptorLimit) {
    pretendedLimit = 65536;
    startLibrary();
    EXPECT_EQ(pretendedLimit, 32767);
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
                EXPECT_TRUE(fd >= 5 || (::fcntl(fd, F_GETFL) & O_NONBLOCK) != 0);  // the pipe
            }
            EXPECT_EQ(msleep(1), 0);
        });
    }
}

// And one that does not, holds them back no more until they are caught again.
TEST(InitSched, ASecondStartThatFailsHoldsSignalsBackAsBefore) {
    startLibrary();
    ASSERT_EQ(catchSignal(SIGUSR1, countSignal), SIG_DFL);
    ASSERT_EQ(ExitSched(), 0);
    {
        const DescriptorLimit limit(lowestFreeDescriptor());
        EXPECT_NE(messageOf(7, 1, SCHED_ERR_SYSTEM), "");
    }
    (void)iosched(0);
    ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
    EXPECT_EQ(signalCalls, 0);
    startLibrary();
    EXPECT_TRUE(runUntil([] { return signalCalls == 1; }));
    ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
    EXPECT_EQ(signalCalls, 2);
}

}  // namespace
