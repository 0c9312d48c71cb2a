// Signals as loop events: the self-pipe.
//
// A caught signal is blocked except while a pass waits in poll. The handler that the kernel calls
// there marks the signal and writes a byte into a pipe whose read end is an input of the loop; that
// input's callback runs the callbacks of the marked signals. The marks carry the information, the
// bytes only wake: whoever empties the pipe must not leave a mark behind without a byte, or its
// callback would wait for some later signal.

#include "sched/sched_internal.h"

#include "support/guards.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

sigset_t emptymask;
sigset_t cursigmask;

namespace {

constexpr int kSignalSlots = 65;  // indexed by signal number; slot 0 is never used
constexpr int kFirstFreeFd = 3;   // the standard descriptors stay the program's
constexpr size_t kDrainBytes = 512;
constexpr int kLostPipeWaitMs = 100;  // how soon a pass without a self-pipe looks again

// Read by the handler, hence volatile.
struct SignalSlot {
    SchedSignalFunc volatile func;  // null: no callback
    volatile sig_atomic_t pending;  // arrived while the loop waited, callback not yet run
};

SignalSlot handlers[kSignalSlots];
// Read end, write end; -1 while there is none.
int sigNotiPipe[2] = {-1, -1};
// Every signal but those that a fault of the program raises: blocked while the handler runs.
sigset_t fullmask;
// Above 0: the handler leaves callbacks to the loop although no pass is waiting.
volatile sig_atomic_t signalsHeld = 0;
// This process lost its self-pipe to a fork and could not make another one yet.
bool pipeLost = false;

int setSignalMask(const sigset_t *mask) {
    return ::pthread_sigmask(SIG_SETMASK, mask, nullptr);
}

// Async-signal-safe. A full pipe wakes the loop as well as one more byte would.
void wakeLoop() {
    const char byte = 0;
    while (::write(sigNotiPipe[1], &byte, 1) == -1 && errno == EINTR) {
    }
}

bool callbackIsWaiting() {
    for (int sig = 1; sig < kSignalSlots; ++sig)
        if (handlers[sig].pending != 0 && handlers[sig].func != nullptr) return true;
    return false;
}

// Runs the callbacks of the marked signals. Each is unmarked first: it may run passes that mark it
// again, or fork, or replace any callback. Returns whether it ran any.
bool callPendingSignals() {
    bool called = false;
    for (int sig = 1; sig < kSignalSlots; ++sig) {
        const SchedSignalFunc func = handlers[sig].func;
        if (handlers[sig].pending == 0 || func == nullptr) continue;
        handlers[sig].pending = 0;
        called = true;
        func(sig);
    }
    return called;
}

void drainSelfPipe() {
    char bytes[kDrainBytes];
    while (::read(sigNotiPipe[0], bytes, sizeof bytes) == static_cast<ssize_t>(sizeof bytes)) {
    }
}

// The input callback of the read end.
void selfPipeFunc(void * /*arg*/, int fd) {
    // The pass has suspended this input; a callback that waits needs it for the signals to come.
    (void)enableSched(fd);
    (void)callPendingSignals();
    // Not fd: a callback may have forked, or ended and restarted the library, and the number may be
    // somebody else's by now.
    drainSelfPipe();
    // A pass inside a callback may have been interrupted by a signal whose number this run had
    // already gone past; its byte has just been drained.
    if (callbackIsWaiting()) wakeLoop();
}

void selfPipeSigHandler(int sig) {
    ErrnoGuard keep;
    if (inIOSched != 0 || signalsHeld != 0) {
        handlers[sig].pending = 1;
        wakeLoop();
        return;
    }
    handlers[sig].pending = 0;
    const SchedSignalFunc func = handlers[sig].func;
    if (func != nullptr) func(sig);
}

// Moves one end above the standard descriptors.
bool moveAboveStandardFds(FdGuard *end) {
    if (end->get() >= kFirstFreeFd) return true;
    const int moved = ::fcntl(end->get(), F_DUPFD_CLOEXEC, kFirstFreeFd);
    if (moved == -1) return false;
    end->reset(moved);
    return true;
}

int createSelfPipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) == -1) return -1;
    FdGuard readEnd(ends[0]), writeEnd(ends[1]);
    if (!moveAboveStandardFds(&readEnd) || !moveAboveStandardFds(&writeEnd)) return -1;
    if (registerInput(readEnd.get(), selfPipeFunc, nullptr) == -1) return -1;
    sigNotiPipe[0] = readEnd.release();
    sigNotiPipe[1] = writeEnd.release();
    pipeLost = false;
    // Signals marked while there was no pipe, or inherited with their marks.
    if (callbackIsWaiting()) wakeLoop();
    return 0;
}

