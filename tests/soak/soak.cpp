// Long runs and storms that must leave descriptors, heap and children as they were: passes, signals
// from outside at every moment, peers lost by the thousand, children that others wait for,
// everything at once, and processes that come and go in an arena.

#include "iosched/procs.h"
#include "iosched/sched.h"
#include "iosched/shared.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <initializer_list>
#include <malloc.h>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kUsers = 4;  // processes at a time in an arena
constexpr int kFiles = 8;  // that they fight for
// Passes: the one in which something becomes ready, one that a signal ends and one that serves it,
// and in each of them a pass inside.
constexpr int64_t kDelayBound = 6;

constexpr int kWarmUpRounds = 10;

int percent = 100;  // of the rounds that an item has

struct Usage {
    int descriptors;
    size_t heapBytes;
    bool children;  // zombies or living ones
};

Usage usageNow() {
    Usage usage{};
    DIR *dir = ::opendir("/proc/self/fd");
    while (::readdir(dir) != nullptr)
        ++usage.descriptors;
    ::closedir(dir);
    usage.descriptors -= 3;  // ".", ".." and the directory
    usage.heapBytes = ::mallinfo2().uordblks;
    siginfo_t info;
    usage.children = ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
    return usage;
}

// Ends the program: a round did not do what it should have done.
[[noreturn]] void soakFailed(const char *what, int got) {
    std::printf("%s: unexpected result %d\n", what, got);
    std::exit(1);
}

// Plays the rounds of one item, or the share of them that the command line asks for, prints a line
// about it, and returns whether it left nothing behind. Some rounds before the counted ones let the
// C library and the pools take what they keep.
bool soak(const char *name, int rounds, void (*playRound)(int round)) {
    for (int round = 0; round < kWarmUpRounds; ++round)
        playRound(round);
    rounds = std::max(rounds / 100 * percent, 1);
    const Usage before = usageNow();
    const int64_t start = getAbsMonoTime();
    for (int round = 0; round < rounds; ++round)
        playRound(round);
    const auto seconds = static_cast<double>(getAbsMonoTime() - start) / 1000;
    const Usage after = usageNow();
    const bool clean = after.descriptors == before.descriptors &&
                       after.heapBytes == before.heapBytes && !after.children;
    std::printf("%-32s %8d in %6.1f s: descriptors %d -> %d, heap %zu -> %zu, %s: %s\n", name,
                rounds, seconds, before.descriptors, after.descriptors, before.heapBytes,
                after.heapBytes, after.children ? "children left" : "no child left",
                clean ? "ok" : "LEAK");
    return clean;
}

int caught = 0, reports = 0;

void report(void *expected, const ChildStatus *status) {
    if (buildStatus(status) != *static_cast<int *>(expected))
        soakFailed("child", buildStatus(status));
    ++reports;
}

pid_t startChild(void (*part)()) {
    const pid_t pid = ::fork();
    if (pid == -1) soakFailed("fork", errno);
    if (pid > 0) return pid;
    part();
    ::_exit(0);
}

// All are registered before a pass can reap any.
void awaitReports(std::initializer_list<pid_t> pids, int *status) {
    reports = 0;
    for (const pid_t pid : pids)
        if (registerChild(pid, report, status) != 0) soakFailed("registerChild", errno);
    while (reports < static_cast<int>(pids.size()))
        (void)iosched(-1);
}

int pipeEnds[2];

// Keeps the pipe active: takes the byte and puts one back.
void passOnByte(void *count, int fd) {
    char byte = 0;
    if (::read(fd, &byte, 1) != 1 || ::write(pipeEnds[1], &byte, 1) != 1) soakFailed("pipe", errno);
    ++*static_cast<int *>(count);
}

void passRound(int /*round*/) {
    static int calls;
    calls = 0;
    if (registerInput(pipeEnds[0], passOnByte, &calls) != 0) soakFailed("registerInput", errno);
    const int ready = iosched(-1);
    if (ready < 1 || calls != 1) soakFailed("iosched", ready);
}

int handled = 0;

