// Stops the processes that map an arena, to find out whether one of them is just locking or
// unlocking a mutex.
//
// Between the store that locks a mutex and the one that names its owner lie about fifteen
// instructions, and as many at the unlock. A mutex without an owner is held by a process that
// stands there, or by one that died there. With all of them stopped, and each moved on by more
// instructions than that, none stands there any more.
#pragma once

#include "image.h"

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

class StoppedUsers {
public:
    explicit StoppedUsers(const ArenaFile &file) : file_(file) {}
    ~StoppedUsers();  // lets all go on; so does the kernel, should this process die
    StoppedUsers(const StoppedUsers &) = delete;
    StoppedUsers &operator=(const StoppedUsers &) = delete;

    // Stops every thread of every process that maps the arena. False with the reason if one cannot
    // be stopped.
    bool stopAll(std::string *why);

    // Moves one after the other on, until all have left the window or settled() says that the mutex
    // has found its owner or is free.
    void stepOut(const std::function<bool()> &settled);

private:
    struct Thread {
        pid_t process;
        pid_t id;
        std::vector<int> signals;  // kept from it while it is moved on
    };
    enum class Stop { kStopped, kGone, kRuns };

    bool stopThread(pid_t process, pid_t id, std::string *why);
    static Stop awaitStop(Thread *thread);
    static Stop step(Thread *thread);
    static void letGo(const Thread &thread);

    const ArenaFile &file_;
    std::vector<Thread> threads_;
};
