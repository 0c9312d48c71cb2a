// Much data through a child and back, by asynchronous requests alone.

#include "aio/request.h"

#include <csignal>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr size_t kEchoBytes = size_t{64} << 20;
constexpr size_t kReadBytes = size_t{256} << 10;

using AioEcho = LoopTest;

// Starts cat between two pipes and keeps the ends of this side.
pid_t startEcho(AIOPipeEnds *toChild, AIOPipeEnds *fromChild) {
    for (const int fd : {toChild->writeFd, fromChild->readFd})
        EXPECT_EQ(::fcntl(fd, F_SETFD, FD_CLOEXEC), 0);
    SpawnOptions options{};
    options.flags = SPAWN_STDIN | SPAWN_STDOUT;
    options.stdinFd = toChild->readFd;
    options.stdoutFd = fromChild->writeFd;
    const pid_t pid = spawnProcess(&options, "cat");
    toChild->closeReadEnd();
    fromChild->closeWriteEnd();
    return pid;
}

}  // namespace

TEST_F(AioEcho, SixtyFourMebibytesComeBackWhileATimerGoesOn) {
    std::vector<char> sent(kEchoBytes), received(kEchoBytes + kReadBytes);
    std::minstd_rand random(7);
    for (size_t at = 0; at < kEchoBytes; at += 64)
        sent[at] = static_cast<char>(random());
    AIOPipeEnds toChild(AIO_PIPE_NONBLOCK_WRITE), fromChild(AIO_PIPE_NONBLOCK_READ);
    const ReportedChild echo(startEcho(&toChild, &fromChild));
    size_t written = 0, arrived = 0;
    int partialWrites = 0;
    TestRequest write(toChild.writeFd, sent.data(), kEchoBytes);
    write.onDone = [&] {
        EXPECT_EQ(write.error, 0);
        written += static_cast<size_t>(write.transferred);
        if (static_cast<size_t>(write.transferred) < write.length) ++partialWrites;
        write.buffer = sent.data() + written;
        write.length = kEchoBytes - written;
        if (written == kEchoBytes) toChild.closeWriteEnd();  // cat sees the end of its input
        return write.error == 0 && written < kEchoBytes;
    };
    TestRequest read(fromChild.readFd, received.data(), kReadBytes);
    read.onDone = [&] {
        EXPECT_EQ(read.error, 0);
        arrived += static_cast<size_t>(read.transferred);
        read.buffer = received.data() + std::min(arrived, kEchoBytes);
        return read.transferred != 0;
    };
    TestTimer tick(1, [&] { startTimer(&tick); });
    startTimer(&tick);
    ASSERT_EQ(AIOWrite(&write), 0);
    ASSERT_EQ(AIORead(&read), 0);
    EXPECT_EQ(echo.await(), 0);
    EXPECT_TRUE(runUntil([&] { return activeRecords() == 0; }));
    EXPECT_EQ(arrived, kEchoBytes);
    EXPECT_EQ(std::memcmp(sent.data(), received.data(), kEchoBytes), 0);
    EXPECT_GT(partialWrites, 0);
    EXPECT_GT(tick.fired, 0);
}
