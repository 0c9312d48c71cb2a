#include "stopped.h"

#include "proc.h"
#include "text.h"
#include "users.h"
#include "waiting.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kStepsToLeave = 64;
constexpr int kStopMs = 5000;     // of a busy machine
constexpr int kQuickLooks = 500;  // a step takes microseconds
constexpr int kMostRounds = 100;  // of looking for processes that came while others were stopped

// A thread that was stopped in a system call, or is about to make one, is not in the window: there
// is none in it. Moved on it might wait in the call for ever.
bool isAtSystemCall(pid_t id, bool wasMoved) {
    user_regs_struct registers{};
    if (::ptrace(PTRACE_GETREGS, id, nullptr, &registers) < 0) return true;
    if (!wasMoved && static_cast<long long>(registers.orig_rax) >= 0) return true;
    errno = 0;
    const long code = ::ptrace(PTRACE_PEEKTEXT, id, registers.rip, nullptr);
    constexpr long kSyscallInstruction = 0x050F;
    return errno != 0 || (code & 0xFFFF) == kSyscallInstruction;
}

// A thread that a disk or a server keeps inside the kernel stops as soon as it comes out of there,
// before its next instruction.
bool isInSystemCall(pid_t id) {
    const std::string call = readText(procPath(static_cast<uint32_t>(id), "syscall"));
    return !call.empty() && call[0] >= '0' && call[0] <= '9';
}

}  // namespace

StoppedUsers::~StoppedUsers() {
    for (const Thread &thread : threads_)
        letGo(thread);
}

bool StoppedUsers::stopAll(std::string *why) {
    for (int round = 0; round < kMostRounds; round++) {
        std::vector<uint32_t> processes;
        if (!findMappers(file_, &processes)) {
            *why = "not every process may be looked at; run as root";
            return false;
        }
        const size_t before = threads_.size();
        for (const uint32_t process : processes) {
            NumberedEntries ids(procPath(process, "task"));
            uint32_t id = 0;
            while (ids.isOpen() && ids.next(&id)) {
                if (!stopThread(static_cast<pid_t>(process), static_cast<pid_t>(id), why))
                    return false;
            }
        }
        if (threads_.size() == before) return true;
    }
    *why = "new processes keep coming";
    return false;
}

bool StoppedUsers::stopThread(pid_t process, pid_t id, std::string *why) {
    if (std::any_of(threads_.begin(), threads_.end(), [=](const Thread &t) { return t.id == id; }))
        return true;
    if (::ptrace(PTRACE_SEIZE, id, nullptr, nullptr) < 0) {
        if (errno == ESRCH) return true;
        *why = printed("process %d, which uses the arena, cannot be stopped with ptrace (%s): run "
                       "as root, and let nobody else trace it",
                       process, std::strerror(errno));
        return false;
    }
    Thread thread{process, id, {}};
    (void)::ptrace(PTRACE_INTERRUPT, id, nullptr, nullptr);
    const Stop stop = awaitStop(&thread);
    if (stop == Stop::kRuns && !isInSystemCall(id)) {
        // Still traced; it will be let go when this process ends.
        *why = printed("process %d, which uses the arena, does not stop", process);
        return false;
    }
    if (stop != Stop::kGone) threads_.push_back(thread);
    return true;
}

// Signals that come meanwhile are kept: a handler's instructions would count as the thread's own.
StoppedUsers::Stop StoppedUsers::awaitStop(Thread *thread) {
    const int64_t deadline = nowMs() + kStopMs;
    for (int looks = 0;; looks++) {
        int status = 0;
        const pid_t got = ::waitpid(thread->id, &status, __WALL | WNOHANG);
        if (got == 0) {
            if (nowMs() >= deadline) return Stop::kRuns;
            if (looks < kQuickLooks)
                (void)::sched_yield();
            else
                restOneMs();
            continue;
        }
        if (got < 0 || !WIFSTOPPED(status)) return Stop::kGone;
        const bool isEvent = status >> 16 != 0;
        if (!isEvent && WSTOPSIG(status) != SIGTRAP) thread->signals.push_back(WSTOPSIG(status));
        return Stop::kStopped;
    }
}

StoppedUsers::Stop StoppedUsers::step(Thread *thread) {
    if (::ptrace(PTRACE_SINGLESTEP, thread->id, nullptr, nullptr) < 0) return Stop::kGone;
    return awaitStop(thread);
}

void StoppedUsers::stepOut(const std::function<bool()> &settled) {
    for (Thread &thread : threads_) {
        for (int i = 0; i < kStepsToLeave && !settled(); i++) {
            if (isAtSystemCall(thread.id, i > 0) || step(&thread) != Stop::kStopped) break;
        }
    }
}

void StoppedUsers::letGo(const Thread &thread) {
    (void)::ptrace(PTRACE_DETACH, thread.id, nullptr, nullptr);
    for (const int signal : thread.signals)
        (void)::syscall(SYS_tgkill, thread.process, thread.id, signal);
}
