#include "aio/request.h"
#include "support/alloc_wrap.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <sys/socket.h>

extern "C" {
ssize_t __real_read(int fd, void *buffer, size_t length);
ssize_t __wrap_read(int fd, void *buffer, size_t length);
}

namespace {

bool interruptNextRead = false;

class Aio : public LoopTest {
protected:
    AIOPipeEnds pipe;
    char bytes[64] = {};
};

}  // namespace

ssize_t __wrap_read(int fd, void *buffer, size_t length) {
    if (!std::exchange(interruptNextRead, false)) return __real_read(fd, buffer, length);
    errno = EINTR;
    return -1;
}

TEST_F(Aio, PipeEndsBlockUnlessAskedOtherwise) {
    for (int flags = 0; flags <= 3; ++flags) {
        const AIOPipeEnds ends(flags);
        EXPECT_EQ(::fcntl(ends.readFd, F_GETFL) & O_NONBLOCK, flags & 1 ? O_NONBLOCK : 0);
        EXPECT_EQ(::fcntl(ends.writeFd, F_GETFL) & O_NONBLOCK, flags & 2 ? O_NONBLOCK : 0);
    }
    const DescriptorLimit none(lowestFreeDescriptor());
    int readFd = 7, writeFd = 7;
    EXPECT_EQ(AIOPipe(&readFd, &writeFd, 3), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_TRUE(readFd == -1 && writeFd == -1);
}

TEST_F(Aio, OneTransferPerReadinessWithTheBufferOfTheMoment) {
    TestRequest request(pipe.readFd, bytes, 2);
    request.onDone = [&] {
        request.buffer = static_cast<char *>(request.buffer) + request.transferred;
        return request.transferred;
    };
    ASSERT_EQ(AIORead(&request), 0);
    EXPECT_EQ(iosched(0), 0);
    pipe.put("abcde");
    for (int pass = 1; pass <= 3; ++pass) {
        EXPECT_EQ(iosched(0), 1);
        EXPECT_EQ(request.calls, pass);
    }
    EXPECT_EQ(request.transferred, 1);
    EXPECT_STREQ(bytes, "abcde");
    pipe.closeWriteEnd();
    EXPECT_EQ(iosched(0), 1);
    EXPECT_TRUE(request.transferred == 0 && request.error == 0) << "end of file";
    EXPECT_EQ(iosched(0), 0) << "no longer watched";
    EXPECT_EQ(activeRecords(), 0);
}

TEST_F(Aio, TransferThatFailsIsReported) {
    (void)catchSignal(SIGPIPE, SIG_IGN);
    const AIOPipeEnds other;
    TestRequest write(pipe.writeFd, bytes, 8);
    pipe.closeReadEnd();
    ASSERT_EQ(AIOWrite(&write), 0);
    EXPECT_EQ(iosched(0), 1);
    EXPECT_TRUE(write.transferred == 0 && write.error == EPIPE);

    TestRequest read(other.readFd, bytes, 8);
    read.onDone = [&] { return read.calls < 2; };  // whether to go on is its own affair
    ASSERT_EQ(AIORead(&read), 0);
    other.put("x");
    interruptNextRead = true;
    EXPECT_EQ(iosched(0), 1);
    EXPECT_TRUE(read.transferred == 0 && read.error == EINTR);
    EXPECT_EQ(iosched(0), 1);
    EXPECT_TRUE(read.transferred == 1 && read.error == 0);
    EXPECT_EQ(activeRecords(), 0);
}

TEST_F(Aio, DataThatAnotherCallbackHasTakenIsNoTransfer) {
    AIOPipeEnds later;
    ASSERT_LT(pipe.readFd, later.readFd);  // the lower descriptor is served first
    TestRequest request(later.readFd, bytes, 8);
    Watch thief(pipe.readFd);
    thief.input([&] {
        EXPECT_EQ(::read(pipe.readFd, bytes, 1), 1);
        EXPECT_EQ(::read(later.readFd, bytes, 1), 1);
    });
    ASSERT_EQ(AIORead(&request), 0);
    pipe.put("x");
    later.put("x");
    EXPECT_EQ(iosched(0), 2);
    EXPECT_EQ(thief.inputs, 1);
    EXPECT_EQ(request.calls, 0);
    later.put("y");
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(request.calls, 1) << "still waiting";
}

TEST_F(Aio, CompletionMayCancelAndFreeItsRequest) {
    for (const int result : {0, 1}) {
        auto *request = new TestRequest(pipe.readFd, bytes, 1);
        request->userData = bytes + result;
        request->callback = [](AIORequest *done) {
            const std::unique_ptr<TestRequest> owner(static_cast<TestRequest *>(done));
            AIOCancelRead(done);
            return static_cast<char *>(done->buffer) == done->userData ? 0 : 1;
        };
        ASSERT_EQ(AIORead(request), 0);
        const AIOData *record = findAIODataForRead(request);
        const uint32_t generation = record->generation;
        pipe.put("xx");
        EXPECT_EQ(iosched(0), 1);
        EXPECT_EQ(iosched(0), 0) << "no longer watched, with a byte still in the pipe";
        EXPECT_EQ(record->generation, generation + 1) << "released once";
        EXPECT_TRUE(activeRecords() == 0 && freeRecords() == 1);
        EXPECT_EQ(::read(pipe.readFd, bytes, sizeof bytes), 1);
    }
}

// A request whose place is gone, or somebody else's, is not active: it may be started again, and
// cancelling it leaves that place alone.
TEST_F(Aio, ARequestThatHasLostItsPlaceIsIdle) {
    TestRequest other(pipe.readFd, bytes, 1);
    TestRequest request(pipe.readFd, bytes, 1, [&] {
        EXPECT_EQ(AIORead(&other), 0);
        return 0;
    });
    ASSERT_EQ(AIORead(&request), 0);
    pipe.put("xxx");
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(iosched(0), 0) << "started without a cancel, and lost with the result of 0";
    ASSERT_EQ(AIORead(&other), 0);
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(other.calls, 1);

    Watch program(pipe.readFd);
    ASSERT_EQ(AIORead(&other), 0);
    program.input();
    ASSERT_EQ(AIORead(&other), 0) << "its place was the program's";
    ASSERT_EQ(AIORead(&request), 0);
    AIOCancelRead(&other);
    errno = 0;
    EXPECT_EQ(AIORead(&request), -1) << "still in its place";
    EXPECT_EQ(errno, EALREADY);
    EXPECT_EQ(activeRecords(), 1);
    request.onDone = {};
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(request.calls, 2);
    EXPECT_TRUE(activeRecords() == 0 && freeRecords() == 2 && program.inputs == 0);
}

// The record is used again there, and the callback of its old place is still to return.
TEST_F(Aio, ARequestMovedElsewhereByItsCompletionStaysThere) {
    const AIOPipeEnds other;
    TestRequest request(pipe.readFd, bytes, 1);
    request.onDone = [&] {
        EXPECT_EQ(registerInput(pipe.readFd, nullptr, nullptr), 0);  // idle from here on
        request.fd = other.readFd;
        EXPECT_EQ(request.calls == 1 ? AIORead(&request) : 0, 0);
        return 0;
    };
    ASSERT_EQ(AIORead(&request), 0);
    pipe.put("xx");
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(iosched(0), 0) << "the old place is empty";
    other.put("yy");
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(request.calls, 2);
    EXPECT_EQ(iosched(0), 0);
    EXPECT_TRUE(activeRecords() == 0 && freeRecords() == 1);
}

// The restarted request gets the very record that has just been released.
TEST_F(Aio, CompletionMayCancelAndRestart) {
    TestRequest other(pipe.readFd, bytes, 1);
    TestRequest request(pipe.readFd, bytes, 1);
    request.onDone = [&] {
        AIOCancelRead(&request);
        EXPECT_EQ(AIORead(request.calls == 1 ? &request : &other), 0);
        return 0;
    };
    ASSERT_EQ(AIORead(&request), 0);
    const AIOData *record = findAIODataForRead(&request);
    pipe.put("xxx");
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(findAIODataForRead(&request), record);
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(iosched(0), 1);
    EXPECT_TRUE(request.calls == 2 && other.calls == 1);
    EXPECT_TRUE(activeRecords() == 0 && freeRecords() == 1);
}

TEST_F(Aio, CompletionMayRunPassesAndIsNotEnteredAgain) {
    TestRequest request(pipe.readFd, bytes, 1);
    int depth = 0;
    request.onDone = [&] {
        EXPECT_EQ(++depth, 1);
        (void)iosched(0);
        --depth;
        return request.calls < 2;
    };
    ASSERT_EQ(AIORead(&request), 0);
    pipe.put("xx");
    EXPECT_TRUE(runUntil([&] { return request.calls == 2; }));
    EXPECT_EQ(activeRecords(), 0);
}

TEST_F(Aio, ReadAndWriteOnOneDescriptorAtOnce) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    TestRequest read(ends[0], bytes, 2), write(ends[0], bytes, 3);
    ASSERT_EQ(AIORead(&read), 0);
    ASSERT_EQ(AIOWrite(&write), 0);
    EXPECT_EQ(iosched(0), 1);
    EXPECT_TRUE(write.calls == 1 && write.transferred == 3 && read.calls == 0);
    ASSERT_EQ(::write(ends[1], "in", 2), 2);
    ASSERT_EQ(AIOWrite(&write), 0);
    AIOCancelWrite(&read);  // active, but not in this direction
    AIOCancelWrite(&write);
    EXPECT_EQ(iosched(0), 1);
    EXPECT_TRUE(write.calls == 1 && read.calls == 1 && read.transferred == 2);
}

