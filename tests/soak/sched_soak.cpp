// The loop: passes, timers, children and forks.

#include "soak/soak.h"

#include "iosched/procs.h"
#include "iosched/sched.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kChildrenPerRound = 10;

int pipeEnds[2];
int reports = 0;

// Keeps the pipe active: takes the byte and puts one back.
void passOnByte(void *count, int fd) {
    char byte = 0;
    if (::read(fd, &byte, 1) != 1 || ::write(pipeEnds[1], &byte, 1) != 1) soakFailed("pipe", errno);
    ++*static_cast<int *>(count);
}

void passRound(int /*round*/) {
    int calls = 0;
    if (registerInput(pipeEnds[0], passOnByte, &calls) != 0) soakFailed("registerInput", errno);
    const int ready = iosched(-1);
    if (ready != 1 || calls != 1) soakFailed("iosched", ready);
}

// Fires once and, restarted by itself, a second time.
void timerRound(int round) {
    int fired = 0;
    SchedTimer timer{};
    timer.func = [](SchedTimer *self) {
        if (++*static_cast<int *>(self->arg) == 1) startTimer(self);
    };
    timer.arg = &fired;
    timer.interval = round % 50 == 0 ? 1 : 0;
    startTimer(&timer);
    while (fired < 2)
        (void)iosched(-1);
}

void countReport(void *expected, const ChildStatus *status) {
    if (buildStatus(status) != *static_cast<int *>(expected))
        soakFailed("child", buildStatus(status));
    ++reports;
}

void childrenRound(int round) {
    static int expected;
    expected = (round & 0x7f) << 8;
    reports = 0;
    for (int i = 0; i < kChildrenPerRound; ++i) {
        const pid_t pid = ::fork();
        if (pid == 0) ::_exit(round & 0x7f);
        if (pid == -1 || registerChild(pid, countReport, &expected) != 0) soakFailed("fork", errno);
    }
    while (reports < kChildrenPerRound)
        (void)iosched(-1);
}

void countPhase(void *phases, int phase, int /*value*/) {
    *static_cast<int *>(phases) |= 1 << phase;
}

// The child proves that its own loop works and that its hooks ran; a child of the parent's stays
// unreported in it.
void forkRound(int /*round*/) {
    static int expected = 0;
    int phases = 0;
    reports = 0;
    if (registerFork(countPhase, &phases) != 0) soakFailed("registerFork", errno);
    const pid_t pid = ioFork();
    if (pid == 0) {
        (void)iosched(0);
        ::_exit(phases == (1 << FORK_PREPARE | 1 << FORK_CHILD) ? 0 : 1);
    }
    if (pid == -1 || registerChild(pid, countReport, &expected) != 0) soakFailed("ioFork", errno);
    while (reports == 0)
        (void)iosched(-1);
    if (unRegisterFork(countPhase, &phases) != 0) soakFailed("unRegisterFork", errno);
    if (phases != (1 << FORK_PREPARE | 1 << FORK_PARENT)) soakFailed("fork hooks", phases);
}

}  // namespace

bool soakSched() {
    if (::pipe2(pipeEnds, O_NONBLOCK | O_CLOEXEC) != 0 || ::write(pipeEnds[1], "x", 1) != 1)
        soakFailed("pipe2", errno);
    bool clean = soak("passes over an active pipe", 1000000, passRound);
    if (registerInput(pipeEnds[0], nullptr, nullptr) != 0) soakFailed("registerInput", errno);
    clean = soak("timers that restart", 100000, timerRound) && clean;
    clean = soak("tens of children reaped", 1000, childrenRound) && clean;
    clean = soak("ioFork with hooks", 10000, forkRound) && clean;
    (void)::close(pipeEnds[0]);
    (void)::close(pipeEnds[1]);
    return clean;
}
