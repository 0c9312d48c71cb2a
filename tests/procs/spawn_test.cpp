#include "procs/program.h"
#include "procs/syscall_wrap.h"
#include "support/in_child.h"
#include "support/scratch_dir.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <pthread.h>
#include <sys/resource.h>

namespace {

using Spawn = LoopTest;

struct Result {
    std::string output;
    int status;
};

// Runs a program with its standard output in a pipe.
Result run(SpawnOptions options, const char *command) {
    PlainPipe pipe;
    options.flags |= SPAWN_STDOUT;
    options.stdoutFd = pipe.writeEnd();
    const pid_t pid = spawnProcess(&options, command);
    EXPECT_GT(pid, 0);
    std::string output = pipe.rest();
    return {output, statusOf(pid)};
}

// Runs a shell script with these options.
Result runScript(SpawnOptions options, const std::string &script) {
    char sh[] = "sh", dashC[] = "-c";
    std::string text = script;
    char *argv[] = {sh, dashC, text.data(), nullptr};
    options.flags |= SPAWN_ARGV;
    options.argv = argv;
    return run(options, "sh");
}

// Runs a program on a text as its standard input.
Result runOnInput(SpawnOptions options, const char *command, const std::string &input) {
    PlainPipe pipe;
    EXPECT_EQ(::write(pipe.writeEnd(), input.data(), input.size()),
              static_cast<ssize_t>(input.size()));
    pipe.closeWriteEnd();
    options.flags |= SPAWN_STDIN;
    options.stdinFd = pipe.readEnd();
    return run(options, command);
}

SpawnOptions withFlags(uint32_t flags, uint32_t extFlags = 0) {
    SpawnOptions options{};
    options.flags = flags | (extFlags != 0 ? SPAWN_EXTFLAGS : 0);
    options.extFlags = extFlags;
    return options;
}

}  // namespace

TEST_F(Spawn, OneWordIsSearchedInPathAndIsItsOwnOnlyArgument) {
    EXPECT_EQ(statusOf(spawnProcess(nullptr, "true")), 0);
    EXPECT_EQ(runOnInput({}, "sh", "echo $0 $#").output, "sh 0\n");
    EXPECT_EQ(statusOf(spawnProcess(nullptr, "no-such-program")), 127 << 8);
}

// env prints an empty environment when it is executed directly; a shell in between adds to it, or
// does not find the program at all.
TEST_F(Spawn, SpecialCharactersAndNoOthersAskForTheShell) {
    const ScratchDir dir;
    ASSERT_EQ(::clearenv(), 0);
    for (int c = 1; c < 0x7f; ++c) {
        if (c == '/') continue;
        const std::string path = dir / (std::string("p") + static_cast<char>(c) + "q");
        ASSERT_EQ(::symlink("/usr/bin/env", path.c_str()), 0);
        const Result result = run({}, path.c_str());
        const bool direct = result.status == 0 && result.output.empty();
        EXPECT_EQ(direct, std::strchr(" \t\r\n$*?[]{}<>|&;~()'`\"", c) == nullptr) << c;
        ASSERT_EQ(::unlink(path.c_str()), 0);
    }
    EXPECT_EQ(run({}, "echo one; exit 3").status, 3 << 8);
}

TEST_F(Spawn, ArgumentVectorKeepsTheShellAway) {
    char name[] = "my name", dashC[] = "-c", script[] = "echo \"$0|$1\"", word[] = "a b$*";
    char *argv[] = {name, dashC, script, word, word, nullptr};
    SpawnOptions options = withFlags(SPAWN_ARGV);
    options.argv = argv;
    EXPECT_EQ(run(options, "sh").output, "a b$*|a b$*\n");
    EXPECT_EQ(run(options, "sh -c true").status, 127 << 8);
    options.flags |= SPAWN_EXTFLAGS;
    options.extFlags = SPAWN_EXT_NOPATH;
    EXPECT_EQ(run(options, "sh").status, 127 << 8);
    EXPECT_EQ(run(options, "/bin/sh").output, "a b$*|a b$*\n");
}

TEST_F(Spawn, PathWithASpaceIsAFileWhenNeitherPathNorShellIsAsked) {
    const ScratchDir dir;
    const std::string path = dir / "my shell";
    ASSERT_EQ(::symlink("/bin/sh", path.c_str()), 0);
    const SpawnOptions noPath = withFlags(0, SPAWN_EXT_NOPATH);
    EXPECT_EQ(runOnInput(noPath, path.c_str(), "echo $0 $#").output, path + " 0\n");
    EXPECT_EQ(run(noPath, (path + " x").c_str()).status, 127 << 8);
    EXPECT_EQ(run(noPath, "true").status, 127 << 8);
    // Without its bit in flags the second word counts as 0.
    SpawnOptions unread{};
    unread.extFlags = SPAWN_EXT_NOPATH | SPAWN_EXT_DEVNULL;
    EXPECT_EQ(run(unread, "echo seen").output, "seen\n");
}