// A signal that is sent as soon as the last one has been handled, and not before 100 us, comes
// through in the pass that finds it waiting or in the next, however much else is ready.
void signalStormRound(int /*round*/) {
    constexpr int kSignals = 100;
    static int *heard = static_cast<int *>(
        ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    handled = *heard = reports = 0;
    if (catchSignal(SIGUSR1, [](int) { *heard = ++handled; }) == SIG_ERR)
        soakFailed("catchSignal", errno);
    static int expected = 0;
    const pid_t loop = ::getpid(), sender = ::fork();
    for (int sent = 0; sender == 0 && sent < kSignals;) {
        if (::kill(loop, SIGUSR1) != 0) ::_exit(1);
        ++sent;
        const timespec pause{0, 100000};
        do
            (void)::nanosleep(&pause, nullptr);
        while (*static_cast<volatile int *>(heard) < sent);
    }
    if (sender == 0) ::_exit(0);
    if (registerChild(sender, report, &expected) != 0) soakFailed("fork", errno);
    while (reports == 0) {
        sigset_t waiting;
        (void)::sigpending(&waiting);
        const int before = handled;
        passRound(0);
        if (sigismember(&waiting, SIGUSR1) == 0 || handled != before) continue;
        passRound(0);
        if (handled == before) soakFailed("signal", handled);
    }
    if (handled != kSignals) soakFailed("signals", handled);
}

int hangUps = 0;

void countHangUp(void * /*arg*/, int fd) {
    ++hangUps;
    if (registerInput(fd, nullptr, nullptr) != 0 || ::close(fd) != 0) soakFailed("close", errno);
}

// As many idle connections as the system lets one process have, up to 10,000, lost at once.
void lostPeersRound(int /*round*/) {
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    const int pairs = static_cast<int>(std::min<rlim_t>(limit.rlim_cur - 100, 20000)) / 2;
    std::vector<int> peers;
    for (int i = 0; i < pairs; ++i) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0 ||
            registerInput(ends[0], countHangUp, nullptr) != 0)
            soakFailed("socketpair", errno);
        peers.push_back(ends[1]);
    }
    for (int pass = 0; pass < 100; ++pass)
        passRound(0);
    for (const int peer : peers)
        (void)::close(peer);
    hangUps = 0;
    const int ready = iosched(-1);
    if (ready != pairs + 1 || hangUps != pairs) soakFailed("hang-ups", hangUps);
}

// Sends SIGUSR1 to the whole process group, which it belongs to without hearing it. No child of
// this process, where one would be taken for a leak; it ends when it is killed or this process has
// ended.
pid_t startFlood() {
    int ends[2];
    pid_t flooder = -1;
    if (::pipe2(ends, O_CLOEXEC) != 0) soakFailed("pipe2", errno);
    const pid_t between = ::fork();
    if (between == 0) {
        (void)std::signal(SIGUSR1, SIG_IGN);
        const pid_t pid = ::fork();
        if (pid != 0) ::_exit(::write(ends[1], &pid, sizeof pid) == sizeof pid ? 0 : 1);
        while (::kill(::getpgrp(), 0) == 0) {
            (void)::kill(0, SIGUSR1);
            (void)::poll(nullptr, 0, 0);
        }
        ::_exit(0);
    }
    if (::read(ends[0], &flooder, sizeof flooder) != sizeof flooder) soakFailed("flood", errno);
    (void)::waitpid(between, nullptr, 0);
    (void)::close(ends[0]);
    (void)::close(ends[1]);
    return flooder;
}

// The child is under fire before it knows that it is one. It ends once a signal has reached it.
void forkRound(int /*round*/) {
    static int expected = 0;
    const pid_t pid = ioFork();
    if (pid == 0) {
        for (caught = 0; caught == 0;)
            (void)iosched(-1);
        ::_exit(0);
    }
    if (pid == -1) soakFailed("ioFork", errno);
    awaitReports({pid}, &expected);
}

// Somebody else's code reads from a pipe and does not expect EINTR.
void readRound(int /*round*/) {
    static int ends[2], expected = 0;
    char byte = 0;
    if (::pipe2(ends, O_CLOEXEC) != 0) soakFailed("pipe2", errno);
    const pid_t pid = startChild([] {
        (void)::poll(nullptr, 0, 2);
        if (::write(ends[1], "x", 1) != 1) ::_exit(1);
    });
    if (::read(ends[0], &byte, 1) != 1) soakFailed("foreign read", errno);
    (void)::close(ends[0]);
    (void)::close(ends[1]);
    awaitReports({pid}, &expected);
}

// Somebody else's code forks and waits while a registered child ends.
void foreignWaitRound(int /*round*/) {
    static int expected = 3 << 8;
    const pid_t ours = startChild([] { ::_exit(3); });
    const pid_t theirs = startChild([] { ::_exit(4); });
    int status = 0;
    if (::waitpid(theirs, &status, 0) != theirs || status != 4 << 8)
        soakFailed("foreign wait", status);
    awaitReports({ours}, &expected);
}

// What a source of work has waited for its turn at most, in passes.
struct Source {
    const char *name;
    int64_t last, worst;
};
Source sources[] = {{"descriptor", 0, 0}, {"timer", 0, 0}, {"delayed call", 0, 0}};
int64_t passes = 0;

void served(Source &source) {
    source.worst = std::max(source.worst, passes - source.last);
    source.last = passes;
}

