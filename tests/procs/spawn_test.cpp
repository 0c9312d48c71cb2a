#include "procs/program.h"

#include <cstring>
#include <pthread.h>

namespace {

using Spawn = LoopTest;

constexpr uint32_t kAll = SPAWN_STDIN | SPAWN_STDOUT | SPAWN_STDERR;

// Fields of the options that count only with their bit.
const uint32_t kGroups[] = {2001, 2002};
char kName[] = "my name", kDashC[] = "-c", kScript[] = "echo \"$0|$1\"", kWord[] = "a b$*";
char *const kArgv[] = {kName, kDashC, kScript, kWord, kWord, nullptr};

SpawnOptions options(uint32_t flags, uint32_t extFlags = 0, int in = -1, int out = -1,
                     int err = -1) {
    flags |= extFlags != 0 ? SPAWN_EXTFLAGS : 0;
    return {flags, extFlags, in,    out,     err, "/no/such/directory",
            1001,  1002,     kArgv, nullptr, 2,   kGroups};
}

// Runs a program on a text as its input; what it wrote, and its exit status behind it.
std::string run(SpawnOptions options, const std::string &command, const std::string &input = "") {
    PlainPipe in, out;
    EXPECT_GE(::write(in.writeEnd, input.data(), input.size()), 0);
    in.closeWriteEnd();
    options.flags |= SPAWN_STDIN | SPAWN_STDOUT;
    options.stdinFd = in.fd, options.stdoutFd = out.writeEnd;
    const pid_t pid = spawnProcess(&options, command.c_str());
    const std::string output = out.rest();
    return output + std::to_string(WEXITSTATUS(statusOf(pid)));
}

}  // namespace