TEST_F(Spawn, OneSourceMayServeTwoTargetsAndIsTheOneThatIsNotInherited) {
    PlainPipe pipe;
    const int source = ::fcntl(pipe.writeEnd(), F_DUPFD, 20);  // no close-on-exec
    SpawnOptions options = withFlags(SPAWN_STDOUT | SPAWN_STDERR);
    options.stdoutFd = options.stderrFd = source;
    // What the program inherits: what has no close-on-exec mark and is not a source.
    const int plain = ::fcntl(pipe.readEnd(), F_DUPFD, 30);
    const std::string script =
        "echo out; echo err >&2; cd /proc/$$/fd; echo [2-9][0-9]; test ! -e " +
        std::to_string(pipe.readEnd());
    const pid_t pid = spawnProcess(&options, script.c_str());
    ::close(source);
    EXPECT_EQ(pipe.rest(), "out\nerr\n" + std::to_string(plain) + "\n");
    EXPECT_EQ(statusOf(pid), 0);
}

TEST_F(Spawn, StandardDescriptorsAreRedirectedInOrderAndStayOpen) {
    EXPECT_CHILD_OK([] {
        PlainPipe first, second;
        ::dup2(first.writeEnd(), STDOUT_FILENO);
        ::dup2(second.writeEnd(), STDERR_FILENO);
        // Standard output takes the old standard error; standard error then finds it there.
        SpawnOptions options = withFlags(SPAWN_STDIN | SPAWN_STDOUT | SPAWN_STDERR);
        options.stdinFd = STDIN_FILENO;
        options.stdoutFd = STDERR_FILENO;
        options.stderrFd = STDOUT_FILENO;
        const pid_t pid = spawnProcess(&options, "echo out; echo err >&2; test -e /proc/$$/fd/0");
        ::dup2(STDIN_FILENO, STDOUT_FILENO);
        ::dup2(STDIN_FILENO, STDERR_FILENO);
        EXPECT_EQ(first.rest(), "");
        EXPECT_EQ(second.rest(), "out\nerr\n");
        EXPECT_EQ(statusOf(pid), 0);
    });
}

TEST_F(Spawn, NullDeviceWinsOverRedirections) {
    PlainPipe pipe;
    const int source = ::fcntl(pipe.writeEnd(), F_DUPFD, 20);
    SpawnOptions options = withFlags(SPAWN_STDIN | SPAWN_STDOUT | SPAWN_STDERR, SPAWN_EXT_DEVNULL);
    options.stdinFd = options.stdoutFd = options.stderrFd = source;
    const std::string script = "echo lost; fds=$(cd /proc/$$/fd; readlink 0 1 2); echo $fds > "
                               "/proc/$$/fd/" +
                               std::to_string(source);
    const pid_t pid = spawnProcess(&options, script.c_str());
    ::close(source);
    EXPECT_EQ(pipe.rest(), "/dev/null /dev/null /dev/null\n");
    EXPECT_EQ(statusOf(pid), 0);
}

TEST_F(Spawn, DirectoryEnvironmentAndSearchPathAreTheChilds) {
    const ScratchDir dir;
    ASSERT_EQ(::symlink("/bin/sh", (dir / "only-here").c_str()), 0);
    std::string path = "PATH=" + dir.path() + ":/usr/bin:/bin";
    char first[] = "IOSCHED_TEST=first", second[] = "IOSCHED_TEST=second";
    char *environment[] = {first, path.data(), second, nullptr};
    SpawnOptions options = withFlags(SPAWN_CHDIR | SPAWN_PUTENV);
    options.directory = dir.path().c_str();
    options.environment = environment;
    EXPECT_EQ(runOnInput(options, "only-here", "echo $IOSCHED_TEST; pwd -P").output,
              "second\n" + std::filesystem::canonical(dir.path()).string() + "\n");
    EXPECT_EQ(std::getenv("IOSCHED_TEST"), nullptr);
}

TEST_F(Spawn, IdentityIsGroupGroupsAndUser) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root may change identity";
    const uint32_t groups[] = {2001, 2002};
    SpawnOptions options = withFlags(SPAWN_SETUID | SPAWN_SETGID | SPAWN_SETGROUPS);
    options.uid = 1001;
    options.gid = 1002;
    options.groupCount = 2;
    options.groups = groups;
    const char *script = "grep -E '^(Uid|Gid|Groups)' /proc/self/status | tr -s '\\t \\n' ' '";
    EXPECT_EQ(runScript(options, script).output,
              "Uid: 1001 1001 1001 1001 Gid: 1002 1002 1002 1002 Groups: 2001 2002 ");
}

