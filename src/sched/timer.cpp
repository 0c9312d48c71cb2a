// Timers: many one-shot timers on the process's one interval timer.
//
// Running timers stand in a heap by expiry and order of starting; the interval timer is armed for
// the first, and its SIGALRM reaches alarmHandler as a loop event. While a run of the handler is
// active nothing arms the interval timer: the run does it once, at its end. But a callback of the
// run may wait, in passes of its own, for timers that only the interval timer can bring. What the
// run holds back is therefore noted, and a pass that is about to wait arms it; SIGALRM then starts
// a run inside the run. Without that, a sleep in a timer's callback would never end.
//
// Starting a timer never fails. Where the heap finds no memory, timers go to a sorted list behind
// it, and so do all that follow until there is memory again: so the timers of the list are younger
// than those of the heap, and of two that are due together the heap's is first.

#include "sched/sched_internal.h"

#include "iosched/procs.h"
#include "support/quad_heap.h"

#include <bit>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kUsPerMs = 1000;

__extension__ typedef unsigned __int128 Key;

// A running timer; the record's link holds its place. The library's fields of a record prove
// nothing, since it may come with anything in them: a timer runs exactly while the entry at that
// place is its own, or it is in the list.
struct TimerEntry {
    int64_t expires;    // never negative
    uint64_t sequence;  // of starting
    SchedTimer *timer;  // null: a hole

    // By both at once: no branch.
    bool before(const TimerEntry &other) const { return key() < other.key(); }
    Key key() const { return Key{static_cast<uint64_t>(expires)} << 64 | sequence; }
    bool isHole() const { return timer == nullptr; }
    void setPlace(size_t place) const { timer->next = std::bit_cast<SchedTimer *>(place); }
};

constinit QuadHeap<TimerEntry> timerHeap;
// The timers that found no room in the heap, sorted by expires, ties in the order of starting.
SchedTimer *timerRoot = nullptr;
// Timers started so far.
uint64_t startCount = 0;
// Set while alarmHandler fires timers.
bool inalarm = false;
// True while the interval timer is perhaps not set for the first timer: alarmHandler, or the next
// pass inside it, will set it.
bool alarmHeldBack = false;
// Counts arms by passes nested in alarmHandler. If it changed, a callback waited: read the clock
// again. One variable for the time would not do: two readings in one millisecond are the same.
unsigned int nestedArmings = 0;

uintptr_t placeOf(const SchedTimer *t) {
    return reinterpret_cast<uintptr_t>(t->next);
}

bool isInHeap(const SchedTimer *t) {
    const TimerEntry *entry = timerHeap.at(placeOf(t));
    return entry != nullptr && entry->timer == t;
}

// Where the list's link to t stands, or null when t is not in the list.
SchedTimer **findLink(const SchedTimer *t) {
    for (SchedTimer **link = &timerRoot; *link != nullptr; link = &(*link)->next)
        if (*link == t) return link;
    return nullptr;
}

// The next timer to fire, or null.
SchedTimer *firstTimer() {
    if (timerHeap.isEmpty()) return timerRoot;
    SchedTimer *first = timerHeap.first().timer;
    return timerRoot != nullptr && timerRoot->expires < timerHeap.first().expires ? timerRoot
                                                                                  : first;
}

bool isRunning(const SchedTimer *t) {
    return isInHeap(t) || findLink(t) != nullptr;
}

bool removeTimer(SchedTimer *t) {
    if (isInHeap(t)) {
        timerHeap.remove(placeOf(t));
        return true;
    }
    SchedTimer **link = findLink(t);
    if (link == nullptr) return false;
    *link = t->next;
    return true;
}

int64_t expiryAfter(int64_t now, int64_t interval) {
    if (interval < 0) return now;
    return interval > INT64_MAX - now ? INT64_MAX : now + interval;
}

void insertIntoList(SchedTimer *t) {
    SchedTimer **link = &timerRoot;
    while (*link != nullptr && (*link)->expires <= t->expires)
        link = &(*link)->next;
    t->next = *link;
    *link = t;
}

// Brings the list's timers back into the heap, as far as there is memory again. Not in a run: what
// it has taken off the heap must not be overtaken by one of the list that is due, too.
void emptyList() {
    while (timerRoot != nullptr && !inalarm && timerHeap.reserve()) {
        SchedTimer *t = timerRoot;
        timerRoot = t->next;
        timerHeap.insert({t->expires, startCount++, t});
    }
}