// A descriptor that is always ready, two timers of 0 ms, a call that queues itself, passes inside.
// A timer's passes count from when the clock, at its resolution, leaves no doubt that it is due.
void everythingRound(int round) {
    static int ends[2];
    static bool fired;
    constexpr int64_t kResolutionMs = 2;
    if (ends[1] == 0 && (::pipe2(ends, O_CLOEXEC) != 0 || ::write(ends[1], "x", 1) != 1))
        soakFailed("pipe2", errno);
    SchedTimer load{[](SchedTimer *self) { startTimer(self); }, nullptr, 0, nullptr, 0};
    SchedTimer timer{[](SchedTimer *) { fired = true, served(sources[1]); }, nullptr, 0, nullptr,
                     0};
    DelayedCall call{nullptr, nullptr,
                     [](DelayedCall *self) { served(sources[2]), registerDelayedCall(self); }};
    const auto onReady = [](void *, int) {
        served(sources[0]);
        if (passes % 4 == 0) ++passes, (void)iosched(0);
    };
    (void)registerInput(ends[0], onReady, nullptr);
    startTimer(&load);
    registerDelayedCall(&call);
    for (Source &source : sources)
        source.last = passes;
    fired = true;
    for (int i = 0; i < 100; ++i) {
        if (fired) startTimer(&timer);
        if (fired || getAbsMonoTime() < timer.expires + kResolutionMs) sources[1].last = passes;
        fired = false;
        ++passes, (void)iosched(-1);
    }
    (void)stopTimer(&timer), (void)stopTimer(&load);
    (void)unRegisterDelayedCall(&call);
    (void)registerInput(ends[0], nullptr, nullptr);
    for (const Source &source : sources)
        if (source.worst > kDelayBound) soakFailed(source.name, static_cast<int>(source.worst));
    if (round == 0)
        for (Source &source : sources)
            source.worst = 0;  // the warm-up does not count
}

const std::string arenaPath = "/dev/shm/iosched-soak-" + std::to_string(::getpid());

// In each of kUsers processes: opens or makes the arena, which others may be deleting.
void useArena() {
    SharedArena *arena = nullptr;
    if (OpenSharedArena(arenaPath.c_str(), SHARED_ARENA_CREATE, 0600, 1 << 16, &arena) != 0)
        ::_exit(2);
    SharedFileLockTable *table = nullptr;
    if (AllocateSharedFileLockTable(arena, "locks", kUsers, kFiles, 0, &table) != 0) ::_exit(3);
    std::srand(static_cast<unsigned>(::getpid()));
    for (int i = 0; i < 500; ++i) {
        const SharedFileKey key{static_cast<uint64_t>(std::rand() % kFiles), 7};
        uint32_t mode = 0;
        const int opened = OpenSharedFile(table, 1, 1, &key, SHARED_FILE_WRITE, 1, nullptr, &mode);
        if (opened == SHARED_ERR_DENIED) continue;
        if (opened != 0 || LockSharedFileRange(table, 1, 1, &key, 0, -1, 2) != 0) ::_exit(4);
        if (CloseSharedFile(table, 1, 1, &key) != 0) ::_exit(5);
    }
    for (uint64_t file = 0; file < kFiles; ++file) {
        const SharedFileKey key{file, 7};
        (void)CloseSharedFile(table, 1, 1, &key);
    }
    if (FreeSharedFileLockTable(table) != 0 || CloseSharedArena(arena) != 0) ::_exit(6);
    const uint32_t deleted = DeleteSharedArena(arenaPath.c_str());
    if (deleted != 0 && deleted != SHARED_ERR_BUSY && errno != ENOENT) ::_exit(7);
}

void arenaRound(int /*round*/) {
    static int expected = 0;
    awaitReports(
        {startChild(useArena), startChild(useArena), startChild(useArena), startChild(useArena)},
        &expected);
}

}  // namespace

int main(int argc, char **argv) {
    char msg[128];
    if (argc > 1) percent = std::atoi(argv[1]);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, msg, sizeof msg) != 0) {
        std::printf("%s\n", msg);
        return 1;
    }
    if (::pipe2(pipeEnds, O_NONBLOCK | O_CLOEXEC) != 0 || ::write(pipeEnds[1], "x", 1) != 1)
        soakFailed("pipe2", errno);
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 32767);
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0 || ResizeSchedTable() != 0)
        soakFailed("limit", errno);
    bool clean = soak("passes over an active pipe", 1000000, passRound);
    clean = soak("signals under load", 100, signalStormRound) && clean;
    clean = soak("thousands of peers lost at once", 10, lostPeersRound) && clean;
    if (registerInput(pipeEnds[0], nullptr, nullptr) != 0) soakFailed("registerInput", errno);
    (void)::setpgid(0, 0);
    (void)catchSignal(SIGUSR1, [](int) { ++caught; });
    const pid_t flooder = startFlood();
    clean = soak("ioFork under fire", 2000, forkRound) && clean;
    clean = soak("foreign reads under fire", 2000, readRound) && clean;
    (void)::kill(flooder, SIGKILL);
    const int64_t deadline = getAbsMonoTime() + 1000;  // nobody may reap it
    while (::kill(flooder, 0) == 0 && getAbsMonoTime() < deadline)
        (void)ioYield();
    (void)iosched(0);  // what it has sent last; at its default it would end this process
    (void)catchSignal(SIGUSR1, SIG_DFL);
    clean = soak("foreign waits beside children", 3000, foreignWaitRound) && clean;
    clean = soak("all sources at once", 2000, everythingRound) && clean;
    for (const Source &source : sources)
        std::printf("    %s: worst delay %d passes, bound %d\n", source.name,
                    static_cast<int>(source.worst), static_cast<int>(kDelayBound));
    return soak("arena and lock table", 3000, arenaRound) && clean ? 0 : 1;
}