TEST_F(Spawn, SessionsAndProcessGroups) {
    // pid, process group, session
    const char *script = "cut -d' ' -f 1,5,6 /proc/$$/stat; :";
    for (const uint32_t extFlags : {0u, 0u + SPAWN_EXT_SETPGRP, 0u + SPAWN_EXT_SETSID}) {
        int pid = 0, group = 0, session = 0;
        const std::string output = runScript(withFlags(0, extFlags), script).output;
        EXPECT_EQ(std::sscanf(output.c_str(), "%d %d %d", &pid, &group, &session), 3) << output;
        EXPECT_EQ(group, extFlags == 0 ? ::getpgrp() : pid);
        EXPECT_EQ(session, extFlags == SPAWN_EXT_SETSID ? pid : ::getsid(0));
    }
}

TEST_F(Spawn, StepThatFailsEndsTheChildWith127) {
    EXPECT_CHILD_OK([] {
        EXPECT_TRUE(::geteuid() != 0 || ::setresuid(65534, 65534, 65534) == 0);
        const uint32_t group = 0;
        SpawnOptions options{};
        options.directory = "/no/such/directory";
        options.gid = 1234;
        options.uid = 1234;
        options.groupCount = 1;
        options.groups = &group;
        for (const uint32_t step : {SPAWN_CHDIR, SPAWN_SETGID, SPAWN_SETGROUPS, SPAWN_SETUID}) {
            options.flags = step;
            EXPECT_EQ(run(options, "echo ran").output, "") << step;
            EXPECT_EQ(run(options, "true").status, 127 << 8) << step;
        }
        // A session leader cannot change its process group.
        const SpawnOptions both = withFlags(0, SPAWN_EXT_SETSID | SPAWN_EXT_SETPGRP);
        EXPECT_EQ(run(both, "true").status, 127 << 8);
    });
}

TEST_F(Spawn, ProgramInheritsIgnoredSignalsAndNothingElse) {
    ASSERT_NE(catchSignal(SIGUSR1, [](int) {}), SIG_ERR);
    ASSERT_NE(catchSignal(SIGUSR2, SIG_IGN), SIG_ERR);
    const std::string status = run({}, "cat /proc/self/status").output;
    EXPECT_EQ(maskIn(status, "SigBlk:"), 0u);
    EXPECT_EQ(maskIn(status, "SigIgn:") & (maskOf(SIGUSR1) | maskOf(SIGUSR2)), maskOf(SIGUSR2));
    EXPECT_EQ(maskIn(status, "SigCgt:"), 0u);
}

namespace {

int handledSignals[2];
int signalOfTheChild = 0;

void raiseInChild() {
    if (signalOfTheChild != 0) ::raise(signalOfTheChild);
}

void writeSignal(int sig) {
    const char byte = static_cast<char>(sig);
    (void)!::write(handledSignals[1], &byte, 1);
}

}  // namespace

TEST_F(Spawn, SignalBeforeTheExecRunsNoHandlerOfTheParent) {
    ASSERT_EQ(::pipe2(handledSignals, O_NONBLOCK | O_CLOEXEC), 0);
    ASSERT_NE(catchSignal(SIGUSR1, writeSignal), SIG_ERR);
    ASSERT_NE(::signal(SIGUSR2, writeSignal), SIG_ERR);
    ASSERT_EQ(::pthread_atfork(nullptr, nullptr, raiseInChild), 0);
    sigset_t before, after;
    sigemptyset(&before);
    sigaddset(&before, SIGTERM);
    sigaddset(&before, SIGCHLD);
    for (const int sig : {SIGUSR1, SIGUSR2}) {
        ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
        signalOfTheChild = sig;
        const pid_t pid = spawnProcess(nullptr, "true");
        signalOfTheChild = 0;
        ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &after), 0);
        EXPECT_EQ(sigismember(&after, SIGCHLD) + sigismember(&after, SIGTERM), 2);
        EXPECT_EQ(sigismember(&after, SIGINT) + sigismember(&after, sig), 0);
        EXPECT_EQ(statusOf(pid), sig);
        char byte = 0;
        EXPECT_EQ(::read(handledSignals[0], &byte, 1), -1) << "handled signal " << int{byte};
    }
}

TEST_F(Spawn, NoCommandStartsNothing) {
    errno = 0;
    EXPECT_EQ(spawnProcess(nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    failNextFork = true;
    EXPECT_EQ(spawnProcess(nullptr, "true"), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(hasChildren());
}
