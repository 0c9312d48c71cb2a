// Asynchronous requests: scripts on two connections, and much data through a child and back.
#include "aio/aio_internal.h"
#include "iosched/aio.h"
#include "support/alloc_wrap.h"
#include "support/loop.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <sys/socket.h>
#include <vector>

namespace {

// A request with a function object as its completion function.
struct TestRequest : AIORequest {
    TestRequest(int descriptor, void *bytes, size_t count, std::function<int()> action = {})
        : AIORequest{descriptor, bytes, count, done, this, -7, -7}, onDone(std::move(action)) {}
    static int done(AIORequest *request) {
        const auto *self = static_cast<TestRequest *>(request);
        EXPECT_EQ(self->userData, self);
        return self->onDone ? self->onDone() : 0;
    }

    std::function<int()> onDone;
};

// The number of records, once the list has been found sound in both directions.
int lengthOf(const ListLink &head) {
    int length = 0;
    for (const ListLink *link = head.next; link != &head; link = link->next, ++length)
        EXPECT_EQ(link->next->prev, link);
    EXPECT_EQ(head.next->prev, &head);
    return length;
}

// Plays a script with requests a, b, ... and the connections 1 and 2 (0: no descriptor). Its words:
//     ra1  start reading at most 2 bytes of 1   wb2  start writing 3 bytes to 2
//     ca   cancel the read of a                 xb   cancel the write of b
//     +1   a byte comes: 'a', 'b', ...          k1   the other end is closed
//     i1   the program watches 1, and takes     n1   nobody watches 1
//          a byte of each connection if called  s    the library is ended and started again
//     .    a pass                               =    a completion ends: go on with the request
//     fa   a is freed
// A completion of a plays the next script of its own. What is logged: completions as "a:" with the
// bytes read, their number if written, or "!" and the error; starts that fail as "!" and the error;
// calls of the program as "1"; after each pass the number of active requests, as "/1".
class Requests {
public:
    explicit Requests(const char *onDone) : onDone_(onDone) {
        for (int *ends : {ends_[1], ends_[2]})
            EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    }
    ~Requests() {
        for (int *ends : {ends_[1], ends_[2]}) {
            (void)registerInput(ends[0], nullptr, nullptr);
            (void)registerOutput(ends[0], nullptr, nullptr);
            for (int end : {0, 1})
                ::close(ends[end]);
        }
    }
    Requests(const Requests &) = delete;
    Requests &operator=(const Requests &) = delete;
    std::string played(const char *script) {
        (void)play(script);
        return log_;
    }

private:
    TestRequest &request(char name) {
        auto &made = requests_[name];
        if (made == nullptr)
            made =
                std::make_unique<TestRequest>(-1, buffers_[0], 0, [=, this] { return done(name); });
        return *made;
    }
    bool play(const std::string &script) {
        std::istringstream words(script);
        std::string word;
        while (words >> word && word != "=")
            step(word[0], word[1], word.back() - '0');
        return word == "=";
    }
    void step(char verb, char name, int place) {
        const int *ends = ends_[place < 0 || place > 2 ? 0 : place];
        // clang-format off
        switch (verb) {
        case 'r': return start(AIORead, name, ends[0], 2);
        case 'w': return start(AIOWrite, name, ends[0], 3);
        case 'c': return AIOCancelRead(&request(name));
        case 'x': return AIOCancelWrite(&request(name));
        case '+': return (void)!::write(ends[1], &bytes_[next_++], 1);
        case 'k': return (void)::shutdown(ends[1], SHUT_RDWR);
        case 'i': return (void)registerInput(ends[0], programCalled, this);
        case 'n': return (void)registerInput(ends[0], nullptr, nullptr);
        case 's': return ExitSched() == 0 ? startLibrary() : std::abort();
        case 'f': return (void)requests_.erase(name);
        default: log_ += "/" + std::to_string((iosched(0), lengthOf(aioQueueHead))) + " ";
        }
        // clang-format on
    }
    void start(int (*function)(AIORequest *), char name, int fd, size_t length) {
        TestRequest &started = request(name);
        started.fd = fd;
        started.length = length;
        errno = 0;
        if (const int result = function(&started); result == -1)
            log_ += "!" + std::to_string(errno) + " ";
        else
            EXPECT_EQ(result, 0);
    }
    int done(char name) {
        TestRequest &finished = request(name);
        const bool isRead = finished.length == 2;
        const auto count = static_cast<size_t>(finished.transferred);
        const char *bytes = static_cast<char *>(finished.buffer);
        log_ += std::string(1, name) + ":";
        log_ += finished.error != 0 ? "!" + std::to_string(finished.error)
                : isRead            ? std::string(bytes, count)
                                    : std::to_string(count);
        log_ += " ";
        finished.buffer = buffers_[bytes == buffers_[0]];  // for the next transfer
        std::string script;
        if (name == 'a') std::getline(onDone_, script, '|');
        return play(script) ? 1 : 0;
    }
    static void programCalled(void *self, int fd) {
        auto *requests = static_cast<Requests *>(self);
        char byte;
        requests->log_ += fd == requests->ends_[1][0] ? "1 " : "2 ";
        for (const int *ends : {requests->ends_[1], requests->ends_[2]})
            (void)!::read(ends[0], &byte, 1);
    }

