// The loop: passes, timers, children and forks.

#include "soak/soak.h"

#include "iosched/procs.h"
#include "iosched/sched.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

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
    static int calls;
    calls = 0;
    if (registerInput(pipeEnds[0], passOnByte, &calls) != 0) soakFailed("registerInput", errno);
    const int ready = iosched(-1);
    if (ready < 1 || calls != 1) soakFailed("iosched", ready);
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

int handled = 0;

// A signal that is sent as soon as the last one has been handled, and not before 100 us, comes
// through in the pass that finds it waiting or in the next, however much else is ready.
void signalStormRound(int /*round*/) {
    constexpr int kSignals = 100;
    static int *heard = static_cast<int *>(
        ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    handled = *heard = reports = 0;
    if (catchSignal(SIGUSR1, [](int) { *heard = ++handled; }) == SIG_ERR)
        soakFailed("catchSignal", errno);
    static int expected = 0;
    const pid_t loop = ::getpid(), sender = ::fork();
    for (int sent = 0; sender == 0 && sent < kSignals;) {
        if (::kill(loop, SIGUSR1) != 0) ::_exit(1);
        ++sent;
        const timespec pause{0, 100000};
        do
            (void)::nanosleep(&pause, nullptr);
        while (*static_cast<volatile int *>(heard) < sent);
    }
    if (sender == 0) ::_exit(0);
    if (registerChild(sender, countReport, &expected) != 0) soakFailed("fork", errno);
    while (reports == 0) {
        sigset_t waiting;
        (void)::sigpending(&waiting);
        const int before = handled;
        passRound(0);
        if (sigismember(&waiting, SIGUSR1) == 0 || handled != before) continue;
        passRound(0);
        if (handled == before) soakFailed("signal", handled);
    }
    if (handled != kSignals) soakFailed("signals", handled);
}

int hangUps = 0;

void countHangUp(void * /*arg*/, int fd) {
    ++hangUps;
    if (registerInput(fd, nullptr, nullptr) != 0 || ::close(fd) != 0) soakFailed("close", errno);
}

// As many idle connections as the system lets one process have, up to 10,000, lost at once.
void lostPeersRound(int /*round*/) {
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    const int pairs = static_cast<int>(std::min<rlim_t>(limit.rlim_cur - 100, 20000)) / 2;
    std::vector<int> peers;
    for (int i = 0; i < pairs; ++i) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0 ||
            registerInput(ends[0], countHangUp, nullptr) != 0)
            soakFailed("socketpair", errno);
        peers.push_back(ends[1]);
    }
    for (int pass = 0; pass < 100; ++pass)
        passRound(0);
    for (const int peer : peers)
        (void)::close(peer);
    hangUps = 0;
    const int ready = iosched(-1);
    if (ready != pairs + 1 || hangUps != pairs) soakFailed("hang-ups", hangUps);
}

}  // namespace

bool soakSched() {
    if (::pipe2(pipeEnds, O_NONBLOCK | O_CLOEXEC) != 0 || ::write(pipeEnds[1], "x", 1) != 1)
        soakFailed("pipe2", errno);
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 32767);
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0 || ResizeSchedTable() != 0)
        soakFailed("limit", errno);
    bool clean = soak("passes over an active pipe", 1000000, passRound);
    clean = soak("signals under load", 100, signalStormRound) && clean;
    clean = soak("thousands of peers lost at once", 10, lostPeersRound) && clean;
    if (registerInput(pipeEnds[0], nullptr, nullptr) != 0) soakFailed("registerInput", errno);
    clean = soak("timers that restart", 100000, timerRound) && clean;
    clean = soak("tens of children reaped", 1000, childrenRound) && clean;
    clean = soak("ioFork with hooks", 10000, forkRound) && clean;
    (void)::close(pipeEnds[0]);
    (void)::close(pipeEnds[1]);
    return clean;
}
