// Which registered descriptors are ready: the one question of a pass, and what answers it.
//
// Dispatch asks findReady() and reads ready[]; it does not know who found out. ready.cpp sees to
// the signals and chooses; ready_poll.cpp polls a table, ready_epoll.cpp asks a set of parked
// descriptors.
#pragma once

#include "iosched/sched.h"

#include <csignal>
#include <cstdint>
#include <poll.h>

namespace iosched_lib {

// ---- iosched_unix.cpp: what is registered ----

struct FdHalf {
    SchedIOFunc func;  // null: no callback
    void *arg;
};

struct FdTabEntry {
    FdHalf input;
    FdHalf output;
    uint16_t flags;  // POLLIN, POLLOUT: directions whose dispatch is suspended
};

// Indexed by descriptor; fdtablesize entries. Null until the first start, then never freed.
extern FdTabEntry *fdtab;
extern int fdtablesize;
extern int maxfd;            // no registered descriptor lies above
extern int registeredCount;  // descriptors with a callback

// What to watch a descriptor for, as poll events; 0 when it is not registered. Suspension plays no
// part.
inline short watchedEvents(int fd) {
    const int in = fdtab[fd].input.func != nullptr ? POLLIN : 0;
    const int out = fdtab[fd].output.func != nullptr ? POLLOUT : 0;
    return static_cast<short>(in | out);
}

// ---- ready.cpp ----

// What the last findReady() found: readyCount descriptors, ascending, with poll's events.
extern pollfd *ready;
extern int readyCount;

// Waits up to so many milliseconds (-1: no limit) until a registered descriptor is ready, with all
// signals let in. poll's result and errno: how many are ready, 0, or -1 (EINTR: a signal came).
int findReady(int waitMs);

// poll's answer for now, without touching ready[], which a pass further out may be walking.
bool anythingReady();

// To be told of every registration, after it has been stored. replaced: this direction had a
// callback before and has another one now, so the descriptor may be another file.
void noteRegistration(int fd, short eventsBefore, bool replaced);

// Makes room for so many descriptors; what is there stays. -1 with errno ENOMEM.
int growReadyTables(int oldSize, int newSize);

// Descriptors of the library's own that make passes cheap; without them passes are right all the
// same.
void openReadySets();
void closeReadySets();

// To be told when the set of caught signals has changed.
void noteCaughtSignals();

// kSoon: as the costs were high enough to park, whatever they are. kAlways: new ones at once, too.
enum class Parking { kByCost, kSoon, kAlways, kNever };

// How findReady() chooses. Only tests set it.
extern Parking parkingPolicy;

// What a look has found so far.
struct Findings {
    pollfd *list;  // room for every registered descriptor; null: they are only counted
    int count = 0;
    bool signalWaiting = false;  // a signal has arrived that is blocked

    void add(int fd, int revents) {
        if (list != nullptr) list[count] = {fd, 0, static_cast<short>(revents)};
        ++count;
    }
};

// ---- ready_poll.cpp ----

// False when the table must be built of all registrations before it is polled.
extern bool pollTabValid;
extern int polltabLength;

int growPollTable(int oldSize, int newSize);

// Polls the table and one descriptor more (-1: none), whose events come back in *extra. mask: set
// while waiting; null leaves the thread's. 0, or -1 with errno.
int pollTable(int extraFd, short *extra, int waitMs, const sigset_t *mask, Findings *found);

// While descriptors are parked, the table is kept by hand, in any order.
void emptyPollTable();
void pollAlso(int fd, short events);
void pollNoMore(int fd);
int polledDescriptor(int i);

// ---- ready_epoll.cpp ----

// True while the registered descriptors are parked; the poll table then has only the others.
extern bool parking;
// The set, readable when a parked descriptor is ready; -1 when there is none.
extern int parkingFd;

void growParkingTables(int newSize);  // free to fail: nothing is parked then

// The set also watches the signalfd; without one there is none.
void openParkingSet(int signalFd);
void closeParkingSet();

// Parks every registered descriptor. False when that cannot be done.
bool startParking();
void stopParking();

void noteParkedRegistration(int fd, bool replaced);

// Tells the set of changed registrations, and parks the polled ones that have proved to stay. False
// when the set has been lost and parking has stopped.
bool updateParked();

// Adds what is ready in the set. False when a stranger's event was in it and the set has been made
// anew, or it has been lost: look again then.
bool collectParked(Findings *found);

// epoll_ctl calls since the last time this was asked.
int takeParkingCalls();

// epoll does not tell that a parked descriptor has been closed, or closed and opened again behind
// the library's back; poll does. So from time to time some are compared with what poll says of
// them, all of them in turn, at the cost of a hundredth of the time.
void beginAuditLap();                     // the program has run: any of them may have been closed
int msUntilAudit();                       // how long a wait may last until then; -1: no limit
bool auditSomeParked(const Findings &n);  // true when one had to be parked anew: look again

// One part in so many of the time; 0: every pass compares. Only tests set it.
extern int auditShare;

}  // namespace iosched_lib

using namespace iosched_lib;
