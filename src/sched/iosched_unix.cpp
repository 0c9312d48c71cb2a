// The descriptor table and the poll loop.
//
// A callback may register, remove, suspend, grow the tables or run passes of its own. Dispatch holds
// three lines against that: table addresses and entries are read again after every callback, the
// direction bits keep a nested pass from entering a callback that is running, and the generation
// ends a pass whose poll results a nested pass has overwritten. What was ready and not served is
// still ready at the next poll.

#include "sched/sched_internal.h"

#include "procs/procs_internal.h"
#include "support/guards.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

volatile sig_atomic_t inIOSched = 0;

namespace {

constexpr int kMaxDescriptors = 32767;  // keeps both tables small where the system allows millions
constexpr int kMsPerSecond = 1000;
constexpr int kPeekChunk = 64;

struct FdTabEntry {
    SchedIOFunc inputFunc;  // null: no input callback
    void *inputArg;
    SchedIOFunc outputFunc;
    void *outputArg;
    uint16_t flags;  // POLLIN, POLLOUT: directions whose dispatch is suspended
};

// Indexed by descriptor; fdtablesize entries each. Null until the first start, then never freed.
FdTabEntry *fdtab = nullptr;
pollfd *polltab = nullptr;
int fdtablesize = 0;
// Entries of polltab in use, and whether they agree with the registrations.
int polltabLength = 0;
bool pollTabValid = false;
// No registered descriptor lies above.
int maxfd = 0;
// Counts passes, so that one knows whether another ran inside it.
uint32_t schedGen = 0;
// Active iosched calls, and walks over the poll results that are active among them.
int schedNestingLevel = 0;
int dispatchDepth = 0;

bool hasCallback(const FdTabEntry &entry) {
    return entry.inputFunc != nullptr || entry.outputFunc != nullptr;
}

// What poll is to watch for a descriptor. Suspension plays no part.
pollfd pollEntryFor(int fd) {
    const FdTabEntry &entry = fdtab[fd];
    int events = entry.inputFunc != nullptr ? POLLIN : 0;
    if (entry.outputFunc != nullptr) events |= POLLOUT;
    return {fd, static_cast<short>(events), 0};
}

FdTabEntry *tableEntry(int fd) {
    if (fd < 0 || fd >= fdtablesize) {
        errno = EINVAL;
        return nullptr;
    }
    return &fdtab[fd];
}

void noteRegistration(int fd, bool added) {
    if (added && fd > maxfd) maxfd = fd;
    pollTabValid = false;
}

void clearDirection(int fd, int direction) {
    fdtab[fd].flags = static_cast<uint16_t>(fdtab[fd].flags & ~direction);
}

void rebuildPollTab() {
    while (maxfd > 0 && !hasCallback(fdtab[maxfd]))
        --maxfd;
    polltabLength = 0;
    if (fdtab != nullptr) {
        for (int fd = 0; fd <= maxfd; ++fd)
            if (hasCallback(fdtab[fd])) polltab[polltabLength++] = pollEntryFor(fd);
    }
    pollTabValid = true;
}

// Gives poll entries [from, to) their unused shape.
void clearPollEntries(int from, int to) {
    for (int i = from; i < to; ++i)
        polltab[i] = {-1, 0, 0};
}

int descriptorLimit() {
    const int limit = ::getdtablesize();
    return limit < 0 ? INT_MAX : limit;  // no limit at all does not fit an int
}

// Enough for a timeout of poll: -1 for no limit, and what does not fit becomes the longest wait.
int toMilliseconds(int seconds) {
    if (seconds < 0) return -1;
    return seconds > INT_MAX / kMsPerSecond ? INT_MAX : seconds * kMsPerSecond;
}

// Of two timeouts of poll, where -1 means no limit.
int shorterWait(int a, int b) {
    if (a < 0 || b < 0) return a < 0 ? b : a;
    return a < b ? a : b;
}

// Waits with all signals let in. A signal that was waiting is delivered before poll, which then
// finds the self-pipe readable. Keeps poll's errno.
int pollWithSignals(int waitMs) {
    if (!pollTabValid) rebuildPollTab();
    inIOSched = inIOSched + 1;
    (void)enableSignals();
    const int ready = ::poll(polltab, static_cast<nfds_t>(polltabLength), waitMs);
    const int pollError = errno;
    (void)disableSignals();
    inIOSched = inIOSched - 1;
    errno = pollError;
    return ready;
}

// Each calls the callback of one direction of the i-th poll entry if it is due.
void dispatchInput(int i) {
    constexpr int kInputEvents = POLLIN | POLLERR | POLLHUP;
    const int fd = polltab[i].fd;
    const FdTabEntry entry = fdtab[fd];
    if (entry.inputFunc == nullptr || (entry.flags & POLLIN) != 0) return;
    if ((polltab[i].revents & kInputEvents) == 0) return;
    // The input side has seen the error; the output side hears only of POLLOUT.
    polltab[i].revents = static_cast<short>(polltab[i].revents & ~(POLLERR | POLLHUP));
    fdtab[fd].flags = static_cast<uint16_t>(entry.flags | POLLIN);
    entry.inputFunc(entry.inputArg, fd);
    clearDirection(fd, POLLIN);
}

void dispatchOutput(int i) {
    constexpr int kOutputEvents = POLLOUT | POLLERR | POLLHUP;
    const int fd = polltab[i].fd;
    const FdTabEntry entry = fdtab[fd];
    if (entry.outputFunc == nullptr || (entry.flags & POLLOUT) != 0) return;
    if ((polltab[i].revents & kOutputEvents) == 0) return;
    fdtab[fd].flags = static_cast<uint16_t>(entry.flags | POLLOUT);
    entry.outputFunc(entry.outputArg, fd);
    clearDirection(fd, POLLOUT);
}

// Calls what is ready, in table order, until the table ends or a nested pass has reused it.
void dispatchReady(uint32_t generation) {
    ++dispatchDepth;
    for (int i = 0; i < polltabLength; ++i) {
        dispatchInput(i);
        if (schedGen != generation) break;
        dispatchOutput(i);
        if (schedGen != generation) break;
    }
    --dispatchDepth;
}

// poll's answer for now without touching polltab, whose results a walk further out is still reading.
bool anythingReadyBesideWalk() {
    pollfd chunk[kPeekChunk];
    nfds_t used = 0;
    for (int fd = 0; fd <= maxfd; ++fd) {
        if (hasCallback(fdtab[fd])) chunk[used++] = pollEntryFor(fd);
        if (used == kPeekChunk || (fd == maxfd && used > 0)) {
            if (::poll(chunk, used, 0) != 0) return true;
            used = 0;
        }
    }
    return false;
}

bool anySignalIsPending() {
    sigset_t pending;
    return ::sigpending(&pending) == -1 || sigisemptyset(&pending) == 0;
}

}  // namespace