TEST_F(Aio, StartingAnActiveRequestIsRefused) {
    TestRequest read(pipe.readFd, bytes, 1), write(pipe.writeFd, bytes, 1);
    for (const int expected : {0, -1}) {
        errno = 0;
        EXPECT_EQ(AIORead(&read), expected);
        EXPECT_EQ(errno, expected == 0 ? 0 : EALREADY);
        errno = 0;
        EXPECT_EQ(AIOWrite(&write), expected);
        EXPECT_EQ(errno, expected == 0 ? 0 : EALREADY);
    }
    EXPECT_TRUE(runUntil([&] { return read.calls == 1; }));
    EXPECT_TRUE(write.calls == 1 && activeRecords() == 0);
}

TEST_F(Aio, CancellingAnIdleRequestTouchesNothing) {
    TestRequest request(pipe.readFd, bytes, 1);
    Watch watch(pipe.readFd);
    watch.input();
    AIOCancelRead(&request);
    AIOCancelWrite(&request);
    pipe.put("x");
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(watch.inputs, 1);
    ASSERT_EQ(AIORead(&request), 0);  // takes the input over
    EXPECT_EQ(iosched(0), 1);
    watch.input();
    AIOCancelRead(&request);  // finished
    pipe.put("x");
    EXPECT_EQ(iosched(0), 1);
    EXPECT_EQ(watch.inputs, 2);
}

