// From a command line to a service, in an order that matters: first what may need root (the
// server's own port, the log), then the process becomes an ordinary user, and all else it does as
// that user. daemonify() comes before InitSched(): it forks plainly, and neither timers nor
// children nor the process id that the library remembers would survive that.

#include "background.h"
#include "common/options.h"
#include "errand.h"
#include "identity.h"
#include "manager.h"
#include "master.h"
#include "service.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iosched/sched.h>
#include <unistd.h>

Service service;

namespace {

constexpr int kLogFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;

}  // namespace

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
    const auto length = static_cast<size_t>(
        snprintf(line, sizeof line, "%s %s[%d] %s\n", clock, service.name, getpid(), message));
    // One call, so that the lines of several processes stay whole.
    (void)!write(STDERR_FILENO, line, length);
    tellLauncher(line, length);
}

void giveUp(const char *what, const std::string &which) {
    logLine("cannot %s %s: %s", what, which.c_str(), strerror(errno));
    exit(1);
}

void takeServiceOption(const Options &options, int letter, const char *value) {
    switch (letter) {
    case 'u':
        service.user = value;
        return;
    case 'w':
        service.workers = options.number(letter, value, 1, kMaxWorkers);
        return;
    case 'a':
        service.arenaPath = value;
        return;
    case 'k':
        service.keepArena = true;
        return;
    case 'g':
        service.drainMs = int64_t{1000} * options.number(letter, value, 0, 86400);
        return;
    case 'l':
        service.logFile = value;
        return;
    case 'P':
        service.pidFile = value;
        return;
    case 'D':
        service.background = true;
        return;
    case 'A':
        service.repairTool = value;
        return;
    case '-':
        if (strcmp(value, "stop-stalled") != 0) options.commonWord(value);
        service.stopStalled = true;
        return;
    default:
        exit(1);  // the parser has said why
    }
}

namespace {

std::string logPath;  // absolute: in the background the working directory is another one

// The log of a server in the background goes nowhere unless a file is named.
int openLog() {
    if (!service.background && !service.logFile) return -1;
    const char *path = service.logFile ? service.logFile : "/dev/null";
    const int log = open(path, kLogFlags, 0600);
    if (log < 0) giveUp("open the log", path);
    char *const absolute = realpath(path, nullptr);
    if (service.logFile && absolute) logPath = absolute;
    free(absolute);
    return log;
}

// Standard error becomes the log; in the background standard input and output lead nowhere.
bool redirect(int log) {
    if (log >= 0 && dup2(log, STDERR_FILENO) < 0) return false;
    if (log >= 0) (void)close(log);
    if (!service.background) return true;
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) return false;
    (void)dup2(null, STDIN_FILENO);
    (void)dup2(null, STDOUT_FILENO);
    if (null > STDERR_FILENO) (void)close(null);
    return true;
}

}  // namespace

void reopenLog() {
    if (logPath.empty()) return;
    const int log = open(logPath.c_str(), kLogFlags, 0600);
    if (log < 0 || dup2(log, STDERR_FILENO) < 0)
        logLine("cannot open the log %s anew: %s; this one goes on", logPath.c_str(),
                strerror(errno));
    if (log >= 0) (void)close(log);
}

int runService() {
    if (!service.user && geteuid() == 0) service.user = "nobody";
    findManager();
    findRepairTool();
    const int log = openLog();
    if (service.user && !becomeUser(service.user)) return 1;
    if (service.mayServe && !service.mayServe()) giveUp("start", service.offer);
    if (service.background && !goIntoBackground()) giveUp("go into", "the background");
    if (!redirect(log)) giveUp("write to", "the log");
    char message[128];
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, message, sizeof message) != 0) {
        logLine("%s", message);
        return 1;
    }
    return runMaster();
}
