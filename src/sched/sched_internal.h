// What the modules of the loop offer each other and the rest of the library.
#pragma once

#include "iosched/sched.h"

#include <signal.h>

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

// Non-zero exactly while a pass waits in poll with signals unblocked; the signal handler reads it.
extern volatile sig_atomic_t inIOSched;

int initIosched(void);
void exitIosched(void);

// ---- delayed.cpp ----

int initDelayedCalls(void);

// ---- signals_unix.cpp ----

extern sigset_t emptymask;   // nothing blocked: the mask while a pass waits
extern sigset_t cursigmask;  // the signals that have a callback: the mask everywhere else

int initSignals(void);
void exitSignals(void);

// While held (calls nest), a caught signal that gets through is marked and left to the next pass
// instead of running its callback inside the signal handler.
void holdSignalCallbacks(void);
void releaseSignalCallbacks(void);

// In a child made by ioFork: replaces the inherited self-pipe. On failure the child has none, and
// each of its passes tries again (longestWaitForSignals). 0, or -1 with errno.
int afterForkChildSelfPipe(void);

// Called by each pass: how many milliseconds it may wait without missing a signal, -1 for no limit.
// While the self-pipe is lost, this tries to make it, and where that fails runs the callbacks of the
// signals that have arrived.
int longestWaitForSignals(void);

// True when a signal has arrived that no byte in a self-pipe tells of.
bool markIsWithoutByte(void);

// For a child about to execute a program: gives every signal that has a handler, the library's or the
// program's own, back to its default action as exec does, so that no code of the parent can run in
// the child. All signals are to be blocked around it.
void forgetCaughtSignalsInChild(void);

// ---- timer.cpp ----

int initTimers(void);

// Called before a pass waits or peeks: arms the interval timer where a run of the alarm handler,
// still active further out, has held that back.
void armHeldBackTimers(void);

// ---- msleep.cpp ----

// Runs passes until ms milliseconds are over; one pass without waiting for 0.
void sleepInLoop(int64_t ms);
