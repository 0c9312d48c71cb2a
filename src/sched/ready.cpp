// What a pass asks: which registered descriptors are ready?
//
// The order of a pass as poll alone would give it is: let all signals in, poll, block the caught
// ones again. A pass that serves something need not pay for that. It looks first, without waiting
// and with the signals still blocked, and among what it looks at is a signalfd for the caught ones:
// only when that says that one has arrived are signals let in, for an instant, and the look is
// repeated, so that it finds what the handlers wrote to the self-pipe. A pass that finds nothing
// sleeps with all signals let in by the same call.
//
// Whether the look polls the whole table or asks the set of parked descriptors is a question of
// cost, and decided by what has been spent: a way that would have been cheaper is taken when it
// would have saved about what changing over costs.

#include "sched/ready_internal.h"

#include "sched/sched_internal.h"
#include "support/guards.h"
#include "support/wiped_page.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/signalfd.h>
#include <unistd.h>

pollfd *iosched_lib::ready = nullptr;
int iosched_lib::readyCount = 0;
Parking iosched_lib::parkingPolicy = Parking::kByCost;
volatile sig_atomic_t iosched_lib::inIOSched = 0;

namespace {

// Costs in units of one silent entry of the poll table, as measured.
constexpr int kPollCall = 3;        // what poll costs more than epoll_wait before any entry
constexpr int kPerReadyParked = 2;  // an event of epoll_wait
constexpr int kParkingCall = 4;     // one epoll_ctl
constexpr int kComingOrGoing = 5;   // a descriptor that comes or goes while others are parked
// Parking a descriptor and taking it out again costs some 16. The way back is taken when as much
// has been wasted, the way there sooner: most servers with many connections end up there.
constexpr int kBeforeParking = 4;
constexpr int kBeforePolling = 16;
constexpr int64_t kWhenRefused = -1000000000;  // the system will not have it: not again for long

// Readable when a caught signal has arrived and is blocked; -1 while there is none. Never read.
// Others would show in the set, too, and end a wait as if something were ready: instead of with
// EINTR when they have a handler of the program's own, instead of not at all when they stop the
// process.
int signalFd = -1;
// Not 0: signalFd and the parking set are this process's own. Null where no such page can be had;
// then nothing is parked.
uint32_t *ownSets = nullptr;
// What the present way of looking has cost more than the other one.
int64_t wasted = 0;
// Descriptors that came or went since the last pass.
int comingsAndGoings = 0;

// Of two timeouts of poll, where -1 means no limit.
int shorterWait(int a, int b) {
    if (a < 0 || b < 0) return a < 0 ? b : a;
    return std::min(a, b);
}

bool setsAreOwn() {
    return ownSets != nullptr && *ownSets != 0;
}

bool replaceSignalFd() {
    FdGuard fd(::signalfd(-1, &cursigmask, SFD_CLOEXEC | SFD_NONBLOCK));
    if (fd.get() < 0 || !moveAboveStandardFds(&fd)) return false;
    const FdGuard former(signalFd);
    signalFd = fd.release();
    return true;
}

// Whether a number still is what it was in the parent: a child may have closed all that it
// inherited, and it may be the child's own file by now.
bool isStill(int fd, const char *kind) {
    char path[32], target[32] = {};
    (void)std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return ::readlink(path, target, sizeof target - 1) > 0 && std::strcmp(target, kind) == 0;
}

// In a child of any kind of fork: the inherited set and signalfd are the parent's.
void replaceInheritedSets() {
    *ownSets = 1;
    wasted = 0;
    if (signalFd < 0) return;
    if (!isStill(signalFd, "anon_inode:[signalfd]")) signalFd = -1;
    if (!isStill(parkingFd, "anon_inode:[eventpoll]")) parkingFd = -1;
    // First, so that a full descriptor table cannot keep the new ones from being made: the
    // inherited signalfd is the parent's open file, and what it listens to would be changed for
    // both.
    closeReadySets();
    (void)replaceSignalFd();
    openParkingSet(signalFd);
}

// Caught signals that have arrived are marked by their handlers, as in a poll that lets them in.
void letSignalsIn() {
    (void)enableSignals();
    (void)disableSignals();
}

// Asks without waiting. The list comes out ascending. 0, or -1 with errno.
int look(Findings *found) {
    *found = {found->list};
    if (parking) (void)updateParked();
    short extra = POLLIN;
    if (!parking || polltabLength > 0) {
        if (pollTable(parking ? parkingFd : signalFd, &extra, 0, nullptr, found) == -1) return -1;
        found->signalWaiting = !parking && extra != 0;
    }
    if (parking && extra != 0 && !collectParked(found)) return look(found);
    const auto byNumber = [](const pollfd &a, const pollfd &b) { return a.fd < b.fd; };
    if (found->list != nullptr &&
        !std::is_sorted(found->list, found->list + found->count, byNumber))
        std::sort(found->list, found->list + found->count, byNumber);
    return 0;
}

int lookAndAudit(Findings *found) {
    if (look(found) == -1) return -1;
    return parking && auditSomeParked(*found) ? look(found) : 0;
}

// Waits on the set itself rather than in epoll_wait, which would end when the process is stopped
// and goes on; poll does not. 0, or -1 with errno.
int sleepParked(int waitMs, Findings *found) {
    const int64_t end = waitMs < 0 ? INT64_MAX : getAbsMonoTime() + waitMs + 1;
    beginAuditLap();
    for (;;) {
        const int64_t left = std::max<int64_t>(end - getAbsMonoTime(), 0);
        const int leftMs = waitMs < 0 ? -1 : static_cast<int>(std::min<int64_t>(left, INT_MAX));
        short woken = 0;
        Findings ignored{nullptr};
        if (pollTable(parkingFd, &woken, shorterWait(leftMs, msUntilAudit()), &emptymask,
                      &ignored) == -1)
            return -1;
        if (lookAndAudit(found) == -1) return -1;
        if (found->signalWaiting) {  // has shown in the set before it could interrupt the wait
            letSignalsIn();
            if (found->count > 0) return 0;
            errno = EINTR;
            return -1;
        }
        if (found->count > 0 || left == 0) return 0;
    }
}

int sleepPolling(int waitMs, Findings *found) {
    short none = 0;
    return pollTable(-1, &none, waitMs, &emptymask, found);
}

int askUntilReady(int waitMs, Findings *found) {
    if (signalFd < 0 || !loopMaskStands()) letSignalsIn();
    if (lookAndAudit(found) == -1) return -1;
    if (found->signalWaiting) {
        letSignalsIn();
        if (look(found) == -1) return -1;
    }
    if (found->count > 0 || waitMs == 0 || markIsWithoutByte()) return 0;
    if (!parking) return sleepPolling(waitMs, found);
    // The wait is cut for audits, and a handler that runs between two pieces of it would not end
    // it: so signals are let in by the pieces alone.
    sigset_t all;
    (void)sigfillset(&all);
    (void)::pthread_sigmask(SIG_SETMASK, &all, nullptr);
    const int result = sleepParked(waitMs, found);
    (void)disableSignals();  // leaves errno
    return result;
}

void changeOver() {
    wasted = 0;
    if (parking)
        stopParking();
    else if (signalFd < 0 || !setsAreOwn() || !startParking())  // none after ExitSched
        wasted = kWhenRefused;
    (void)takeParkingCalls();
}

// Adds what this pass has cost more, or less, than it would have cost the other way.
void judge(int found) {
    const int64_t polling = int64_t{registeredCount} + kPollCall;
    int64_t asking = int64_t{kPerReadyParked} * found + int64_t{kParkingCall} * takeParkingCalls();
    if (!parking)
        asking += int64_t{kComingOrGoing} * comingsAndGoings;
    else if (polltabLength > 0)
        asking += int64_t{polltabLength} + kPollCall;
    comingsAndGoings = 0;
    wasted = std::max(wasted + (parking ? asking - polling : polling - asking),
                      std::min<int64_t>(wasted, 0));
    if (parkingPolicy == Parking::kByCost &&
        wasted > polling * (parking ? kBeforePolling : kBeforeParking))
        changeOver();
}

// Before anything is asked.
void prepareSets() {
    if (ownSets != nullptr && *ownSets == 0) replaceInheritedSets();
    if (parkingPolicy != Parking::kByCost && parking != (parkingPolicy != Parking::kNever))
        changeOver();
}

}  // namespace

