// Commands, streams and asynchronous requests.

#include "soak/soak.h"

#include "iosched/aio.h"
#include "iosched/procs.h"
#include "iosched/sched.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr int kRounds = 1000;

void expectStatus(const char *what, int status, int expected) {
    if (status != expected) soakFailed(what, status);
}

void systemRound(int round) {
    const char *commands[] = {"true", "exit 3", "no-such-program"};
    const int statuses[] = {0, 0x300, 0x7f00};
    expectStatus("ZORsystem", ZORsystem(commands[round % 3]), statuses[round % 3]);
}

void readStreamRound(int /*round*/) {
    FILE *stream = ZORpopen("echo text; exit 4", "r");
    char text[16];
    if (stream == nullptr || std::fgets(text, sizeof text, stream) == nullptr)
        soakFailed("ZORpopen", errno);
    expectStatus("ZORpclose", ZORpclose(stream), 0x400);
}

void writeStreamRound(int /*round*/) {
    FILE *stream = ZORpopen("cat > /dev/null", "w");
    if (stream == nullptr || std::fputs("text", stream) < 0) soakFailed("ZORpopen", errno);
    expectStatus("ZORpclose", ZORpclose(stream), 0);
}

int countDone(AIORequest *request) {
    ++*static_cast<int *>(request->userData);
    return 0;
}

struct RequestPair {
    explicit RequestPair(int round) {
        if (AIOPipe(&readFd, &writeFd, AIO_PIPE_NONBLOCK_READ | AIO_PIPE_NONBLOCK_WRITE) != 0)
            soakFailed("AIOPipe", errno);
        bytes[0] = static_cast<char>(round);
        read = {readFd, bytes + 1, 1, countDone, &done, 0, 0};
        write = {writeFd, bytes, 1, countDone, &done, 0, 0};
        if (AIORead(&read) != 0 || AIOWrite(&write) != 0) soakFailed("AIORead", errno);
    }
    ~RequestPair() {
        ::close(readFd);
        ::close(writeFd);
    }
    RequestPair(const RequestPair &) = delete;
    RequestPair &operator=(const RequestPair &) = delete;

    int readFd = -1, writeFd = -1;
    int done = 0;
    char bytes[2] = {};
    AIORequest read, write;
};

void finishedRequestRound(int round) {
    RequestPair pair(round);
    while (pair.done < 2)
        (void)iosched(-1);
    if (pair.bytes[0] != pair.bytes[1]) soakFailed("AIORead", pair.bytes[1]);
}

void cancelledRequestRound(int round) {
    RequestPair pair(round);
    AIOCancelRead(&pair.read);
    AIOCancelWrite(&pair.write);
    (void)iosched(0);
    if (pair.done != 0) soakFailed("AIOCancelRead", pair.done);
}

}  // namespace

bool soakProcsAio() {
    bool clean = soak("ZORsystem", kRounds, systemRound);
    clean = soak("ZORpopen and ZORpclose, reading", kRounds, readStreamRound) && clean;
    clean = soak("ZORpopen and ZORpclose, writing", kRounds, writeStreamRound) && clean;
    clean = soak("AIO requests, finished", kRounds, finishedRequestRound) && clean;
    clean = soak("AIO requests, cancelled", kRounds, cancelledRequestRound) && clean;
    return clean;
}
