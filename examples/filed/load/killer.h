// Kills workers raw, at any moment, or at a random instruction inside the lock table's mutex.
//
// A process of its own does it, forked before there are connections: the load goes on while it
// moves a worker on, step by step, to where it is to die.
#pragma once

#include <cstdint>

struct Killed {
    int64_t us;   // when, on the monotonic clock
    bool done;    // false: there was no worker to kill
    bool inside;  // the mutex was the worker's
};

class Killer {
public:
    using Func = void (*)(const Killed &killed);

    // Finds mutex and workers in the server's arena and starts the process. It looks at the file
    // from outside, without mapping it, and so is none of those that a repair has to ask about.
    // Returns false with errno, or with 0 in it when the file holds no server's arena.
    bool start(const char *arenaPath, Func func);

    // Has one worker killed, and func called from the loop when it is done.
    void kill(bool inside) const;

private:
    static void onReport(void *arg, int fd);
    int channel_ = -1;
    Func func_ = nullptr;
};