    std::istringstream onDone_;
    std::string log_;
    const char bytes_[5] = "abcd";
    int next_ = 0;
    char buffers_[2][4] = {};
    int ends_[3][2] = {{-1, -1}, {-1, -1}, {-1, -1}};
    std::map<char, std::unique_ptr<TestRequest>> requests_;
};

using Aio = LoopTest;

}  // namespace

TEST_F(Aio, RequestsAreServedWhateverTheirCompletionsDo) {
    (void)catchSignal(SIGPIPE, SIG_IGN);
    const struct {
        const char *script, *onDone, *log;
    } kRows[] = {
        // One transfer for each time that it is ready, with the buffer of the moment, to the end.
        {"ra1 . +1 +1 +1 . . k1 . .", "=|=", "/1 a:ab /1 a:c /1 a: /0 /0 "},
        {"wb1 ra1 . . +1 . .", "", "b:3 /1 /1 a:a /0 /0 "},
        {"ra1 wb1 . +1 wb1 xa xb .", "", "b:3 /1 a:a /0 "},
        // A transfer that fails is told; whether to go on is the completion's affair.
        {"k1 wa1 . . .", "=", "a:!32 /1 a:!32 /0 /0 "},
        // What somebody else has taken is no transfer.
        {"i1 ra2 +1 +2 . +2 .", "", "1 /1 a:c /0 "},
        // Completions cancel, free, restart, run passes, and are not entered again.
        {"ra1 +1 . +1 .", "ca fa", "a:a /0 /0 "},
        {"ra1 +1 . +1 .", "ca fa =", "a:a /0 /0 "},
        {"ra1 +1 . +1 . +1 . .", "ca ra1|ca rb1", "a:a /1 a:b /1 b:c /0 /0 "},
        {"ra1 +1 . .", "+1 . =|.", "a:a /1 /1 a:b /1 /0 "},
        // Moved elsewhere it stays there.
        {"ra1 +1 . +1 . +2 . +2 .", "n1 ra2|n1", "a:a /1 /1 a:c /0 /0 "},
        // One that has lost its place is idle: it may start, and cancelling leaves the place alone.
        {"ra1 +1 . +1 . rb1 .", "rb1", "a:a /1 /1 b:b /0 "},
        {"rb1 i1 rb1 ra1 cb ra1 +1 . .", "", "!114 a:a /0 /0 "},
        {"i1 ca xa +1 . ra1 +1 . i1 ca +1 .", "", "1 /0 a:b /0 1 /0 "},
        // An active one is refused; one that cannot start leaves nothing; a new start keeps it.
        {"ra1 ra1 wb1 wb1 +1 .", "", "!114 !114 a:a b:3 /0 "},
        {"ra0 wa0 .", "", "!22 !22 /0 "},
        {"ra1 s . +1 . .", "", "/1 a:a /0 /0 "},
    };
    for (const auto &row : kRows) {
        EXPECT_EQ(Requests(row.onDone).played(row.script), row.log)
            << row.script << " / " << row.onDone;
    }
    EXPECT_EQ(lengthOf(aioQueueFree), 2) << "no row needs more at a time";
}

