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

void streamRound(int /*round*/) {
    FILE *stream = ZORpopen("echo text; exit 4", "r");
    char text[16];
    if (stream == nullptr || std::fgets(text, sizeof text, stream) == nullptr)
        soakFailed("ZORpopen", errno);
    expectStatus("ZORpclose", ZORpclose(stream), 0x400);
}

int countDone(AIORequest *request) {
    ++*static_cast<int *>(request->userData);
    return 0;
}

// Every other pair of requests is cancelled.
void requestRound(int round) {
    int readFd = -1, writeFd = -1, done = 0;
    if (AIOPipe(&readFd, &writeFd, AIO_PIPE_NONBLOCK_READ | AIO_PIPE_NONBLOCK_WRITE) != 0)
        soakFailed("AIOPipe", errno);
    char bytes[2] = {static_cast<char>(round)};
    AIORequest read = {readFd, bytes + 1, 1, countDone, &done, 0, 0};
    AIORequest write = {writeFd, bytes, 1, countDone, &done, 0, 0};
    if (AIORead(&read) != 0 || AIOWrite(&write) != 0) soakFailed("AIORead", errno);
    const bool cancelled = round % 2 == 0;
    if (cancelled) {
        AIOCancelRead(&read);
        AIOCancelWrite(&write);
        (void)iosched(0);
    }
    while (!cancelled && done < 2)
        (void)iosched(-1);
    if (done != (cancelled ? 0 : 2) || (!cancelled && bytes[0] != bytes[1]))
        soakFailed("requests", done);
    (void)::close(readFd);
    (void)::close(writeFd);
}

}  // namespace

bool soakProcsAio() {
    bool clean = soak("ZORsystem", kRounds, systemRound);
    clean = soak("ZORpopen and ZORpclose", kRounds, streamRound) && clean;
    clean = soak("AIO requests", kRounds, requestRound) && clean;
    return clean;
}
