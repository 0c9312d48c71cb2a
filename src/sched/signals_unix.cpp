// Signals as loop events: the self-pipe.
//
// A caught signal is blocked except while a pass waits in poll. The handler that the kernel calls
// there marks the signal and writes a byte into a pipe whose read end is an input of the loop; that
// input's callback runs the callbacks of the marked signals. The marks carry the information, the
// bytes only wake: whoever empties the pipe must not leave a mark behind without a byte, or its
// callback would wait for some later signal.

#include "sched/sched_internal.h"

#include "sched/ready_internal.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

sigset_t iosched_lib::emptymask;
sigset_t iosched_lib::cursigmask;

namespace {

constexpr int kSignalSlots = 65;  // indexed by signal number; slot 0 is never used
constexpr int kFirstFreeFd = 3;   // the standard descriptors stay the program's
constexpr size_t kDrainBytes = 512;
constexpr size_t kKernelSetBytes = 8;  // of a sigset_t, what the kernel fills in
constexpr int kTrustAfter = 16;        // looks that find the mask right, for each pass without one
constexpr int kLongestTrust = 64;      // passes

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
// Not 0: the handler leaves callbacks to the loop although no pass is waiting.
volatile sig_atomic_t signalsHeld = 0;
// Whether cursigmask was the last mask that this module gave the thread.
volatile sig_atomic_t maskIsLoops = 0;
// How many looks in a row have found it still there, and the passes until the next look.
int maskTrust = 0;
int passesOnTrust = 0;
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
    // Not the loop's mask here, nor after the return, whatever a pass inside does.
    maskIsLoops = 0;
    if (func != nullptr) func(sig);
    maskIsLoops = 0;
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
    const FdGuard readEnd(sigNotiPipe[0]), writeEnd(sigNotiPipe[1]);
    if (readEnd.get() < 0) return;
    (void)registerInput(readEnd.get(), nullptr, nullptr);  // in range: it was registered
    // Forgotten before they are closed: a signal in between would write into a pipe without a
    // reader, or into whatever gets the number next.
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
        noteCaughtSignals();
        return previous;
    }
    if (!installHandler(sig, handler, &previous)) return SIG_ERR;
    handlers[sig].func = nullptr;
    handlers[sig].pending = 0;
    (void)sigdelset(&cursigmask, sig);
    (void)disableSignals();
    noteCaughtSignals();
    return previous;
}

int enableSignals(void) {
    maskIsLoops = 0;
    return setSignalMask(&emptymask);
}

int disableSignals(void) {
    const int error = setSignalMask(&cursigmask);
    maskIsLoops = error == 0 ? 1 : 0;
    return error;
}

// A mask that somebody set past this module shows only in a look at it, which costs a system call.
// So passes look at every turn at first, and less often the longer nobody has done such a thing.
bool iosched_lib::loopMaskStands() {
    if (maskIsLoops == 0) return false;
    if (passesOnTrust > 0) {
        --passesOnTrust;
        return true;
    }
    sigset_t now;
    (void)sigemptyset(&now);
    (void)::pthread_sigmask(SIG_SETMASK, nullptr, &now);
    for (const int sig :
         {SIGKILL, SIGSTOP})  // in the set by a call that failed; the system blocks neither
        if (sigismember(&cursigmask, sig) == 1) (void)sigaddset(&now, sig);
    const bool stands = std::memcmp(&now, &cursigmask, kKernelSetBytes) == 0;
    maskTrust = stands ? std::min(maskTrust + 1, kTrustAfter * kLongestTrust) : 0;
    passesOnTrust = maskTrust / kTrustAfter;
    return stands;
}

void iosched_lib::holdSignalCallbacks(bool hold) {
    signalsHeld = hold ? 1 : 0;
}

bool iosched_lib::runSignalsWithoutPipe() {
    return pipeLost && createSelfPipe() == -1 && callPendingSignals();
}

bool iosched_lib::moveAboveStandardFds(FdGuard *fd) {
    if (fd->get() >= kFirstFreeFd) return true;
    const int moved = ::fcntl(fd->get(), F_DUPFD_CLOEXEC, kFirstFreeFd);
    if (moved == -1) return false;
    fd->reset(moved);
    return true;
}

bool iosched_lib::markIsWithoutByte(void) {
    return pipeLost && callbackIsWaiting();
}

int iosched_lib::afterForkChildSelfPipe(void) {
    if (sigNotiPipe[0] < 0 && !pipeLost) return 0;  // not started: nothing to replace
    closeSelfPipe();
    if (createSelfPipe() == 0) return 0;
    pipeLost = true;
    return -1;
}

void iosched_lib::forgetCaughtSignalsInChild(void) {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int sig = 1; sig < kSignalSlots; ++sig) {
        struct sigaction present = {};
        if (::sigaction(sig, nullptr, &present) == -1) continue;  // kept by the C library
        if (isCallback(present.sa_handler)) (void)::sigaction(sig, &action, nullptr);
    }
}

int iosched_lib::initSignals(void) {
    closeSelfPipe();  // there is one when an earlier start failed in a later module
    // Before the sets: a second start that fails here must leave the caught signals held back.
    if (createSelfPipe() == -1) return -1;
    (void)sigemptyset(&emptymask);
    (void)sigemptyset(&cursigmask);
    (void)sigfillset(&fullmask);
    for (const int fault : {SIGILL, SIGTRAP, SIGABRT, SIGFPE, SIGBUS, SIGSEGV, SIGSYS})
        (void)sigdelset(&fullmask, fault);
    return 0;
}

void iosched_lib::exitSignals(void) {
    closeSelfPipe();
    pipeLost = false;
}