TEST_F(Aio, RecordsArePooledAndCountTheirReleases) {
    int ends[2];
    ASSERT_EQ(AIOPipe(&ends[0], &ends[1], 3), 0);
    TestRequest read(ends[0], ends, 1), write(ends[1], ends, 1);
    ASSERT_EQ(AIORead(&read), 0);
    ASSERT_EQ(AIOWrite(&write), 0);
    const AIOData *record = findAIODataForRead(&read), *other = findAIODataForWrite(&write);
    const unsigned long allocations = allocationCount;
    for (uint32_t round = 0; round < 10; ++round) {
        EXPECT_EQ(aioQueueHead.prev, round == 0 ? other : record) << "in the order of starting";
        EXPECT_EQ(record->generation, round);
        AIOCancelRead(&read);
        EXPECT_EQ(record->generation, round + 1);
        EXPECT_TRUE(lengthOf(aioQueueFree) == 1 && !record->readRequest);
        ASSERT_EQ(AIORead(&read), 0);
        EXPECT_EQ(findAIODataForRead(&read), record);
    }
    EXPECT_EQ(allocationCount, allocations);
    AIOCancelWrite(&write);
    EXPECT_EQ(other->writeRequest, nullptr) << "the next user of the record may be a read";
    for (int flags = 0; flags <= 3; ++flags) {
        ASSERT_EQ(AIOPipe(&ends[0], &ends[1], flags), 0);
        EXPECT_EQ(::fcntl(ends[0], F_GETFL) & O_NONBLOCK, flags & 1 ? O_NONBLOCK : 0);
        EXPECT_EQ(::fcntl(ends[1], F_GETFL) & O_NONBLOCK, flags & 2 ? O_NONBLOCK : 0);
    }
    const DescriptorLimit none(lowestFreeDescriptor());
    EXPECT_EQ(AIOPipe(&ends[0], &ends[1], 3), -1);
    EXPECT_TRUE(errno == EMFILE && ends[0] == -1 && ends[1] == -1);
}

TEST_F(Aio, SixtyFourMebibytesComeBackThroughAChildWhileATimerGoesOn) {
    constexpr size_t kBytes = size_t{64} << 20, kReadBytes = size_t{256} << 10;
    std::vector<char> sent(kBytes), received(kBytes + kReadBytes);
    std::minstd_rand random(7);
    for (size_t at = 0; at < kBytes; at += 64)
        sent[at] = static_cast<char>(random());
    int to[2], from[2];
    ASSERT_EQ(AIOPipe(&to[0], &to[1], AIO_PIPE_NONBLOCK_WRITE), 0);
    ASSERT_EQ(AIOPipe(&from[0], &from[1], AIO_PIPE_NONBLOCK_READ), 0);
    for (const int fd : {to[1], from[0]})
        EXPECT_EQ(::fcntl(fd, F_SETFD, FD_CLOEXEC), 0);
    SpawnOptions options{};
    options.flags = SPAWN_STDIN | SPAWN_STDOUT;
    options.stdinFd = to[0];
    options.stdoutFd = from[1];
    const ReportedChild echo(spawnProcess(&options, "cat"));
    ::close(to[0]);
    ::close(from[1]);
    size_t written = 0, arrived = 0;
    int partialWrites = 0;
    TestRequest write(to[1], sent.data(), kBytes);
    write.onDone = [&] {
        EXPECT_EQ(write.error, 0);
        written += static_cast<size_t>(write.transferred);
        if (static_cast<size_t>(write.transferred) < write.length) ++partialWrites;
        write.buffer = sent.data() + written;
        write.length = kBytes - written;
        if (written == kBytes) ::close(to[1]);  // cat sees the end of its input
        return write.error == 0 && written < kBytes;
    };
    TestRequest read(from[0], received.data(), kReadBytes);
    read.onDone = [&] {
        EXPECT_EQ(read.error, 0);
        arrived += static_cast<size_t>(read.transferred);
        read.buffer = received.data() + std::min(arrived, kBytes);
        return read.transferred != 0;
    };
    TestTimer tick(1, [&] { startTimer(&tick); });
    startTimer(&tick);
    ASSERT_EQ(AIOWrite(&write), 0);
    ASSERT_EQ(AIORead(&read), 0);
    EXPECT_EQ(echo.await(), 0);
    EXPECT_TRUE(runUntil([] { return lengthOf(aioQueueHead) == 0; }));
    EXPECT_EQ(arrived, kBytes);
    EXPECT_EQ(std::memcmp(sent.data(), received.data(), kBytes), 0);
    EXPECT_GT(partialWrites, 0);
    EXPECT_GT(tick.fired, 0);
}