int registerInput(int fd, SchedIOFunc func, void *arg) {
    FdTabEntry *entry = tableEntry(fd);
    if (entry == nullptr) return -1;
    entry->inputFunc = func;
    entry->inputArg = arg;
    if (func == nullptr) clearDirection(fd, POLLIN);
    noteRegistration(fd, func != nullptr);
    return 0;
}

int registerOutput(int fd, SchedIOFunc func, void *arg) {
    FdTabEntry *entry = tableEntry(fd);
    if (entry == nullptr) return -1;
    entry->outputFunc = func;
    entry->outputArg = arg;
    if (func == nullptr) clearDirection(fd, POLLOUT);
    noteRegistration(fd, func != nullptr);
    return 0;
}

int disableSched(int fd) {
    FdTabEntry *entry = tableEntry(fd);
    if (entry == nullptr) return -1;
    entry->flags = POLLIN | POLLOUT;
    return 0;
}

int enableSched(int fd) {
    FdTabEntry *entry = tableEntry(fd);
    if (entry == nullptr) return -1;
    entry->flags = 0;
    return 0;
}

int iosched(int timeout) {
    ++schedNestingLevel;
    SCHED_TRACE(SCHED_TRACE_LOOP, "enter, level=%d\n", schedNestingLevel);
    int waitMs = toMilliseconds(timeout);
    if (runDelayedCallQueue() != 0) waitMs = 0;
    if (callRegisteredChildFuncs() != 0) waitMs = 0;
    waitMs = shorterWait(waitMs, longestWaitForSignals());
    armHeldBackTimers();

    const uint32_t generation = ++schedGen;
    const int ready = pollWithSignals(waitMs);
    const int pollError = errno;
    if (ready > 0) dispatchReady(generation);

    SCHED_TRACE(SCHED_TRACE_LOOP, "leave, level=%d\n", schedNestingLevel);
    --schedNestingLevel;
    if (ready == -1) errno = pollError;
    return ready;
}

int ioschedFd(int /*fd*/, int timeout) {
    return iosched(timeout);
}

int iopeek(void) {
    armHeldBackTimers();  // what is due is pending then, as it would be for a pass
    if (anySignalIsPending() || markIsWithoutByte()) return 1;
    if (dispatchDepth > 0) return anythingReadyBesideWalk() ? 1 : 0;
    if (!pollTabValid) rebuildPollTab();
    return ::poll(polltab, static_cast<nfds_t>(polltabLength), 0) != 0 ? 1 : 0;
}

int ResizeSchedTable(void) {
    const int newSize = descriptorLimit();
    // A lower limit keeps the larger tables: registrations above it may still be open descriptors.
    if (newSize <= fdtablesize) return 0;
    auto *newFdtab = static_cast<FdTabEntry *>(
        ::reallocarray(fdtab, static_cast<size_t>(newSize), sizeof(FdTabEntry)));
    if (newFdtab == nullptr) return SCHED_ERR_SYSTEM;
    fdtab = newFdtab;
    auto *newPolltab = static_cast<pollfd *>(
        ::reallocarray(polltab, static_cast<size_t>(newSize), sizeof(pollfd)));
    if (newPolltab == nullptr) return SCHED_ERR_SYSTEM;
    polltab = newPolltab;
    for (int fd = fdtablesize; fd < newSize; ++fd)
        fdtab[fd] = FdTabEntry{};
    clearPollEntries(fdtablesize, newSize);
    fdtablesize = newSize;
    return 0;
}

int initIosched(void) {
    if (fdtab != nullptr) return ResizeSchedTable() == 0 ? 0 : -1;
    int size = descriptorLimit();
    if (size > kMaxDescriptors) {
        const rlimit lower{kMaxDescriptors, kMaxDescriptors};
        if (::setrlimit(RLIMIT_NOFILE, &lower) == -1) return -1;
        size = descriptorLimit();
    }
    HeapGuard<FdTabEntry> newFdtab(
        static_cast<FdTabEntry *>(std::calloc(static_cast<size_t>(size), sizeof(FdTabEntry))));
    if (newFdtab.get() == nullptr) return -1;
    polltab = static_cast<pollfd *>(std::calloc(static_cast<size_t>(size), sizeof(pollfd)));
    if (polltab == nullptr) return -1;
    fdtab = newFdtab.release();
    fdtablesize = size;
    clearPollEntries(0, size);
    return 0;
}

// The tables stay: registrations survive until the next start.
void exitIosched(void) {}
