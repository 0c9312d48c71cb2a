// Timers: many one-shot timers on the process's one interval timer.
//
// Running timers stand in a list sorted by expiry; the interval timer is armed for the head, and its
// SIGALRM reaches alarmHandler as a loop event. While a run of the handler is active nothing arms
// the interval timer: the run does it once, at its end. But a callback of the run may wait, in
// passes of its own, for timers that only the interval timer can bring. What the run holds back is
// therefore noted, and a pass that is about to wait arms it; SIGALRM then starts a run inside the
// run. Without that, a sleep in a timer's callback would never end.

#include "sched/sched_internal.h"

#include "iosched/procs.h"

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
// The interval timer is never armed for longer (three years); alarmHandler arms it again.
constexpr int64_t kLongestAlarmMs = 100000000 * kMsPerSecond;

// Sorted by expires; ties in the order of starting. A timer runs exactly while it is in here: the
// library's fields of a record prove nothing, since it may come with anything in them.
SchedTimer *timerRoot = nullptr;
// Set while alarmHandler fires timers.
bool inalarm = false;
// The interval timer may not be armed for the head: a run of alarmHandler will do it, or the next
// pass inside that run.
bool alarmHeldBack = false;
// Passes inside a run that armed the interval timer; tells the run that its own time is out of date.
unsigned int nestedArmings = 0;

// Where the link to t stands, or null when t is not running.
SchedTimer **findLink(const SchedTimer *t) {
    for (SchedTimer **link = &timerRoot; *link != nullptr; link = &(*link)->next)
        if (*link == t) return link;
    return nullptr;
}

bool removeTimer(SchedTimer *t) {
    SchedTimer **link = findLink(t);
    if (link == nullptr) return false;
    *link = t->next;
    return true;
}

int64_t expiryAfter(int64_t now, int64_t interval) {
    if (interval < 0) return now;
    return interval > INT64_MAX - now ? INT64_MAX : now + interval;
}

// Gives t its expiry and its place. Returns the time that the expiry is counted from.
int64_t startTimerPriv(SchedTimer *t) {
    const int64_t now = getAbsMonoTime();
    t->expires = expiryAfter(now, t->interval);
    SchedTimer **link = &timerRoot;
    while (*link != nullptr && (*link)->expires <= t->expires)
        link = &(*link)->next;
    t->next = *link;
    *link = t;
    return now;
}

void setIntervalTimer(int64_t ms) {
    itimerval value{};
    value.it_value.tv_sec = ms / kMsPerSecond;
    value.it_value.tv_usec = ms % kMsPerSecond * kUsPerMs;
    (void)::setitimer(ITIMER_REAL, &value, nullptr);  // fails only for values out of range
}

// Arms the interval timer for the head of the list, whatever run is active.
void armForHead(int64_t now) {
    alarmHeldBack = false;
    if (timerRoot == nullptr) {
        stopAllTimers();
        return;
    }
    const int64_t delta = timerRoot->expires - now;
    if (delta <= 0)
        (void)::kill(::getpid(), SIGALRM);
    else
        setIntervalTimer(delta < kLongestAlarmMs ? delta : kLongestAlarmMs);
}

void setAlarm(int64_t now) {
    if (inalarm)
        alarmHeldBack = true;
    else
        armForHead(now);
}

// Fires the timers that are due at now; each is off the list when its callback runs.
void fireDueTimers(int64_t now) {
    while (timerRoot != nullptr && timerRoot->expires <= now) {
        SchedTimer *t = timerRoot;
        timerRoot = t->next;
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
    if (timerRoot == nullptr && !armedMeanwhile)
        alarmHeldBack = false;  // nothing to arm, and nothing is armed
    else
        armForHead(armedMeanwhile ? getAbsMonoTime() : now);
}

// The interval timer is not inherited, the list is.
void timerFork(void * /*arg*/, int phase, int /*value*/) {
    if (phase == FORK_CHILD && timerRoot != nullptr) setAlarm(getAbsMonoTime());
}

}  // namespace

int64_t getAbsMonoTime(void) {
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kMsPerSecond + now.tv_nsec / kNsPerMs;
}

void startTimer(SchedTimer *timer) {
    if (findLink(timer) != nullptr) std::abort();
    const int64_t now = startTimerPriv(timer);
    if (timerRoot == timer) setAlarm(now);
}

int restartTimer(SchedTimer *timer) {
    const bool wasHead = timerRoot == timer;
    const bool wasRunning = removeTimer(timer);
    const int64_t now = startTimerPriv(timer);
    if (wasHead || timerRoot == timer) setAlarm(now);
    return wasRunning ? 1 : 0;
}

int stopTimer(SchedTimer *timer) {
    const bool wasHead = timerRoot == timer;
    const bool wasRunning = removeTimer(timer);
    if (wasHead) setAlarm(getAbsMonoTime());
    return wasRunning ? 1 : 0;
}

void stopAllTimers(void) {
    setIntervalTimer(0);
    timerRoot = nullptr;
}

void armHeldBackTimers(void) {
    if (!alarmHeldBack) return;
    ++nestedArmings;
    armForHead(getAbsMonoTime());
}

int initTimers(void) {
    if (catchSignal(SIGALRM, alarmHandler) == SIG_ERR) return -1;
    return registerFork(timerFork, nullptr);
}