void closeSelfPipe() {
    if (sigNotiPipe[0] < 0) return;
    (void)registerInput(sigNotiPipe[0], nullptr, nullptr);  // in range: it was registered
    (void)::close(sigNotiPipe[0]);
    (void)::close(sigNotiPipe[1]);
    sigNotiPipe[0] = sigNotiPipe[1] = -1;
}

bool isCallback(SchedSignalFunc handler) {
    return handler != SIG_DFL && handler != SIG_IGN;
}

// Installs a process-level handler. Returns false with errno when the number is not one to catch,
// else the handler it replaced as the program knows it: not the library's own, but its callback.
bool installHandler(int sig, SchedSignalFunc handler, SchedSignalFunc *previous) {
    struct sigaction action = {}, old = {};
    action.sa_handler = handler;
    action.sa_mask = fullmask;
    if (::sigaction(sig, &action, &old) == -1) return false;
    *previous = old.sa_handler == selfPipeSigHandler ? handlers[sig].func : old.sa_handler;
    return true;
}

}  // namespace

SchedSignalFunc catchSignal(int sig, SchedSignalFunc handler) {
    SchedSignalFunc previous = nullptr;
    if (handler == SIG_ERR) {  // the result of a failed call handed back
        errno = EINVAL;
        return SIG_ERR;
    }
    if (isCallback(handler)) {
        // Held back before it can arrive, and sigaction checks the number before the table is used.
        (void)sigaddset(&cursigmask, sig);
        (void)disableSignals();
        if (!installHandler(sig, selfPipeSigHandler, &previous)) return SIG_ERR;
        handlers[sig].func = handler;
        return previous;
    }
    if (!installHandler(sig, handler, &previous)) return SIG_ERR;
    handlers[sig].func = nullptr;
    handlers[sig].pending = 0;
    (void)sigdelset(&cursigmask, sig);
    (void)disableSignals();
    return previous;
}

int enableSignals(void) {
    return setSignalMask(&emptymask);
}

int disableSignals(void) {
    return setSignalMask(&cursigmask);
}

void holdSignalCallbacks(void) {
    signalsHeld = signalsHeld + 1;
}

void releaseSignalCallbacks(void) {
    signalsHeld = signalsHeld - 1;
}

int longestWaitForSignals(void) {
    if (!pipeLost || createSelfPipe() == 0) return -1;
    return callPendingSignals() ? 0 : kLostPipeWaitMs;
}

bool markIsWithoutByte(void) {
    return pipeLost && callbackIsWaiting();
}

int afterForkChildSelfPipe(void) {
    if (sigNotiPipe[0] < 0 && !pipeLost) return 0;  // not started: nothing to replace
    closeSelfPipe();
    if (createSelfPipe() == 0) return 0;
    pipeLost = true;
    return -1;
}

void forgetCaughtSignalsInChild(void) {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int sig = 1; sig < kSignalSlots; ++sig) {
        struct sigaction present = {};
        if (::sigaction(sig, nullptr, &present) == -1) continue;  // kept by the C library
        if (isCallback(present.sa_handler)) (void)::sigaction(sig, &action, nullptr);
    }
}

int initSignals(void) {
    (void)sigemptyset(&emptymask);
    (void)sigemptyset(&cursigmask);
    (void)sigfillset(&fullmask);
    for (const int fault : {SIGILL, SIGTRAP, SIGABRT, SIGFPE, SIGBUS, SIGSEGV, SIGSYS})
        (void)sigdelset(&fullmask, fault);
    closeSelfPipe();  // there is one when an earlier start failed in a later module
    return createSelfPipe();
}

void exitSignals(void) {
    closeSelfPipe();
    pipeLost = false;
}
