// What the child registry and the fork hooks offer to the rest of the library.
#pragma once

#include "iosched/procs.h"

// Files the status of a reaped child with its registration; drops it when there is none.
void schedChildDied(int pid, const ChildStatus *status);

// Runs the callbacks of the children that have been reaped. Returns how many it ran.
unsigned int callRegisteredChildFuncs(void);

// The SIGCHLD callback: reaps every child that has ended or stopped, then runs their callbacks.
void schedChildDone(int sig);

int initProcesses(void);

// registerChild in two steps, for who cannot undo the start of a child: what may fail comes first.
// The reservation is the caller's until it is committed or dropped.
struct ChildRecord;
ChildRecord *reserveChild(void);  // null with errno ENOMEM
void commitChild(ChildRecord *reserved, int pid, ChildDoneFunc callback, void *arg);
void dropReservation(ChildRecord *reserved);  // keeps errno

// Runs passes, at least one, until the flag that a child's callback sets is not 0. A process forked
// off its owner in the meantime, or before, never hears of that child: false with errno ECHILD there.
bool waitForOwnChild(const int32_t &done, pid_t owner);

// Calls every fork hook, oldest first.
void applyForkTab(int phase, int value);

// In the child of a fork: forgets the parent's children without calling anybody.
void forgetAllChildren(void);

// Takes a terminal away from everybody who has it open. -1 with errno ENOSYS on this system.
int revokeTerminal(const char *name);
