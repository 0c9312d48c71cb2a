#include "killer.h"
#include "client.h"
#include "prefork/share.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <random>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int64_t kStepsUs = 500'000;   // the longest way into the mutex
constexpr uint64_t kStepsInside = 200;  // and in it: a short operation's length, and some more
constexpr char kService[] = "filed";
constexpr char kAnywhere = 'a', kInside = 'i';  // what is asked for

// ---- the server, seen from outside ----

struct {
    int fd;
    int64_t mutexAt, boardAt;
} arenaFile = {-1, 0, 0};

std::minstd_rand dice(static_cast<unsigned>(getpid()));

int64_t offsetIn(const SharedArena *arena, const void *place) {
    return static_cast<const char *>(place) - static_cast<const char *>(arena->base);
}

bool findPlaces(const char *arenaPath) {
    SharedArena *arena = nullptr;
    errno = 0;
    if (OpenSharedArena(arenaPath, 0, 0, 0, &arena) != 0) return false;
    SharedFileLockTable *table = nullptr;
    void *board = nullptr;
    uint64_t size = 0;
    uint32_t created = 0;
    if (AllocateSharedFileLockTable(arena, tableName(kService).c_str(), 0, 0, 0, &table) == 0) {
        arenaFile.mutexAt = offsetIn(arena, table->header);
        (void)FreeSharedFileLockTable(table);
    }
    if (AllocateSharedChunk(arena, boardName(kService).c_str(), &size, &board, &created) == 0) {
        arenaFile.boardAt = offsetIn(arena, board);
        (void)FreeSharedChunk(arena, board);
    }
    (void)CloseSharedArena(arena);
    errno = 0;
    if (arenaFile.mutexAt == 0 || arenaFile.boardAt == 0) return false;
    arenaFile.fd = open(arenaPath, O_RDONLY | O_CLOEXEC);
    return arenaFile.fd >= 0;
}

std::vector<pid_t> workers() {
    std::vector<pid_t> pids;
    for (size_t i = 0; i < std::size(Board{}.slots); i++) {
        BoardSlot slot{};
        const auto at = static_cast<off_t>(offsetof(Board, slots) + i * sizeof slot);
        if (pread(arenaFile.fd, static_cast<void *>(&slot), sizeof slot, arenaFile.boardAt + at) <
            0)
            break;
        if (slot.pid > 1 && slot.accepting) pids.push_back(slot.pid);
    }
    return pids;
}

MutexState tableMutexState() {
    SharedMutex mutex{};
    (void)!pread(arenaFile.fd, &mutex, sizeof mutex, arenaFile.mutexAt);
    return stateOf(&mutex);
}

// ---- moving a worker on ----

// Waits for the traced worker's next stop. False when it has ended, or does not stop in time: it
// waits in the kernel then.
bool awaitStop(pid_t pid, int64_t untilUs, int *signal) {
    for (int status = 0;;) {
        const pid_t got = waitpid(pid, &status, __WALL | WNOHANG);
        if (got < 0 || (got == pid && !WIFSTOPPED(status))) return false;
        if (got == pid) {
            const int sig = WSTOPSIG(status);
            // A signal on its way to the worker, and not one of the tracing, is to reach it.
            *signal = sig == SIGTRAP || status >> 16 != 0 ? 0 : sig;
            return true;
        }
        if (nowUs() > untilUs) return false;
        (void)ioYield();
    }
}

bool step(pid_t pid, int64_t untilUs, int *signal) {
    const auto data = static_cast<uintptr_t>(*signal);
    return ptrace(PTRACE_SINGLESTEP, pid, nullptr, data) == 0 && awaitStop(pid, untilUs, signal);
}

// True with the worker stopped at a random instruction of its time inside the mutex, or right
// behind.
bool stepInside(pid_t pid, int64_t untilUs) {
    int signal = 0;
    if (ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr) != 0 || !awaitStop(pid, untilUs, &signal))
        return false;
    while (tableMutexState().owner != pid)
        if (!step(pid, untilUs, &signal)) return false;
    for (uint64_t steps = dice() % kStepsInside; steps > 0; steps--)
        if (!step(pid, untilUs, &signal)) return false;
    return true;
}

Killed killOne(bool inside) {
    const std::vector<pid_t> all = workers();
    if (all.empty()) return {0, false, false};
    const pid_t victim = all[dice() % all.size()];
    const bool traced = inside && ptrace(PTRACE_SEIZE, victim, nullptr, nullptr) == 0;
    const bool there = traced && stepInside(victim, nowUs() + kStepsUs);
    const MutexState mutex = tableMutexState();
    const bool holds = there && mutex.locked && (mutex.owner == victim || mutex.owner == 0);
    const Killed killed{nowUs(), kill(victim, SIGKILL) == 0, holds};
    if (traced) (void)waitpid(victim, nullptr, __WALL);  // its parent hears of it only after us
    return killed;
}

[[noreturn]] void runKiller(int channel) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (char what; read(channel, &what, 1) == 1;) {
        const Killed killed = killOne(what == kInside);
        if (send(channel, &killed, sizeof killed, MSG_NOSIGNAL) < 0) break;
    }
    _exit(0);
}

}  // namespace

bool Killer::start(const char *arenaPath, Func func) {
    int ends[2];
    if (!findPlaces(arenaPath) || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) < 0)
        return false;
    const pid_t pid = ioFork();
    if (pid == 0) {
        (void)close(ends[0]);
        runKiller(ends[1]);
    }
    (void)close(ends[1]);
    channel_ = ends[0];
    func_ = func;
    return pid > 0 && registerInput(channel_, onReport, this) == 0;
}

void Killer::kill(bool inside) const {
    (void)send(channel_, inside ? &kInside : &kAnywhere, 1, MSG_NOSIGNAL);
}

void Killer::onReport(void *arg, int fd) {
    const auto *killer = static_cast<Killer *>(arg);
    Killed killed{};
    if (recv(fd, &killed, sizeof killed, 0) != sizeof killed)
        (void)registerInput(fd, nullptr, nullptr);  // it has ended: nobody is killed any more
    else
        killer->func_(killed);
}
