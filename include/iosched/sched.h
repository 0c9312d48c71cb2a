/* iosched/sched.h: the event loop of a single-threaded server process.
 *
 * Start-up, descriptors, delayed calls, signals, timers and waiting. Everything that can happen to
 * the process arrives as a callback out of iosched(). What holds for the whole header:
 *
 * - One thread. All functions are called from the thread that runs the loop.
 * - Any callback may call any function here, iosched() included: passes nest.
 * - Unless told otherwise a function returns 0, or -1 with errno and nothing changed.
 * - Nothing here may be called from a signal handler of the program's own; callbacks registered
 *   with catchSignal() are no such handlers, they run from the loop.
 * - SIGALRM, SIGCHLD and ITIMER_REAL belong to the library once InitSched() has succeeded.
 * - Records handed in (DelayedCall, SchedTimer) stay the caller's. The library keeps them in tables of
 *   its own, which grow when more of them wait than ever before; where there is no memory for that,
 *   lists do as well, and nothing fails.
 */
#ifndef IOSCHED_SCHED_H
#define IOSCHED_SCHED_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Result codes of InitSched() and ResizeSchedTable(). */
#ifndef SCHED_ERR_SYSTEM
#define SCHED_ERR_SYSTEM 100000 /* a system call failed; errno says why */
#endif
#define SCHED_ERR_VERSION 100002 /* the caller was built for another interface */

/* ---- start-up and tracing ---- */

/* The interface that this header describes: pass both to InitSched(). */
#define SCHED_VERSION_MAJOR 7
#define SCHED_VERSION_MINOR 1

/* Checks the caller's interface version and, on the first successful call, makes the library ready.
 * The first call into the library, except for SetSchedTraceCallback() and the registration calls
 * whose documentation says so.
 *
 *   major, minor  the interface the caller was built for; SCHED_VERSION_MAJOR and _MINOR.
 *   msg, msgSize  receives "iosched(7.1,<major>.<minor>):" and, on failure, the reason right behind
 *                 the colon; cut to msgSize bytes and always terminated. msgSize is 1 or more; 128
 *                 holds every text.
 *
 * Returns 0 and counts the call; SCHED_ERR_VERSION for a version that the library cannot serve
 * ("library too old", "library too new"); SCHED_ERR_SYSTEM when a module could not start, with errno
 * and the module's name in msg. After a failure the count is as before, and a later call starts all
 * modules again. No callback runs inside, not even at a second start with signals already waiting.
 *
 * What it takes from the process: the thread's signal mask becomes the set of caught signals, so a
 * signal that the program had blocked, and that is waiting, arrives inside and may end the process.
 * If more than 32767 descriptors are allowed, soft and hard limit are lowered to that; a process
 * without privileges cannot raise the hard limit again. Up to four descriptors are the library's own
 * until the last ExitSched().
 *
 * A second start, after the last ExitSched(), begins with no caught signal blocked but SIGCHLD and
 * SIGALRM. The others keep their callbacks, but outside a pass's wait they run them at once, inside
 * the signal handler, until catchSignal() is called for them again. A second start that fails for
 * want of descriptors leaves the mask and the callbacks as they were. */
int InitSched(int major, int minor, char *msg, int msgSize);

/* Takes back one successful InitSched(). The last one closes the signal pipe; registrations, timers,
 * children and queued calls stay as they are for a later InitSched(). Until then no signal reaches
 * its callback, so the last one is not for a callback that a waiting function (below) is running: no
 * timer would end its wait.
 *
 * Returns how many InitSched() calls are still to be taken back. Ends the process with abort() when
 * there was none. */
int ExitSched(void);

#define SCHED_TRACE_LOOP 1   /* entry to and exit from iosched() */
#define SCHED_TRACE_CHUNKS 2 /* reference counts of shared chunks */

/* The trace hook: place in the library's source, tracing function, its SCHED_TRACE_ bit, and a
 * printf-style text. Runs inside the tracing function; for SCHED_TRACE_CHUNKS that is inside the
 * arena's mutex, where no chunk function may be called. */
typedef void (*SchedTraceFunc)(const char *file, int line, const char *function, int category,
                               const char *format, ...);

/* Installs the trace hook for the categories in level (SCHED_TRACE_ bits); a null func or a level
 * of 0 turns tracing off. May be called before InitSched(), and outlives ExitSched(). */
