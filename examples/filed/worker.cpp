// Accepting, and the two ways of ending.
//
// All workers poll one listening socket. A connection wakes several of them and one gets it; the
// others find nothing there, which is why the socket is non-blocking.
//
// The worker ends from inside a callback, with exit(): its loop may be nested in any number of
// sleeping commands at that moment, and their frames have nothing left to do.

#include "worker.h"
#include "connection.h"
#include "filed.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace worker {
BoardSlot *counters;
int rootFd = -1;
bool leaving;
}  // namespace worker

namespace {

constexpr int64_t kStepBackMs = 2;       // leaves a connection to a worker that has fewer
constexpr int64_t kNoRoomPauseMs = 100;  // out of descriptors or memory

int listenSocket = -1;
SchedTimer acceptPause;
SchedTimer drainLimit;

void acceptOne(void *, int fd);

[[noreturn]] void endWorker() {
    closeAllConnections("ERR RESTART this server process ends; connect again");
    leaveShare();
    exit(0);
}

void pauseAccepting(int64_t ms) {
    (void)registerInput(listenSocket, nullptr, nullptr);
    acceptPause.func = [](SchedTimer *) {
        if (!worker::leaving) (void)registerInput(listenSocket, acceptOne, nullptr);
    };
    acceptPause.interval = ms;
    (void)restartTimer(&acceptPause);
}

bool othersHaveFewer() {
    const uint64_t mine = worker::counters->connections;
    for (const BoardSlot &slot : share.board->slots)
        if (slot.pid != 0 && !slot.leaving && slot.connections + 1 < mine) return true;
    return false;
}

// The worker that happens to be quickest would get nearly all connections. So one that has more than
// another looks away for a moment, once, and takes what is still waiting then.
void acceptOne(void *, int fd) {
    static bool lookedAway;
    lookedAway = !lookedAway && othersHaveFewer();
    if (lookedAway) return pauseAccepting(kStepBackMs);
    const int client = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client >= 0) return startConnection(client);
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
    // Out of descriptors or memory: the connection stays in the queue, the socket stays readable, and
    // the loop would spin on it.
    logLine("cannot accept: %s", strerror(errno));
    pauseAccepting(kNoRoomPauseMs);
}

void onTerminate(int) {
    endWorker();
}

void onLeave(int) {
    if (worker::leaving) return;
    worker::leaving = true;
    (void)stopTimer(&acceptPause);
    (void)registerInput(listenSocket, nullptr, nullptr);
    (void)close(listenSocket);  // ours only: the queue lives on in the master's
    drainLimit.func = [](SchedTimer *) { endWorker(); };
    drainLimit.interval = settings.drainMs;
    startTimer(&drainLimit);
    worker::connectionEnded();
}

// Signals that are the master's business or mean nothing. A callback is better than SIG_IGN here:
// programs that RUN starts would inherit SIG_IGN, while a caught signal is the default for them.
void ignore(int) {}

void setSignals() {
    for (const int sig : {SIGINT, SIGHUP, SIGPIPE, SIGUSR2})
        (void)catchSignal(sig, ignore);
    (void)catchSignal(SIGTERM, onTerminate);
    (void)catchSignal(SIGUSR1, onLeave);
    // Without its master a worker would go on for ever, and nobody would clean up after it.
    (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
}

}  // namespace

void worker::connectionEnded() {
    if (worker::leaving && connectionCount() == 0) endWorker();
}

void runWorker(pid_t master, int listenFd, int rootFd, BoardSlot *slot) {
    stopAllTimers();  // the master's, inherited
    setSignals();
    if (getppid() != master) _exit(1);  // it ended before prctl() could take effect
    listenSocket = listenFd;
    worker::rootFd = rootFd;
    worker::counters = slot;
    slot->pid = getpid();  // the master writes the same, perhaps after we have served somebody
    if (!adoptShare()) {
        logLine("cannot adopt the arena: %s", strerror(errno));
        exit(1);
    }
    (void)registerInput(listenFd, acceptOne, nullptr);
    for (;;)
        (void)iosched(-1);
}