TEST_F(Aio, RecordsArePooledAndCountTheirReleases) {
    TestRequest read(pipe.readFd, bytes, 1), write(pipe.writeFd, bytes, 1);
    ASSERT_EQ(AIORead(&read), 0);
    ASSERT_EQ(AIOWrite(&write), 0);
    const AIOData *record = findAIODataForRead(&read);
    const unsigned long allocations = allocationCount;
    for (uint32_t round = 0; round < 10; ++round) {
        EXPECT_EQ(record->generation, round);
        AIOCancelRead(&read);
        EXPECT_EQ(record->generation, round + 1);
        EXPECT_TRUE(freeRecords() == 1 && !record->readRequest && !record->writeRequest);
        ASSERT_EQ(AIORead(&read), 0);
        EXPECT_EQ(findAIODataForRead(&read), record);
    }
    EXPECT_EQ(allocationCount, allocations);
    EXPECT_EQ(aioQueueHead.next, findAIODataForWrite(&write)) << "in the order of starting";
}

TEST_F(Aio, RequestThatCannotStartLeavesNothingBehind) {
    TestRequest request(-1, bytes, 1);
    EXPECT_EQ(AIORead(&request), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(AIOWrite(&request), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(activeRecords() == 0 && freeRecords() == 1);
}

TEST_F(Aio, ActiveRequestsSurviveASecondStart) {
    TestRequest read(pipe.readFd, bytes, 1);
    ASSERT_EQ(AIORead(&read), 0);
    ASSERT_EQ(ExitSched(), 0);
    startLibrary();
    EXPECT_EQ(activeRecords(), 1);
    pipe.put("x");
    EXPECT_TRUE(runUntil([&] { return read.calls == 1; }));
    EXPECT_TRUE(activeRecords() == 0 && freeRecords() == 1);
}
