// Much data through a child and back, by asynchronous requests alone.

#include "aio/request.h"

#include <csignal>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr size_t kEchoBytes = size_t{64} << 20;
constexpr size_t kReadBytes = size_t{256} << 10;

class AioEcho : public LoopTest {};

std::vector<char> randomBytes(size_t count) {
    std::vector<char> bytes(count);
    std::minstd_rand random(7);
    for (size_t at = 0; at + sizeof(uint32_t) <= count; at += sizeof(uint32_t)) {
        const auto word = static_cast<uint32_t>(random());
        std::memcpy(&bytes[at], &word, sizeof word);
    }
    return bytes;
}

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
    (void)catchSignal(SIGPIPE, SIG_IGN);
    std::vector<char> sent = randomBytes(kEchoBytes);
    std::vector<char> room(kReadBytes);
    AIOPipeEnds toChild(AIO_PIPE_NONBLOCK_WRITE), fromChild(AIO_PIPE_NONBLOCK_READ);
    const pid_t pid = startEcho(&toChild, &fromChild);
    ASSERT_GT(pid, 0);
    int status = -1;
    const auto ended = [](void *arg, const ChildStatus *child) {
        *static_cast<int *>(arg) = buildStatus(child);
    };
    ASSERT_EQ(registerChild(pid, ended, &status), 0);

    size_t written = 0, received = 0, wrong = 0;
    int partialWrites = 0;
    bool sawEnd = false;
    TestRequest write(toChild.writeFd, sent.data(), kEchoBytes);
    write.onDone = [&] {
        EXPECT_EQ(write.error, 0);
        written += static_cast<size_t>(write.transferred);
        if (static_cast<size_t>(write.transferred) < write.length) ++partialWrites;
        write.buffer = sent.data() + written;
        write.length = kEchoBytes - written;
        return write.error == 0 && written < kEchoBytes;
    };
    TestRequest read(fromChild.readFd, room.data(), room.size());
    read.onDone = [&] {
        EXPECT_EQ(read.error, 0);
        const auto count = static_cast<size_t>(read.transferred);
        if (received + count > kEchoBytes || std::memcmp(&sent[received], room.data(), count) != 0)
            ++wrong;
        received += count;
        sawEnd = count == 0;
        return !sawEnd;
    };
    TestTimer tick(1, [&] { startTimer(&tick); });
    startTimer(&tick);
    ASSERT_EQ(AIOWrite(&write), 0);
    ASSERT_EQ(AIORead(&read), 0);

    EXPECT_TRUE(runUntil([&] { return written == kEchoBytes; }));
    toChild.closeWriteEnd();  // cat sees the end of its input
    EXPECT_TRUE(runUntil([&] { return sawEnd && status != -1; }));
    (void)stopTimer(&tick);
    EXPECT_EQ(received, kEchoBytes);
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(status, 0);
    EXPECT_GT(partialWrites, 0);
    EXPECT_GT(tick.fired, 0);
    EXPECT_EQ(activeRecords(), 0);
}
