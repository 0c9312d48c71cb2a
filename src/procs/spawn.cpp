// Starting programs: fork, prepare the child, exec.
//
// The parent blocks every signal around the fork and the child gives its handlers back before it
// lets signals in: one taken in between would write into the parent's self-pipe or run the parent's
// callback in a half-made child. The child touches none of the library's tables and ends with
// _exit, so that the parent's buffers and exit handlers are left to the parent.

#include "iosched/procs.h"

#include "sched/sched_internal.h"
#include "support/guards.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <type_traits>
#include <unistd.h>

namespace {

// A command with any of these is a shell command line.
constexpr char specialChars[] = " \t\r\n$*?[]{}<>|&;~()'`\"";
static_assert(sizeof specialChars == 22 + 1);

constexpr int kCannotStart = 127;  // the child's exit status when it cannot become the program

static_assert(std::is_same_v<gid_t, uint32_t>, "the caller's group list is passed on as it is");

// The results are not looked at: the program finds a descriptor missing.
void putOnNullDevice() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        (void)::close(fd);
    (void)::open("/dev/null", O_RDWR);  // the lowest free one: descriptor 0
    (void)::dup2(STDIN_FILENO, STDOUT_FILENO);
    (void)::dup2(STDIN_FILENO, STDERR_FILENO);
}

// A source is a descriptor that the caller named, its target is 0, 1 or 2. One source may serve two
// targets, so no source is closed before all targets are in place; one that is 0, 1 or 2 itself is
// a standard descriptor of the program and stays open.
void redirectStandardFds(const SpawnOptions &options) {
    const struct {
        uint32_t flag;
        int source;
        int target;
    } redirections[] = {{SPAWN_STDIN, options.stdinFd, STDIN_FILENO},
                        {SPAWN_STDOUT, options.stdoutFd, STDOUT_FILENO},
                        {SPAWN_STDERR, options.stderrFd, STDERR_FILENO}};
    for (const auto &r : redirections)
        if ((options.flags & r.flag) != 0 && r.source != r.target) (void)::dup2(r.source, r.target);
    for (const auto &r : redirections)
        if ((options.flags & r.flag) != 0 && r.source > STDERR_FILENO) (void)::close(r.source);
}

// Directory before identity, since the new user may not be allowed to look there, and groups before
// the user, who may not change them. False at the first step that fails.
bool changeDirectoryAndIdentity(const SpawnOptions &options, uint32_t extFlags) {
    const uint32_t flags = options.flags;
    if ((flags & SPAWN_CHDIR) != 0 && ::chdir(options.directory) == -1) return false;
    if ((flags & SPAWN_SETGID) != 0 && ::setgid(options.gid) == -1) return false;
    if ((flags & SPAWN_SETGROUPS) != 0 &&
        ::setgroups(static_cast<size_t>(options.groupCount), options.groups) == -1)
        return false;
    if ((flags & SPAWN_SETUID) != 0 && ::setuid(options.uid) == -1) return false;
    if ((extFlags & SPAWN_EXT_SETSID) != 0 && ::setsid() == -1) return false;
    return (extFlags & SPAWN_EXT_SETPGRP) == 0 || ::setpgid(0, ::getpid()) == 0;
}

// Returns only when the program cannot be executed.
void execute(const SpawnOptions &options, uint32_t extFlags, const char *command) {
    constexpr char *kEnd = nullptr;
    const bool isPath = (extFlags & SPAWN_EXT_NOPATH) != 0;
    if ((options.flags & SPAWN_ARGV) != 0) {
        if (isPath)
            (void)::execv(command, options.argv);
        else
            (void)::execvp(command, options.argv);
    } else if (isPath) {
        (void)::execl(command, command, kEnd);
    } else if (std::strpbrk(command, specialChars) != nullptr) {
        (void)::execl("/bin/sh", "sh", "-c", command, kEnd);
    } else {
        (void)::execlp(command, command, kEnd);
    }
}

// The child's side, with all signals blocked.
[[noreturn]] void becomeProgram(const SpawnOptions &options, const char *command) {
    const uint32_t extFlags = (options.flags & SPAWN_EXTFLAGS) != 0 ? options.extFlags : 0;
    forgetCaughtSignalsInChild();
    if ((extFlags & SPAWN_EXT_DEVNULL) != 0)
        putOnNullDevice();
    else
        redirectStandardFds(options);
    if (!changeDirectoryAndIdentity(options, extFlags)) ::_exit(kCannotStart);
    if ((options.flags & SPAWN_PUTENV) != 0) {
        for (char *const *setting = options.environment; *setting != nullptr; ++setting)
            (void)::putenv(*setting);
    }
    (void)enableSignals();  // the program starts with nothing blocked
    execute(options, extFlags, command);
    ::_exit(kCannotStart);
}

}  // namespace

pid_t spawnProcess(const SpawnOptions *options, const char *command) {
    if (command == nullptr) {
        errno = EINVAL;
        return -1;
    }
    static constexpr SpawnOptions kNoOptions{};
    sigset_t all, former;
    (void)sigfillset(&all);
    (void)::pthread_sigmask(SIG_SETMASK, &all, &former);
    const pid_t pid = ::fork();
    if (pid == 0) becomeProgram(options != nullptr ? *options : kNoOptions, command);
    ErrnoGuard keep;  // what has been waiting runs its handlers now
    (void)::pthread_sigmask(SIG_SETMASK, &former, nullptr);
    return pid;
}
