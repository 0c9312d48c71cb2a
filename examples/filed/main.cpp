// Options and start. What can fail for reasons of the caller's (port, root) is done before the
// server goes into the background, so that the message and the exit status still reach the caller.
// daemonify() comes before InitSched(): it forks plainly, and neither timers nor children nor the
// process id that the library remembers would survive that.

#include "filed.h"
#include "master.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <iosched/util.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

Settings settings;

void logLine(const char *format, ...) {
    char message[400];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(message, sizeof message, format, args);
    va_end(args);
    char clock[16];
    const time_t now = time(nullptr);
    struct tm parts;
    (void)localtime_r(&now, &parts);
    (void)strftime(clock, sizeof clock, "%H:%M:%S", &parts);
    char line[512];
    const int length = snprintf(line, sizeof line, "%s filed[%d] %s\n", clock, getpid(), message);
    // One call, so that the lines of several processes stay whole.
    (void)!write(STDERR_FILENO, line, static_cast<size_t>(length));
}

namespace {

constexpr char kUsage[] =
    "usage: filed [options]\n"
    "  -r DIR   serve the files under DIR (.)\n"
    "  -p PORT  listen on 127.0.0.1:PORT (7070); 0 takes a free port\n"
    "  -w N     worker processes (4)\n"
    "  -a FILE  the arena that the workers share (filed.arena); removed at the end\n"
    "  -k       keep the arena\n"
    "  -i SEC   close connections that are silent for so long (60)\n"
    "  -g SEC   at a restart, how long the old worker serves its connections (5)\n"
    "  -c N     connections of each worker (200)\n"
    "  -l FILE  log there instead of standard error\n"
    "  -P FILE  write \"<pid> <port>\" there when ready\n"
    "  -R       allow RUN: clients may execute any command as this user\n"
    "  -D       go into the background\n"
    "Signals: TERM and INT end the server, HUP replaces the workers one at a time,\n"
    "USR2 kills one worker (for trials).\n";

[[noreturn]] void usage(int status) {
    (void)fputs(kUsage, status == 0 ? stdout : stderr);
    exit(status);
}

int number(const char *text, int lowest, int highest) {
    char *end = nullptr;
    errno = 0;
    const long value = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < lowest || value > highest) usage(1);
    return static_cast<int>(value);
}

void parseOptions(int argc, char **argv) {
    for (int option; (option = ZORgetopt(argc, argv, "r:p:w:a:ki:g:c:l:P:RDh")) != -1;) {
        switch (option) {
        case 'r':
            settings.root = ZORoptarg;
            break;
        case 'p':
            settings.port = number(ZORoptarg, 0, 65535);
            break;
        case 'w':
            settings.workers = number(ZORoptarg, 1, kMaxWorkers);
            break;
        case 'a':
            settings.arenaPath = ZORoptarg;
            break;
        case 'k':
            settings.keepArena = true;
            break;
        case 'i':
            settings.idleMs = int64_t{1000} * number(ZORoptarg, 1, 86400);
            break;
        case 'g':
            settings.drainMs = int64_t{1000} * number(ZORoptarg, 0, 86400);
            break;
        case 'c':
            settings.maxConnections = number(ZORoptarg, 1, 10000);
            break;
        case 'l':
            settings.logFile = ZORoptarg;
            break;
        case 'P':
            settings.pidFile = ZORoptarg;
            break;
        case 'R':
            settings.allowRun = true;
            break;
        case 'D':
            settings.background = true;
            break;
        case 'h':
            usage(0);
        default:
            usage(1);
        }
    }
    if (ZORoptind < argc) usage(1);
}

// A listening socket on loopback, and nowhere else: whoever connects is trusted with the files.
int listenOn(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0) return -1;
    return listen(fd, 128) < 0 ? -1 : fd;
}

int boundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    (void)getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin_port);
}

// Standard input and output lead nowhere, standard error to the log.
bool redirectOutput() {
    if (settings.background || settings.logFile) {
        const char *path = settings.logFile ? settings.logFile : "/dev/null";
        const int log = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (log < 0 || dup2(log, STDERR_FILENO) < 0) return false;
        (void)close(log);
    }
    if (!settings.background) return true;
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) return false;
    (void)dup2(null, STDIN_FILENO);
    (void)dup2(null, STDOUT_FILENO);
    if (null > STDERR_FILENO) (void)close(null);
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    parseOptions(argc, argv);
    const int rootFd = open(settings.root, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (rootFd < 0) {
        logLine("cannot open the directory %s: %s", settings.root, strerror(errno));
        return 1;
    }
    const int listenFd = listenOn(settings.port);
    if (listenFd < 0) {
        logLine("cannot listen on 127.0.0.1:%d: %s", settings.port, strerror(errno));
        return 1;
    }
    settings.port = boundPort(listenFd);
    (void)printf("filed: serving %s on 127.0.0.1:%d\n", settings.root, settings.port);
    (void)fflush(stdout);  // what stays in the buffer would be written by every child too
    if (settings.background && daemonify() < 0) {
        logLine("cannot go into the background: %s", strerror(errno));
        return 1;
    }
    if (!redirectOutput()) {
        logLine("cannot open the log %s: %s", settings.logFile, strerror(errno));
        return 1;
    }
    char message[128];
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, message, sizeof message) != 0) {
        logLine("%s", message);
        return 1;
    }
    return runMaster(listenFd, rootFd);
}
