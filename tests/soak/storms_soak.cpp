// Storms: signals from outside at every moment, children that others wait for, everything at once,
// and processes that come and go in an arena.

#include "soak/soak.h"

#include "iosched/procs.h"
#include "iosched/sched.h"
#include "iosched/shared.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kUsers = 4;  // processes at a time in an arena
constexpr int kFiles = 8;  // that they fight for
// Passes: the one in which something becomes ready, one that a signal ends and one that serves it,
// and in each of them a pass inside.
constexpr int64_t kDelayBound = 6;

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

bool soakStorms() {
    (void)::setpgid(0, 0);
    (void)catchSignal(SIGUSR1, [](int) { ++caught; });
    const pid_t flooder = startFlood();
    bool clean = soak("ioFork under fire", 2000, forkRound);
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
    return soak("arena and lock table", 3000, arenaRound) && clean;
}
