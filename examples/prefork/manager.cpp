#include "manager.h"
#include "service.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iosched/util.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kFirstPassed = 3;  // by contract

int manager = -1;

// The number in an environment variable; -1 if there is none.
long numberIn(const char *variable) {
    const char *text = getenv(variable);
    return text ? strtol(text, nullptr, 10) : -1;
}

}  // namespace

int listenSocketOfManager(int *port) {
    const long count = numberIn("LISTEN_PID") == getpid() ? numberIn("LISTEN_FDS") : 0;
    if (count <= 0) return -1;
    if (count > 1) {
        logLine("the service manager passes %ld sockets: give the unit one ListenStream=", count);
        exit(1);
    }
    int listens = 0;
    socklen_t length = sizeof listens;
    if (getsockopt(kFirstPassed, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) != 0 ||
        listens == 0) {
        errno = EINVAL;
        giveUp("listen on", "the service manager's descriptor: Accept=no is wanted");
    }
    sockaddr_in address{};
    length = sizeof address;
    (void)getsockname(kFirstPassed, reinterpret_cast<sockaddr *>(&address), &length);
    *port = address.sin_family == AF_INET ? ntohs(address.sin_port) : 0;
    (void)fcntl(kFirstPassed, F_SETFD, FD_CLOEXEC);
    (void)SetBlockingMode(kFirstPassed, 0);
    return kFirstPassed;
}

void findManager() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const char *path = getenv("NOTIFY_SOCKET");
    const size_t length = path ? strlen(path) : 0;
    if (length > 1 && length < sizeof address.sun_path) {
        memcpy(address.sun_path, path, length);
        if (path[0] == '@') address.sun_path[0] = '\0';  // a name without a file
        manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (connect(manager, reinterpret_cast<const sockaddr *>(&address),
                    static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length)) != 0)
            logLine("cannot tell the service manager at %s: %s", path, strerror(errno));
    }
    for (const char *variable : {"NOTIFY_SOCKET", "LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"})
        (void)unsetenv(variable);
}

void tellManager(const char *state) {
    if (manager >= 0) (void)send(manager, state, strlen(state), MSG_NOSIGNAL);
}
