// A worker's side of the service.
#pragma once

#include "share.h"

// The life of a worker process: serves, counting in its slot of the board, until SIGTERM (ends at
// once, politely) or SIGUSR1 (lets its clients finish, for at most service.drainMs). Called in the
// child right after ioFork(); master is the pid of the process that forked it, taken before.
[[noreturn]] void liveAsWorker(pid_t master, BoardSlot *slot);

namespace worker {

extern BoardSlot *counters;  // this process's slot
extern bool leaving;         // no new clients

// Ends the process, from inside any callback.
[[noreturn]] void end();

}  // namespace worker
