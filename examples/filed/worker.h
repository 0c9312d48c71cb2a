#pragma once

#include "share.h"

// The life of a worker process: accepts on the listening socket and serves its connections, counting
// in its slot of the board, until SIGTERM (ends at once, politely) or SIGUSR1 (lets its connections
// finish, for at most settings.drainMs). Called in the child right after ioFork(); master is the pid
// of the process that forked it, taken before.
[[noreturn]] void runWorker(pid_t master, int listenFd, int rootFd, BoardSlot *slot);

namespace worker {

extern BoardSlot *counters;  // this process's slot
extern int rootFd;           // the directory that is served
extern bool leaving;  // no new connections; the ones that are left are told so when they idle

// A connection has ended: the worker may have room again, or may have been waiting for this one.
void connectionEnded();

}  // namespace worker
