#include "background.h"
#include "service.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iosched/procs.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The last byte that the launcher gets from a server that serves. No line of the log has it.
constexpr char kServing = '\0';

int launcher = -1;   // the server's end of the way to the program that was started; -1 = none waits
int serverEnd = -1;  // the other end, in the program that was started
pid_t launcherPid;

void saySo() {
    (void)dprintf(STDOUT_FILENO, "%s: %s\n", service.name, service.offer.c_str());
}

// daemonify() ends the calling process with exit(), which comes by here.
void awaitServer() {
    if (getpid() != launcherPid) return;  // the server, or a child of its
    (void)close(launcher);                // so that the server's end is heard
    std::string heard;
    char bytes[512];
    for (ssize_t got; (got = recv(serverEnd, bytes, sizeof bytes, 0)) != 0;) {
        if (got < 0 && errno != EINTR) break;
        if (got > 0) heard.append(bytes, static_cast<size_t>(got));
        if (!heard.ends_with(kServing)) continue;
        saySo();
        return;
    }
    (void)!write(STDERR_FILENO, heard.data(), heard.size());
    _exit(1);
}

}  // namespace

bool goIntoBackground() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) return false;
    launcher = ends[0];
    serverEnd = ends[1];
    launcherPid = getpid();
    if (atexit(awaitServer) != 0) return false;
    if (daemonify() < 0) {
        launcherPid = 0;
        return false;
    }
    (void)close(serverEnd);
    launcherPid = 0;  // or a worker that once gets its number would take itself for it
    return true;
}

void nowServing() {
    if (launcher < 0) return saySo();
    tellLauncher(&kServing, 1);
    forgetLauncher();
}

void forgetLauncher() {
    if (launcher >= 0) (void)close(launcher);
    launcher = -1;
}

void tellLauncher(const char *line, unsigned long length) {
    if (launcher >= 0) (void)send(launcher, line, length, MSG_NOSIGNAL);
}
