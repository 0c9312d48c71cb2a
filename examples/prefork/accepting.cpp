// A connection wakes several workers and one gets it; the others find nothing there, which is why
// the socket is non-blocking. Connections that come in a burst are accepted several in a pass, or
// else the queue would fill: what the kernel drops there comes again after a second, or two, or
// four.

#include "accepting.h"
#include "life.h"
#include "service.h"

#include <cerrno>
#include <cstring>
#include <iosched/sched.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int64_t kStepBackMs = 2;       // leaves a connection to a worker that has fewer
constexpr int64_t kNoRoomPauseMs = 100;  // out of descriptors or memory

int listenSocket = -1;
int acceptsPerPass;
uint64_t spareConnections;
void (*startClient)(int client);
SchedTimer acceptPause;

void acceptSome(void *, int fd);

void pauseAccepting(int64_t ms) {
    (void)registerInput(listenSocket, nullptr, nullptr);
    acceptPause.func = [](SchedTimer *) { (void)registerInput(listenSocket, acceptSome, nullptr); };
    acceptPause.interval = ms;
    (void)restartTimer(&acceptPause);
}

bool othersHaveFewer() {
    const uint64_t mine = worker::counters->connections;
    for (const BoardSlot &slot : share.board->slots)
        if (slot.pid != 0 && !slot.leaving && slot.connections + spareConnections < mine)
            return true;
    return false;
}

// The worker that happens to be quickest would get nearly all connections. So one that has more
// than another looks away for a moment, once, and takes what is still waiting then.
void acceptSome(void *, int fd) {
    static bool lookedAway;
    lookedAway = !lookedAway && othersHaveFewer();
    if (lookedAway) return pauseAccepting(kStepBackMs);
    for (int accepts = 0; accepts < acceptsPerPass; accepts++) {
        const int client = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client >= 0) {
            startClient(client);
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno == EAGAIN) return;
        // Out of descriptors or memory: the connection stays in the queue, the socket stays
        // readable, and the loop would spin on it.
        logLine("cannot accept: %s", strerror(errno));
        return pauseAccepting(kNoRoomPauseMs);
    }
}

}  // namespace

int listenOn(int domain, const sockaddr *address, unsigned int size) {
    const int fd = socket(domain, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return bind(fd, address, size) == 0 && listen(fd, SOMAXCONN) == 0 ? fd : -1;
}

int listenOnLoopback(int *port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(*port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *any = reinterpret_cast<sockaddr *>(&address);
    socklen_t length = sizeof address;
    const int fd = listenOn(AF_INET, any, length);
    if (fd >= 0 && getsockname(fd, any, &length) == 0) *port = ntohs(address.sin_port);
    return fd;
}

void worker::acceptFrom(int listener, int perPass, unsigned int spare, void (*start)(int client)) {
    listenSocket = listener;
    acceptsPerPass = perPass;
    spareConnections = spare;
    startClient = start;
    (void)registerInput(listener, acceptSome, nullptr);
}

void worker::acceptNoMore() {
    (void)stopTimer(&acceptPause);
    (void)registerInput(listenSocket, nullptr, nullptr);
    (void)close(listenSocket);
}