void SetSchedTraceCallback(SchedTraceFunc func, int level);

/* "@(#)ZorbexVersion 7.1.0 ..." for what-style tools. */
extern const char iosched_version[];

/* ---- descriptors and the loop ---- */

/* Called with the registered argument and the ready descriptor. */
typedef void (*SchedIOFunc)(void *arg, int fd);

/* Sets the callback for a descriptor that is readable or has hung up (registerInput), or that is
 * writable (registerOutput). Hang-ups and errors go to the input callback when there is one that is
 * not suspended, else to the output callback. The two directions are independent.
 *
 *   fd    0 or more and below the descriptor limit seen by InitSched() or ResizeSchedTable(); need
 *         not be open yet. Unregister both directions before closing it: a closed descriptor counts
 *         as ready in every pass, and no callback hears of it. Where many are registered, a
 *         descriptor closed, or closed and opened again, without a word to the library may go
 *         unnoticed for up to a hundred times as long as one poll of them all takes, and for
 *         0.1 s for each thousand of them at least (1 s with 10,000); iopeek() alone does not
 *         notice it.
 *   func  replaces the present one; NULL removes it and ends a suspension of this direction.
 *   arg   handed back untouched; stays the caller's.
 *
 * Takes effect at once, also for descriptors that the running pass has not come to yet. A callback
 * that closes a descriptor and registers a new one under its number may so see it called once for
 * what its predecessor was ready for: keep registered descriptors non-blocking.
 *
 * Returns 0, or -1 with errno EINVAL for a descriptor out of range. */
int registerInput(int fd, SchedIOFunc func, void *arg);
int registerOutput(int fd, SchedIOFunc func, void *arg);

/* Suspends (disableSched) or resumes (enableSched) both directions of a descriptor. A suspended
 * descriptor is still polled: when it is ready, passes return at once and count it, without calling
 * anything. While a callback runs, its own direction is suspended and nested passes do not enter it
 * again, unless it calls enableSched(); when it returns, its direction is resumed.
 *
 * Returns 0, or -1 with errno EINVAL for a descriptor out of range. */
int disableSched(int fd);
int enableSched(int fd);

/* One pass of the loop: runs the queued delayed calls and the callbacks of ended children, waits
 * for descriptors with all signals let in, and calls the callbacks of those that are ready.
 *
 *   timeout  seconds to wait, -1 for no limit, 0 for no wait. Other negative values mean no limit
 *            too; values above 2147483 wait for the longest time that poll can express (24.8 days).
 *            A pass that ran a delayed call or a child's callback does not wait.
 *
 * Returns the number of ready descriptors (suspended ones included), 0 when the time ran out, or -1
 * with poll's errno and without having called a descriptor's callback: EINTR when a caught signal
 * arrived, whose callback runs in the next pass. If a callback ran a pass of its own, the remaining
 * ready descriptors are left to the next pass. */
int iosched(int timeout);

/* iosched(timeout); fd is ignored. */
int ioschedFd(int fd, int timeout);

/* Returns 1 when a pass would find a signal or a ready descriptor at once (or cannot tell), else 0.
 * Calls nothing, and may be called inside a callback without disturbing the pass that runs it.
 * Queued delayed calls and ended children are not looked at. */
int iopeek(void);

/* Makes room for descriptors up to the process's present limit, after the program has raised it.
 * Registrations stay. A lowered limit changes nothing: the larger table is kept, and passes poll it
 * in pieces where it has become longer than poll takes in one call; they then look again every 10 ms
 * while nothing is ready. With a limit of 0 poll takes nothing, and passes fail with EINVAL. May be
 * called inside a callback.
 *
 * Returns 0, or SCHED_ERR_SYSTEM with errno ENOMEM and the table usable at its old size. */
int ResizeSchedTable(void);

/* ---- delayed calls ---- */

typedef struct DelayedCall DelayedCall;
typedef void (*DelayedCallFunc)(DelayedCall *call);

/* Caller-owned; must stay valid until its function is called or it has been taken out again. */
struct DelayedCall {
    DelayedCall *next; /* links, written by the library */
    DelayedCall *prev;
    DelayedCallFunc func; /* NULL: the record is dropped when its turn comes */
};

