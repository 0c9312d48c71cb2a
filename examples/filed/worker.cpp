// Accepting, and the two ways of ending.
//
// All workers poll one listening socket. Each connection wakes several of them and one gets it; the
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

constexpr int64_t kAcceptPauseMs = 100;

int listenSocket = -1;
SchedTimer acceptPause;
SchedTimer drainLimit;

void acceptOne(void *, int fd);

[[noreturn]] void endWorker() {
    closeAllConnections("ERR RESTART this server process ends; connect again");
    leaveShare();
    exit(0);
}

void pauseAccepting() {
    (void)registerInput(listenSocket, nullptr, nullptr);
    acceptPause.func = [](SchedTimer *) {
        if (!worker::leaving) (void)registerInput(listenSocket, acceptOne, nullptr);
    };
    acceptPause.interval = kAcceptPauseMs;
    (void)restartTimer(&acceptPause);
}

// Takes one connection in each pass: the other workers have been woken too, and should get some.
void acceptOne(void *, int fd) {
    const int client = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client >= 0) return startConnection(client);
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
    // Out of descriptors or memory: the connection stays in the queue, the socket stays readable, and
    // the loop would spin on it.
    logLine("cannot accept: %s", strerror(errno));
    pauseAccepting();
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

void runWorker(int listenFd, int rootFd, BoardSlot *slot) {
    const pid_t master = getppid();
    stopAllTimers();  // the master's, inherited
    setSignals();
    if (getppid() != master) _exit(1);  // it ended before prctl() could take effect
    listenSocket = listenFd;
    worker::rootFd = rootFd;
    worker::counters = slot;
    if (!adoptShare()) {
        logLine("cannot adopt the arena: %s", strerror(errno));
        exit(1);
    }
    (void)registerInput(listenFd, acceptOne, nullptr);
    for (;;)
        (void)iosched(-1);
}
