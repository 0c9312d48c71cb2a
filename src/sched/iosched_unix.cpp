// The descriptor table and the pass of the loop.
//
// A callback may register, remove, suspend, grow the tables or run passes of its own. Dispatch
// holds three lines against that: table addresses and entries are read again after every callback,
// the direction bits keep a nested pass from entering a callback that is running, and the
// generation ends a pass whose findings a nested pass has overwritten. What was ready and not
// served is still ready at the next pass.

#include "sched/sched_internal.h"

#include "procs/procs_internal.h"
#include "sched/ready_internal.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

FdTabEntry *iosched_lib::fdtab = nullptr;
int iosched_lib::fdtablesize = 0;
int iosched_lib::maxfd = 0;
int iosched_lib::registeredCount = 0;

namespace {

constexpr int kMaxDescriptors = 32767;  // keeps the tables small where the system allows millions
constexpr int kMsPerSecond = 1000;

// What differs between input and output.
struct Direction {
    FdHalf FdTabEntry::*half;
    short bit;     // in flags
    short events;  // any of these calls it
    short takes;   // and these are then told to nobody else
};
// Who has an input callback hears of errors there; the output callback then hears only of POLLOUT.
constexpr Direction kInput{&FdTabEntry::input, POLLIN, POLLIN | POLLERR | POLLHUP,
                           POLLERR | POLLHUP};
constexpr Direction kOutput{&FdTabEntry::output, POLLOUT, POLLOUT | POLLERR | POLLHUP, 0};

// Counts passes, so that one knows whether another ran inside it.
uint32_t schedGen = 0;
// Active iosched calls.
int schedNestingLevel = 0;

FdTabEntry *tableEntry(int fd) {
    if (fd < 0 || fd >= fdtablesize) {
        errno = EINVAL;
        return nullptr;
    }
    return &fdtab[fd];
}

void clearDirection(int fd, const Direction &direction) {
    fdtab[fd].flags = static_cast<uint16_t>(fdtab[fd].flags & ~direction.bit);
}

int setCallback(int fd, const Direction &direction, SchedIOFunc func, void *arg) {
    FdTabEntry *entry = tableEntry(fd);
    if (entry == nullptr) return -1;
    const short eventsBefore = watchedEvents(fd);
    const bool replaced = (entry->*direction.half).func != nullptr && func != nullptr;
    entry->*direction.half = {func, arg};
    if (func == nullptr)
        clearDirection(fd, direction);
    else if (fd > maxfd)
        maxfd = fd;
    noteRegistration(fd, eventsBefore, replaced);
    return 0;
}

bool hasCallback(int fd, const Direction &direction, SchedIOFunc func, const void *arg) {
    if (fd < 0 || fd >= fdtablesize) return false;
    const FdHalf &half = fdtab[fd].*direction.half;
    return half.func == func && half.arg == arg;
}

int suspend(int fd, uint16_t directions) {
    FdTabEntry *entry = tableEntry(fd);
    if (entry == nullptr) return -1;
    entry->flags = directions;
    return 0;
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

// Calls the callback of one direction of the i-th ready descriptor if it is due.
void dispatch(int i, const Direction &direction) {
    const int fd = ready[i].fd;
    FdTabEntry &entry = fdtab[fd];
    const FdHalf half = entry.*direction.half;
    if (half.func == nullptr || (entry.flags & direction.bit) != 0) return;
    if ((ready[i].revents & direction.events) == 0) return;
    ready[i].revents = static_cast<short>(ready[i].revents & ~direction.takes);
    entry.flags = static_cast<uint16_t>(entry.flags | direction.bit);
    half.func(half.arg, fd);
    clearDirection(fd, direction);  // in the entry as it now stands: the table may have moved
}

// Calls what is ready, in ascending order, until a nested pass has found something else.
void dispatchReady(uint32_t generation) {
    for (int i = 0; i < readyCount; ++i) {
        dispatch(i, kInput);
        if (schedGen != generation) return;
        dispatch(i, kOutput);
        if (schedGen != generation) return;
    }
}

bool anySignalIsPending() {
    sigset_t pending;
    return ::sigpending(&pending) == -1 || sigisemptyset(&pending) == 0;
}

// Makes room for so many descriptors; what is there stays. -1 with errno ENOMEM.
int growTables(int newSize) {
    // A lower limit keeps the larger tables: registrations above it may still be open descriptors.
    if (newSize <= fdtablesize) return 0;
    auto *grown = static_cast<FdTabEntry *>(
        ::reallocarray(fdtab, static_cast<size_t>(newSize), sizeof(FdTabEntry)));
    if (grown == nullptr) return -1;
    fdtab = grown;
    if (growReadyTables(fdtablesize, newSize) == -1) return -1;
    for (int fd = fdtablesize; fd < newSize; ++fd)
        fdtab[fd] = FdTabEntry{};
    fdtablesize = newSize;
    return 0;
}

}  // namespace

int registerInput(int fd, SchedIOFunc func, void *arg) {
    return setCallback(fd, kInput, func, arg);
}

int registerOutput(int fd, SchedIOFunc func, void *arg) {
    return setCallback(fd, kOutput, func, arg);
}

bool iosched_lib::hasInput(int fd, SchedIOFunc func, const void *arg) {
    return hasCallback(fd, kInput, func, arg);
}

bool iosched_lib::hasOutput(int fd, SchedIOFunc func, const void *arg) {
    return hasCallback(fd, kOutput, func, arg);
}

int disableSched(int fd) {
    return suspend(fd, POLLIN | POLLOUT);
}

int enableSched(int fd) {
    return suspend(fd, 0);
}

int iosched(int timeout) {
    ++schedNestingLevel;
    SCHED_TRACE(SCHED_TRACE_LOOP, "enter, level=%d\n", schedNestingLevel);
    int waitMs = toMilliseconds(timeout);
    if (runDelayedCallQueue() != 0) waitMs = 0;
    if (callRegisteredChildFuncs() != 0) waitMs = 0;
    if (runSignalsWithoutPipe()) waitMs = 0;
    armHeldBackTimers();

    const uint32_t generation = ++schedGen;
    const int found = findReady(waitMs);
    const int error = errno;
    if (found > 0) dispatchReady(generation);

    SCHED_TRACE(SCHED_TRACE_LOOP, "leave, level=%d\n", schedNestingLevel);
    --schedNestingLevel;
    if (found == -1) errno = error;
    return found;
}

int ioschedFd(int /*fd*/, int timeout) {
    return iosched(timeout);
}

int iopeek(void) {
    armHeldBackTimers();  // what is due is pending then, as it would be for a pass
    return anySignalIsPending() || markIsWithoutByte() || anythingReady() ? 1 : 0;
}

int ResizeSchedTable(void) {
    return growTables(descriptorLimit()) == 0 ? 0 : SCHED_ERR_SYSTEM;
}

int iosched_lib::initIosched(void) {
    if (fdtablesize > 0) return ResizeSchedTable() == 0 ? 0 : -1;
    int size = descriptorLimit();
    if (size > kMaxDescriptors) {
        const rlimit lower{kMaxDescriptors, kMaxDescriptors};
        if (::setrlimit(RLIMIT_NOFILE, &lower) == -1) return -1;
        size = descriptorLimit();
    }
    return growTables(size);
}

// The tables stay: registrations survive until the next start.
void iosched_lib::exitIosched(void) {
    closeReadySets();
}