// Gives t its expiry and its place. Returns the time that the expiry is counted from.
int64_t startTimerPriv(SchedTimer *t) {
    const int64_t now = getAbsMonoTime();
    t->expires = expiryAfter(now, t->interval);
    emptyList();
    if (timerRoot == nullptr && timerHeap.reserve())
        timerHeap.insert({t->expires, startCount++, t});
    else
        insertIntoList(t);
    return now;
}

void setIntervalTimer(int64_t ms) {
    itimerval value{};
    value.it_value.tv_sec = ms / kMsPerSecond;
    value.it_value.tv_usec = ms % kMsPerSecond * kUsPerMs;
    (void)::setitimer(ITIMER_REAL, &value, nullptr);  // fails only for values out of range
}

// Arms the interval timer for the first timer, whatever run is active.
void armForFirst(int64_t now) {
    alarmHeldBack = false;
    const SchedTimer *first = firstTimer();
    if (first == nullptr) {
        stopAllTimers();
        return;
    }
    const int64_t delta = first->expires - now;
    if (delta <= 0)
        (void)::kill(::getpid(), SIGALRM);
    else
        setIntervalTimer(delta);
}

void setAlarm(int64_t now) {
    if (inalarm)
        alarmHeldBack = true;
    else
        armForFirst(now);
}

// Fires the timers that are due at now; each is no longer running when its callback is called.
void fireDueTimers(int64_t now) {
    for (;;) {
        timerHeap.takeOff([now](const TimerEntry &entry) { return entry.expires <= now; });
        SchedTimer *t = firstTimer();
        if (t == nullptr || t->expires > now) return;
        (void)removeTimer(t);
        if (t->func != nullptr) t->func(t);  // may start it again, or free it
    }
}

// The SIGALRM callback. now is read once for the whole run, so a timer that restarts itself with
// interval 0 cannot keep the run going beyond the present millisecond.
void alarmHandler(int /*sig*/) {
    const bool insideRun = inalarm;
    const unsigned int armingsBefore = nestedArmings;
    const int64_t now = getAbsMonoTime();
    inalarm = true;
    alarmHeldBack = true;  // the interval timer has fired and is armed for nobody
    fireDueTimers(now);
    inalarm = insideRun;
    const bool armedMeanwhile = nestedArmings != armingsBefore;
    if (firstTimer() == nullptr && !armedMeanwhile)
        alarmHeldBack = false;  // nothing to arm, and nothing is armed
    else
        armForFirst(armedMeanwhile ? getAbsMonoTime() : now);
}

// The interval timer is not inherited, the timers are.
void timerFork(void * /*arg*/, int phase, int /*value*/) {
    if (phase == FORK_CHILD && firstTimer() != nullptr) setAlarm(getAbsMonoTime());
}

}  // namespace

int64_t getAbsMonoTime(void) {
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kMsPerSecond + now.tv_nsec / kNsPerMs;
}

void startTimer(SchedTimer *timer) {
    if (isRunning(timer)) std::abort();
    const int64_t now = startTimerPriv(timer);
    if (firstTimer() == timer) setAlarm(now);
}

int restartTimer(SchedTimer *timer) {
    const bool wasFirst = firstTimer() == timer;
    const bool wasRunning = removeTimer(timer);
    const int64_t now = startTimerPriv(timer);
    if (wasFirst || firstTimer() == timer) setAlarm(now);
    return wasRunning ? 1 : 0;
}

int stopTimer(SchedTimer *timer) {
    const bool wasFirst = firstTimer() == timer;
    const bool wasRunning = removeTimer(timer);
    if (wasFirst) setAlarm(getAbsMonoTime());
    return wasRunning ? 1 : 0;
}

void stopAllTimers(void) {
    setIntervalTimer(0);
    timerHeap.clear();
    timerRoot = nullptr;
}

void iosched_lib::armHeldBackTimers(void) {
    if (!alarmHeldBack) return;
    ++nestedArmings;
    armForFirst(getAbsMonoTime());
}

int iosched_lib::initTimers(void) {
    if (catchSignal(SIGALRM, alarmHandler) == SIG_ERR) return -1;
    return registerFork(timerFork, nullptr);  // once more at each start, by contract
}
