// What the modules of the loop offer each other and the rest of the library.
#pragma once

#include "iosched/sched.h"
#include "support/guards.h"

#include <signal.h>

namespace iosched_lib {

// ---- iosched_trace.cpp ----

// The installed hook and its categories; set together and cleared together.
extern SchedTraceFunc schedTraceCallbackFunc;
extern int schedTraceLevel;

// A trace point. A macro, since only the preprocessor knows where it stands.
#define SCHED_TRACE(category, ...)                                                                 \
    do {                                                                                           \
        if ((schedTraceLevel & (category)) != 0)                                                   \
            schedTraceCallbackFunc(__FILE__, __LINE__, __func__, category, __VA_ARGS__);           \
    } while (0)

// ---- iosched_unix.cpp ----

int initIosched(void);
void exitIosched(void);

// ---- ready.cpp ----

// Non-zero exactly while a pass asks or waits for ready descriptors: a signal that gets through
// then is left to the loop. The signal handler reads it.
extern volatile sig_atomic_t inIOSched;

// Whether a descriptor's input or output callback is this one with this argument.
bool hasInput(int fd, SchedIOFunc func, const void *arg);
bool hasOutput(int fd, SchedIOFunc func, const void *arg);

// ---- delayed.cpp ----

int initDelayedCalls(void);

// ---- signals_unix.cpp ----

extern sigset_t emptymask;   // nothing blocked: the mask while a pass waits
extern sigset_t cursigmask;  // the signals that have a callback: the mask everywhere else

int initSignals(void);
void exitSignals(void);

// While held, a caught signal that gets through is marked and left to the next pass instead of
// running its callback inside the signal handler.
void holdSignalCallbacks(bool hold);

// True when the thread's mask is the loop's own, so that a pass need not set it.
bool loopMaskStands();

// In a child made by ioFork: replaces the inherited self-pipe. On failure the child has none, and
// each of its passes tries again (runSignalsWithoutPipe). 0, or -1 with errno.
int afterForkChildSelfPipe(void);

// Called by each pass. While the self-pipe is lost, tries to make it, and where that fails runs the
// callbacks of the signals that have arrived. True when it ran any.
bool runSignalsWithoutPipe();

// True when a signal has arrived that no byte in a self-pipe tells of.
bool markIsWithoutByte(void);

// Moves a descriptor of the library's own away from the standard ones, which are the program's.
bool moveAboveStandardFds(FdGuard *fd);

// For a child about to execute a program: gives every signal that has a handler, the library's or
// the program's own, back to its default action as exec does, so that no code of the parent can run
// in the child. All signals are to be blocked around it.
void forgetCaughtSignalsInChild(void);

// ---- timer.cpp ----

int initTimers(void);

// Called before a pass waits or peeks: arms the interval timer where a run of the alarm handler,
// still active further out, has held that back.
void armHeldBackTimers(void);

// ---- msleep.cpp ----

// Runs passes until ms milliseconds are over; one pass without waiting for 0.
void sleepInLoop(int64_t ms);

}  // namespace iosched_lib

using namespace iosched_lib;