TEST_F(Spawn, CommandsAndOptions) {
    const ScratchDir dir;
    const std::string spaced = dir / "my shell", ids = "grep -E '^(Uid|Gid|Groups)' "
                                                       "/proc/self/status | tr -s '\\t \\n' ' '";
    // Whether the shell leads a process group and a session.
    const std::string leads = "set -- $(cut -d' ' -f 1,5,6 /proc/$$/stat); test $1 = $2; echo $?; "
                              "test $1 = $3; echo $?";
    ASSERT_EQ(::symlink("/bin/sh", spaced.c_str()), 0);
    ASSERT_EQ(::symlink("/bin/sh", (dir / "only-here").c_str()), 0);
    std::string path = "PATH=" + dir.path() + ":/usr/bin:/bin";
    char first[] = "IOSCHED_TEST=first", second[] = "IOSCHED_TEST=second";
    char *const environment[] = {first, path.data(), second, nullptr};
    SpawnOptions unread = options(0), moved = options(SPAWN_CHDIR | SPAWN_PUTENV);
    unread.extFlags = SPAWN_EXT_NOPATH | SPAWN_EXT_DEVNULL;  // without the bit that makes it count
    moved.directory = dir.path().c_str();
    moved.environment = environment;
    const struct {
        SpawnOptions options;
        std::string command, input, result;
    } kRows[] = {
        {options(0), "sh", "echo $0 $#", "sh 0\n0"},
        {options(0), "no-such-program", "", "127"},
        {options(SPAWN_ARGV), "sh", "", "a b$*|a b$*\n0"},
        {options(SPAWN_ARGV), "sh -c true", "", "127"},
        {options(SPAWN_ARGV, SPAWN_EXT_NOPATH), "sh", "", "127"},
        {options(SPAWN_ARGV, SPAWN_EXT_NOPATH), "/bin/sh", "", "a b$*|a b$*\n0"},
        {options(0, SPAWN_EXT_NOPATH), spaced, "echo $0 $#", spaced + " 0\n0"},
        {options(0, SPAWN_EXT_NOPATH), spaced + " x", "", "127"},
        {options(0, SPAWN_EXT_NOPATH), "true", "", "127"},
        {unread, "echo one; exit 3", "", "one\n3"},
        {moved, "only-here", "echo $IOSCHED_TEST; pwd -P; exit 4",
         "second\n" + std::filesystem::canonical(dir.path()).string() + "\n4"},
        {options(SPAWN_SETUID | SPAWN_SETGID | SPAWN_SETGROUPS), ids, "",
         "Uid: 1001 1001 1001 1001 Gid: 1002 1002 1002 1002 Groups: 2001 2002 0"},
        {options(0), "grep -c Groups:.*2001 /proc/self/status", "", "0\n1"},
        {options(0), leads, "", "1\n1\n0"},
        {options(0, SPAWN_EXT_SETPGRP), leads, "", "0\n1\n0"},
        {options(0, SPAWN_EXT_SETSID), leads, "", "0\n0\n0"},
    };
    for (const auto &row : kRows) {
        if ((row.options.flags & SPAWN_SETUID) != 0 && ::geteuid() != 0) continue;
        EXPECT_EQ(run(row.options, row.command, row.input), row.result) << row.command;
    }
    EXPECT_EQ(std::getenv("IOSCHED_TEST"), nullptr);
    EXPECT_EQ(statusOf(spawnProcess(nullptr, "true")), 0);
    EXPECT_EQ(spawnProcess(nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
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
        const bool direct = run({}, path) == "0";
        EXPECT_EQ(direct, std::strchr(" \t\r\n$*?[]{}<>|&;~()'`\"", c) == nullptr) << c;
    }
}

TEST_F(Spawn, RedirectionsAndWhatIsInherited) {
    PlainPipe pipe;
    const int source = ::fcntl(pipe.writeEnd, F_DUPFD, 20);  // no close-on-exec
    // One source for two targets; the program inherits what is neither marked nor a source.
    const SpawnOptions both = options(SPAWN_STDOUT | SPAWN_STDERR, 0, -1, source, source);
    const int plain = ::fcntl(pipe.fd, F_DUPFD, 30);
    const std::string list = "echo out; echo err >&2; cd /proc/$$/fd; echo [2-9][0-9]; test ! -e ";
    EXPECT_EQ(statusOf(spawnProcess(&both, (list + std::to_string(pipe.fd)).c_str())), 0);
    ::close(plain);
    // The null device wins, and leaves the sources open.
    const SpawnOptions null = options(kAll, SPAWN_EXT_DEVNULL, source, source, source);
    const std::string names = "echo lost; fds=$(cd /proc/$$/fd; readlink 0 1 2); "
                              "echo $fds > /proc/$$/fd/";
    EXPECT_EQ(statusOf(spawnProcess(&null, (names + std::to_string(source)).c_str())), 0);
    ::close(source);
    EXPECT_EQ(pipe.rest(),
              "out\nerr\n" + std::to_string(plain) + "\n/dev/null /dev/null /dev/null\n");
}

TEST_F(Spawn, StandardDescriptorsAreRedirectedInOrderAndStayOpen) {
    EXPECT_CHILD_OK([] {
        PlainPipe first, second;
        ::dup2(first.writeEnd, STDOUT_FILENO);
        ::dup2(second.writeEnd, STDERR_FILENO);
        // Standard output takes the old standard error; standard error then finds it there.
        const SpawnOptions swap = options(kAll, 0, STDIN_FILENO, STDERR_FILENO, STDOUT_FILENO);
        const pid_t pid = spawnProcess(&swap, "echo out; echo err >&2; test -e /proc/$$/fd/0");
        ::dup2(STDIN_FILENO, STDOUT_FILENO);
        ::dup2(STDIN_FILENO, STDERR_FILENO);
        EXPECT_EQ(first.rest(), "");
        EXPECT_EQ(second.rest(), "out\nerr\n");
        EXPECT_EQ(statusOf(pid), 0);
    });
}

// A signal that comes to the child before it is the program ends it: neither the loop's handler nor
// the program's own takes it.
TEST_F(Spawn, ProgramInheritsIgnoredSignalsAndNoHandlerRunsBeforeIt) {
    static int signalOfTheChild = 0;
    ASSERT_NE(catchSignal(SIGUSR1, [](int) {}), SIG_ERR);
    ASSERT_NE(::signal(SIGUSR2, [](int) {}), SIG_ERR);
    ASSERT_NE(catchSignal(SIGHUP, SIG_IGN), SIG_ERR);
    const std::string status = run({}, "cat /proc/self/status");
    EXPECT_EQ(maskIn(status, "SigBlk:") | maskIn(status, "SigCgt:"), 0u);
    EXPECT_EQ(maskIn(status, "SigIgn:") & (maskOf(SIGUSR1) | maskOf(SIGHUP)), maskOf(SIGHUP));
    const auto raiseIt = [] { (void)(signalOfTheChild != 0 && ::raise(signalOfTheChild)); };
    ASSERT_EQ(::pthread_atfork(nullptr, nullptr, raiseIt), 0);
    sigset_t before;
    sigemptyset(&before);
    sigaddset(&before, SIGTERM);
    sigaddset(&before, SIGCHLD);
    for (const int sig : {SIGUSR1, SIGUSR2}) {
        ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
        signalOfTheChild = sig;
        const pid_t pid = spawnProcess(nullptr, "true");
        signalOfTheChild = 0;
        EXPECT_EQ(presentMask(), maskOf(SIGCHLD) | maskOf(SIGTERM));
        EXPECT_EQ(statusOf(pid), sig);
    }
}
