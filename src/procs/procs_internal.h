// What the child registry and the fork hooks offer to the rest of the library.
#pragma once

#include "iosched/procs.h"

#include "support/list.h"

namespace iosched_lib {

// One registration of a child.
struct ChildRecord : ListLink {
    int32_t pid;  // 0: not listed
    bool own;     // part of an OwnChild, else on the heap and the registry's to free
    bool reaped;  // status is filled in, the callback is to run
    bool kept;    // `later` waits for a registration that is made while the callback runs
    ChildDoneFunc callback;
    void *argument;
    ChildStatus status;
    ChildStatus later;  // what was reaped of a stopped child after the stop; pid 0: nothing yet
};

// Files the status of a reaped child with its registrations; drops it when there is none.
void schedChildDied(int pid, const ChildStatus *status);

// Runs the callbacks of the children that have been reaped. Returns how many it ran.
unsigned int callRegisteredChildFuncs(void);

// The SIGCHLD callback: reaps every child that has ended or stopped, then runs their callbacks.
void schedChildDone(int sig);

int initProcesses(void);

// A command that a function of the library waits for. Its registration is out of registerChild's
// reach, and lies in memory of the function that waits.
struct OwnChild {
    ChildRecord record;
    pid_t owner;  // the process whose child it is
};

// Starts a command and registers it, with SIGCHLD blocked in between and the signal mask left as it
// was. 0, or -1 with errno and nothing started.
int startOwnChild(OwnChild *child, const SpawnOptions *options, const char *command,
                  ChildDoneFunc callback, void *arg);

// Runs passes, at least one, until the flag that the child's callback sets is not 0. A process
// forked off its owner in the meantime, or before, never hears of that child: false with errno
// ECHILD there, and the registration gone.
bool waitForOwnChild(OwnChild *child, const int32_t &done);

// The steps of a registration by the library itself: makes room for one, or gives false with errno
// ENOMEM; lists the record, for which there is room; takes it off its list if it is on one.
bool reserveOwnChild(void);
void listOwnChild(ChildRecord *record, int pid, ChildDoneFunc callback, void *arg);
void unlistOwnChild(ChildRecord *record);

// Whether any child is registered and not yet reaped.
bool anyChildRegistered(void);

// Calls every fork hook, oldest first.
void applyForkTab(int phase, int value);

// In the child of a fork: forgets the parent's children without calling anybody.
void forgetAllChildren(void);

}  // namespace iosched_lib

using namespace iosched_lib;
