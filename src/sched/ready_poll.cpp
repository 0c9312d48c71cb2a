// The poll table: ready descriptors by asking for all of them.
//
// Cheapest where few are registered or most are ready. While descriptors are parked, the table
// holds the others: those that epoll refuses, and new ones, which may be gone again before parking
// them has paid.

#include "sched/ready_internal.h"

#include "sched/sched_internal.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <sys/resource.h>

bool iosched_lib::pollTabValid = false;
int iosched_lib::polltabLength = 0;

namespace {

constexpr int kMsPerSecond = 1000;
constexpr int kNsPerMs = 1000000;
constexpr int kPieceWaitMs = 10;  // between two looks at a table that poll refuses as a whole

// fdtablesize entries and one for an extra descriptor. Null until the first start.
pollfd *polltab = nullptr;
pollfd noTable[1];  // stands in for it until then

void rebuildPollTab() {
    while (maxfd > 0 && watchedEvents(maxfd) == 0)
        --maxfd;
    polltabLength = 0;
    // No table, or one without entries, has a maxfd of 0 too.
    for (int fd = 0; fd <= maxfd && fd < fdtablesize; ++fd) {
        const short events = watchedEvents(fd);
        if (events != 0) polltab[polltabLength++] = {fd, events, 0};
    }
    pollTabValid = true;
}

int pollFor(pollfd *entries, int count, int waitMs, const sigset_t *mask) {
    const timespec wait{waitMs / kMsPerSecond, long{waitMs % kMsPerSecond} * kNsPerMs};
    return ::ppoll(entries, static_cast<nfds_t>(count), waitMs < 0 ? nullptr : &wait, mask);
}

// In pieces of as many entries as poll takes: the limit of descriptors has been lowered below their
// number. Looks at every piece, and between two rounds waits a little in the first, where the
// self-pipe mostly is; a signal ends that wait at once.
int pollInPieces(pollfd *entries, int count, int waitMs, const sigset_t *mask) {
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur == 0 || limit.rlim_cur >= static_cast<rlim_t>(count)) {
        errno = EINVAL;  // poll takes nothing at all
        return -1;
    }
    const int piece = static_cast<int>(limit.rlim_cur);
    const int64_t end = waitMs < 0 ? INT64_MAX : getAbsMonoTime() + waitMs;
    for (;;) {
        int found = 0;
        for (int i = 0; i < count; i += piece) {
            const int n = pollFor(entries + i, count - i < piece ? count - i : piece, 0, nullptr);
            if (n == -1) return -1;
            found += n;
        }
        if (found > 0 || getAbsMonoTime() >= end) return found;
        if (pollFor(entries, piece, kPieceWaitMs, mask) == -1) return -1;
    }
}

}  // namespace

int iosched_lib::growPollTable(int oldSize, int newSize) {
    auto *grown = static_cast<pollfd *>(
        ::reallocarray(polltab, static_cast<size_t>(newSize) + 1, sizeof(pollfd)));
    if (grown == nullptr) return -1;
    polltab = grown;
    for (int i = oldSize; i <= newSize; ++i)
        polltab[i] = {-1, 0, 0};
    return 0;
}

void iosched_lib::emptyPollTable() {
    polltabLength = 0;
    pollTabValid = true;
}

void iosched_lib::pollAlso(int fd, short events) {
    polltab[polltabLength++] = {fd, events, 0};
}

void iosched_lib::pollNoMore(int fd) {
    for (int i = 0; i < polltabLength; ++i) {
        if (polltab[i].fd != fd) continue;
        polltab[i] = polltab[--polltabLength];
        return;
    }
}

int iosched_lib::polledDescriptor(int i) {
    return polltab[i].fd;
}

int iosched_lib::pollTable(int extraFd, short *extra, int waitMs, const sigset_t *mask,
                           Findings *found) {
    if (!pollTabValid) rebuildPollTab();
    pollfd *entries = polltab != nullptr ? polltab : noTable;
    entries[polltabLength] = {extraFd, POLLIN, 0};
    const int count = polltabLength + (extraFd >= 0 ? 1 : 0);
    int left = pollFor(entries, count, waitMs, mask);
    if (left == -1 && errno == EINVAL) left = pollInPieces(entries, count, waitMs, mask);
    if (left == -1) return -1;
    *extra = entries[polltabLength].revents;
    if (*extra != 0) --left;
    for (const pollfd *entry = entries; left > 0; ++entry) {
        if (entry->revents == 0) continue;
        found->add(entry->fd, entry->revents);
        --left;
    }
    return 0;
}