int iosched_lib::findReady(int waitMs) {
    prepareSets();
    Findings found{ready};
    inIOSched = inIOSched + 1;
    const int result = askUntilReady(waitMs, &found);
    inIOSched = inIOSched - 1;
    readyCount = result == -1 ? 0 : found.count;
    if (result == -1) return -1;
    judge(readyCount);
    return readyCount;
}

bool iosched_lib::anythingReady() {
    prepareSets();
    Findings found{nullptr};
    return look(&found) == -1 || found.count > 0;
}

void iosched_lib::noteRegistration(int fd, short eventsBefore, bool replaced) {
    const short events = watchedEvents(fd);
    const int change = (events != 0 ? 1 : 0) - (eventsBefore != 0 ? 1 : 0);
    registeredCount += change;
    comingsAndGoings += std::abs(change);
    if (events != eventsBefore && !parking) pollTabValid = false;
    if (parking && setsAreOwn()) noteParkedRegistration(fd, replaced);
}

int iosched_lib::growReadyTables(int oldSize, int newSize) {
    auto *grown =
        static_cast<pollfd *>(::reallocarray(ready, static_cast<size_t>(newSize), sizeof(pollfd)));
    if (grown == nullptr) return -1;
    ready = grown;
    if (growPollTable(oldSize, newSize) == -1) return -1;
    growParkingTables(newSize);
    return 0;
}

void iosched_lib::openReadySets() {
    wasted = 0;
    if (ownSets == nullptr) ownSets = newWipedPage();
    if (ownSets == nullptr) return;  // nobody could tell whose they are
    if (signalFd < 0) (void)replaceSignalFd();
    *ownSets = 1;
    if (parkingFd < 0) openParkingSet(signalFd);
}

void iosched_lib::closeReadySets() {
    closeParkingSet();
    const FdGuard former(signalFd);
    signalFd = -1;
}

void iosched_lib::noteCaughtSignals() {
    // A signalfd inherited through a fork is the parent's too, until the next pass replaces it.
    if (signalFd < 0 || (ownSets != nullptr && *ownSets == 0)) return;
    (void)::signalfd(signalFd, &cursigmask, 0);
}