/* Queues the record for the start of the next pass, behind those queued before. A record that is
 * waiting already, in the queue or in a batch that is being run, is not queued twice. The record is
 * out of every list when its function runs, which may free it or queue it again. Usable before
 * InitSched(). Never fails. */
void registerDelayedCall(DelayedCall *call);

/* Takes the record out of the queue. Returns 1 when it was queued; 0 when it was not, which includes
 * a record whose batch is being run: that one still gets its call and must stay valid until then. */
int unRegisterDelayedCall(DelayedCall *call);

/* Runs what is queued now, as the start of a pass does. Records queued meanwhile wait for the next
 * run. Returns 0 when the queue was empty, else 1. */
int runDelayedCallQueue(void);

/* Gives up the processor: sched_yield() and its result. */
int ioYield(void);

/* ---- signals ---- */

typedef void (*SchedSignalFunc)(int sig);

/* Sets what happens on a signal, as signal() does. A callback runs from the loop, not inside a
 * signal handler; several arrivals before it runs are one call, and waiting signals are called in
 * ascending number. The signal is blocked outside the loop's wait from now on. SIG_DFL and SIG_IGN
 * give it back to the system. Stays in force after ExitSched(); after a second InitSched() call it
 * again, or the callback runs inside the signal handler (see there).
 *
 * Returns the previous handler, which may be passed back here later; SIG_ERR with errno EINVAL for
 * a number that is none, SIGKILL or SIGSTOP, and the handler as it was. */
SchedSignalFunc catchSignal(int sig, SchedSignalFunc handler);

/* enableSignals lets all signals in outside the loop too: from then on the callbacks of caught
 * signals run at once, inside the signal handler, and must limit themselves to what is safe there:
 * starting timers and queuing calls, which may allocate, is not.
 * disableSignals goes back to the loop's own mask (as every pass and catchSignal() do). Use these and
 * not pthread_sigmask(): passes may take a mask that was set past the library for their own, 64 of
 * them at most.
 *
 * Return 0, or the error number of pthread_sigmask(). */
int enableSignals(void);
int disableSignals(void);

/* ---- timers ---- */

typedef struct SchedTimer SchedTimer;
typedef void (*SchedTimerFunc)(SchedTimer *timer);

/* A one-shot timer. Caller-owned; must stay valid while it runs. */
struct SchedTimer {
    SchedTimerFunc func; /* called from the loop on expiry; may be NULL */
    void *arg;           /* the caller's own */
    int64_t interval;    /* milliseconds from start to expiry; below 0 counts as 0 */
    SchedTimer *next;    /* link, written by the library */
    int64_t expires;     /* getAbsMonoTime() of expiry, written by the library */
};

/* Starts a timer that is not running. It is off the list when its callback runs, which may start it
 * again, free it, or wait in passes of its own, during which the other timers fire. Timers fire by
 * expiry, ties in the order of starting. Needs InitSched(). Ends the process with abort() when the
 * timer is running: restartTimer() is for that. Never fails. */
void startTimer(SchedTimer *timer);

/* Starts the timer anew, running or not. Returns 1 if it was running, else 0. */
int restartTimer(SchedTimer *timer);

/* Stops the timer. Returns 1 if it was running, else 0. */
int stopTimer(SchedTimer *timer);

/* Stops every timer. Not while a waiting function (below) is active: its own timer would be gone
 * and it would never return. */
void stopAllTimers(void);

/* The monotonic clock in milliseconds; wall-clock changes do not move it. */
int64_t getAbsMonoTime(void);

/* ---- waiting while the loop goes on ---- */

/* These run passes until the time is over, so every callback goes on being served. They may be
 * called in any callback, and nest: an outer one returns after the inner one has. They last at least
 * as long as asked (in whole milliseconds of getAbsMonoTime()), signals do not cut them short, and
 * they return 0. 0 ms or 0 s runs one pass without waiting; ZORusleep rounds down to milliseconds
 * but waits at least one. */
int msleep(unsigned int ms);
unsigned int ZORsleep(unsigned int seconds);
int ZORusleep(unsigned int usec);

/* Runs passes until one returns -1, normally because a caught signal arrived (errno EINTR), whose
 * callback runs in the next pass. A timer's expiry counts, being SIGALRM. Returns -1 always. */
int ZORpause(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
