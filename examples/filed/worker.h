#pragma once

#include "prefork/life.h"

// What a worker of this server does for the service (prefork/service.h).
void beginAccepting();
void stopAccepting();
void sayGoodbye();

namespace worker {

extern int listenSocket;  // set by main(), like the next
extern int rootFd;        // the directory that is served

// A connection has ended: the worker may have been waiting for this one.
void connectionEnded();

}  // namespace worker
