// Parked descriptors: an epoll set tells which are ready, and the silent ones cost nothing.
//
// epoll watches open files, not descriptors, and that is the difficulty. A file that a dup or a
// child keeps open stays in the set when its descriptor is closed, and the number may be another
// file's by then. Hence: a descriptor leaves the set in the call that removes its last callback,
// since it may be closed right after; each registration has a number of its own, which comes back
// with its events, and an event with another number has the whole set made anew; and what has been
// closed while registered, of which epoll says nothing, is found by comparing with poll from time
// to time.
//
// What epoll refuses (a regular file, a closed descriptor) is left to the poll table. So are new
// descriptors for some passes, which makes those cheap that come and go.

#include "sched/ready_internal.h"

#include "sched/sched_internal.h"
#include "support/guards.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

bool iosched_lib::parking = false;
int iosched_lib::parkingFd = -1;
int iosched_lib::auditShare = 100;

namespace {

constexpr uint64_t kSignalEvent = UINT64_MAX;  // marks the signal descriptor's events
constexpr int kAuditSlice = 1024;              // descriptors compared in one go
constexpr int64_t kShortestAuditGapNs = 100000000;
constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int kCoarseTickMs = 10;  // by so much the coarse clock may be late

constexpr int kProvingPasses = 16;  // so long the poll table stays as it is before it is parked,
constexpr int kMostProving = 8;     // unless so many are in it

enum class Place : uint8_t { kNowhere, kInSet, kPolled };

// A descriptor's part in the set.
struct ParkEntry {
    uint32_t registration;  // comes back with its events
    int32_t nextChanged;    // link of the list of changed ones
    short events;           // what the set watches it for
    Place place;
    bool changed : 1;   // is in that list
    bool replaced : 1;  // its file may be another one now
};

// Both null where there was no memory for them: then nothing is parked.
ParkEntry *parkTab = nullptr;     // indexed by descriptor
epoll_event *eventTab = nullptr;  // fdtablesize entries and one for the signal descriptor
int tableSize = 0;
int watchedSignalFd = -1;
// Descriptors whose registration the set does not know yet; -1 ends the list.
int firstChanged = -1;
int parkingCalls = 0;
// Passes since the poll table changed, and how many of it the set has refused.
int polledFor = 0;
int refusedCount = 0;
// The audit: where it goes on, when, and how many descriptors it has not come to since the program
// ran.
int auditNext = 0;
int64_t auditDueNs = 0;
int auditLeft = 0;

uint64_t eventData(int fd) {
    return uint64_t{parkTab[fd].registration} << 32 | static_cast<uint32_t>(fd);
}

int control(int operation, int fd, short events, uint64_t data) {
    epoll_event event{};
    event.events = static_cast<uint32_t>(events);
    event.data.u64 = data;
    ++parkingCalls;
    return ::epoll_ctl(parkingFd, operation, fd, &event);
}

void moveTo(int fd, Place place) {
    ParkEntry &entry = parkTab[fd];
    if (entry.place == Place::kPolled) pollNoMore(fd);
    if (place == Place::kPolled) pollAlso(fd, watchedEvents(fd));
    if (place == Place::kPolled || entry.place == Place::kPolled) polledFor = 0;
    entry.place = place;
}

void listChanged(int fd) {
    ParkEntry &entry = parkTab[fd];
    if (entry.changed) return;
    entry.changed = true;
    entry.nextChanged = firstChanged;
    firstChanged = fd;
}

// True for errors that say something about the descriptor, not about the set.
bool isRefusal(int error) {
    return error == EPERM || error == EBADF || error == ELOOP || error == EINVAL;
}

// Puts the present registration into the set. False when the set cannot take it.
bool park(int fd) {
    ParkEntry &entry = parkTab[fd];
    const short events = watchedEvents(fd);
    if (events == 0) return true;  // left the set when it was removed
    if (entry.place == Place::kInSet && entry.events == events && !entry.replaced) return true;
    entry.replaced = false;
    entry.events = events;
    ++entry.registration;
    int result = -1;
    if (entry.place == Place::kInSet) result = control(EPOLL_CTL_MOD, fd, events, eventData(fd));
    if (result == -1) result = control(EPOLL_CTL_ADD, fd, events, eventData(fd));
    if (result == -1 && errno == EEXIST) result = control(EPOLL_CTL_MOD, fd, events, eventData(fd));
    if (result == -1 && !isRefusal(errno)) return false;
    moveTo(fd, result == 0 ? Place::kInSet : Place::kPolled);
    return true;
}

bool parkChanged() {
    while (firstChanged >= 0) {
        const int fd = firstChanged;
        firstChanged = parkTab[fd].nextChanged;
        parkTab[fd].changed = false;
        if (!park(fd)) return false;
    }
    return true;
}

// Parks what is in the poll table, from its end, since those that leave are replaced by the last.
bool parkPolled() {
    for (int i = polltabLength - 1; i >= 0; --i)
        if (!park(polledDescriptor(i))) return false;
    refusedCount = polltabLength;
    polledFor = 0;
    return true;
}

bool polledHaveProved() {
    refusedCount = std::min(refusedCount, polltabLength);
    const int proving = polltabLength - refusedCount;
    return proving > 0 && (parkingPolicy == Parking::kAlways || proving > kMostProving ||
                           ++polledFor > kProvingPasses);
}

// No further than what may be parked: a child would else copy the whole table, page by page.
void forgetAllParked() {
    for (int fd = 0; fd <= maxfd && fd < tableSize; ++fd) {
        parkTab[fd].place = Place::kNowhere;
        parkTab[fd].changed = parkTab[fd].replaced = false;
    }
    firstChanged = -1;
    pollTabValid = false;
}

// Puts everything into the empty set.
bool fillSet() {
    if (parkingFd < 0) return false;
    emptyPollTable();
    for (int fd = 0; fd <= maxfd; ++fd)
        if (!park(fd)) return false;
    refusedCount = polltabLength;
    return control(EPOLL_CTL_ADD, watchedSignalFd, EPOLLIN, kSignalEvent) == 0;
}

// Leaves an empty set, so that a full descriptor table cannot keep the next one from being made.
void emptySet() {
    closeParkingSet();
    openParkingSet(watchedSignalFd);
}

// Adds one event. False when it is not of a present registration.
bool addEvent(const epoll_event &event, Findings *found) {
    if (event.data.u64 == kSignalEvent) {
        found->signalWaiting = true;
        return true;
    }
    const int fd = static_cast<int>(event.data.u64 & UINT32_MAX);
    // Only of a set that the program has put in the place of ours.
    if (fd < 0 || fd >= tableSize) return false;
    // With many descriptors neither table is in the cache, nor is what the callback works on: all
    // come in together instead of one after the other.
    __builtin_prefetch(fdtab[fd].input.arg);
    if (parkTab[fd].place != Place::kInSet || eventData(fd) != event.data.u64) return false;
    found->add(fd, static_cast<int>(event.events));
    return true;
}

int64_t clockNs(clockid_t clock) {
    timespec now{};
    (void)::clock_gettime(clock, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

// poll takes no more than the limit of descriptors at once.
int auditSliceSize() {
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur < kAuditSlice ? static_cast<int>(limit.rlim_cur) : kAuditSlice;
}

// The next registered descriptors in turn. The turn ends at the highest.
int takeAuditSlice(pollfd *slice) {
    const int size = auditSliceSize();
    int count = 0, passed = 0;
    for (; auditNext <= maxfd && count < size; ++auditNext, ++passed) {
        const short events = watchedEvents(auditNext);
        if (events != 0) slice[count++] = {auditNext, events, 0};
    }
    if (auditNext > maxfd) auditNext = 0;
    auditLeft -= passed;
    return count;
}

short foundEvents(const Findings &found, int fd) {
    const pollfd *first = found.list, *end = first + found.count;
    const pollfd *entry =
        std::lower_bound(first, end, fd, [](const pollfd &e, int f) { return e.fd < f; });
    return entry != end && entry->fd == fd ? entry->revents : short{0};
}

}  // namespace

void iosched_lib::growParkingTables(int newSize) {
    const auto size = static_cast<size_t>(newSize);
    auto *entries = static_cast<ParkEntry *>(::reallocarray(parkTab, size, sizeof(ParkEntry)));
    if (entries != nullptr) parkTab = entries;
    auto *events =
        static_cast<epoll_event *>(::reallocarray(eventTab, size + 1, sizeof(epoll_event)));
    if (events != nullptr) eventTab = events;
    if (entries == nullptr || events == nullptr) {
        if (parking) stopParking();
        closeParkingSet();
        tableSize = 0;
        return;
    }
    std::memset(parkTab + tableSize, 0, (size - static_cast<size_t>(tableSize)) * sizeof *parkTab);
    tableSize = newSize;
}

void iosched_lib::openParkingSet(int signalFd) {
    watchedSignalFd = signalFd;
    if (tableSize == 0 || signalFd < 0) return;
    FdGuard set(::epoll_create1(EPOLL_CLOEXEC));
    if (set.get() >= 0 && moveAboveStandardFds(&set)) parkingFd = set.release();
}

void iosched_lib::closeParkingSet() {
    const FdGuard set(parkingFd);
    parkingFd = -1;
    parking = false;
    forgetAllParked();
}

bool iosched_lib::startParking() {
    if (parkingFd < 0) openParkingSet(watchedSignalFd);
    parking = fillSet();
    if (!parking) emptySet();
    return parking;
}

void iosched_lib::stopParking() {
    emptySet();
}

void iosched_lib::noteParkedRegistration(int fd, bool replaced) {
    ParkEntry &entry = parkTab[fd];
    const bool isWatched = watchedEvents(fd) != 0;
    if (entry.place == Place::kInSet && isWatched) {
        entry.replaced = entry.replaced || replaced;
        listChanged(fd);
        return;
    }
    // At once: the descriptor may be closed next, and a file that somebody else has open would then
    // stay in the set with nothing to take it out by.
    if (entry.place == Place::kInSet) (void)control(EPOLL_CTL_DEL, fd, 0, 0);
    moveTo(fd, isWatched ? Place::kPolled : Place::kNowhere);
}

bool iosched_lib::updateParked() {
    if (parkChanged() && (!polledHaveProved() || parkPolled())) return true;
    emptySet();
    return false;
}

bool iosched_lib::collectParked(Findings *found) {
    const int count = ::epoll_wait(parkingFd, eventTab, tableSize + 1, 0);
    bool strangers = false;
    for (int i = 0; i < count; ++i)
        strangers = !addEvent(eventTab[i], found) || strangers;
    if (count >= 0 && !strangers) return true;
    if (count < 0) parkingFd = -1;  // closed by the program, or no set any more: not ours to close
    emptySet();
    if (count >= 0) (void)startParking();
    return false;
}

int iosched_lib::takeParkingCalls() {
    return std::exchange(parkingCalls, 0);
}

void iosched_lib::beginAuditLap() {
    auditLeft = maxfd + 1;
}

int iosched_lib::msUntilAudit() {
    if (auditLeft <= 0) return -1;
    const int64_t ns = auditDueNs - clockNs(CLOCK_MONOTONIC);
    return ns <= 0 ? kCoarseTickMs : static_cast<int>(ns / kNsPerMs) + kCoarseTickMs;
}

bool iosched_lib::auditSomeParked(const Findings &found) {
    if (clockNs(CLOCK_MONOTONIC_COARSE) < auditDueNs) return false;
    // Processor time: a process that is stopped in here must not put the next audit off by hours.
    const int64_t start = clockNs(CLOCK_THREAD_CPUTIME_ID);
    pollfd slice[kAuditSlice];
    const int count = takeAuditSlice(slice);
    bool different = false;
    if (::poll(slice, static_cast<nfds_t>(count), 0) != -1) {
        for (int i = 0; i < count; ++i) {
            const int fd = slice[i].fd;
            if (parkTab[fd].place == Place::kPolled) {
                refusedCount = 0;  // what the set has refused may be another file now
                continue;
            }
            if (slice[i].revents == foundEvents(found, fd)) continue;
            parkTab[fd].replaced = true;
            listChanged(fd);
            different = true;
        }
    }
    const int64_t spent = clockNs(CLOCK_THREAD_CPUTIME_ID) - start;
    auditDueNs = auditShare == 0
                     ? 0
                     : clockNs(CLOCK_MONOTONIC) + std::max(kShortestAuditGapNs, spent * auditShare);
    return different;
}
