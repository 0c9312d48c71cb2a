#include "processes.h"

#include "proc.h"
#include "users.h"

#include <cerrno>
#include <csignal>

namespace {

constexpr LifeText kLifeTexts[] = {
    {"alive", "alive"},
    {"stranger", "not a user of this arena (its id was used again)"},
    {"zombie", "ended, not reaped"},
    {"dead", "dead"},
};

// Of a thread.
bool hasExited(uint32_t thread) {
    const std::string stat = readText(procPath(thread, "stat"));
    const size_t end = stat.rfind(')');  // the command's name may hold anything
    if (end == stat.npos || end + 2 >= stat.size()) return false;
    return stat[end + 2] == 'Z' || stat[end + 2] == 'X';
}

// kill() gives 0 and negative numbers a meaning of their own.
bool isThere(uint32_t id) {
    return id != 0 && id <= INT32_MAX && (::kill(static_cast<pid_t>(id), 0) == 0 || errno != ESRCH);
}

// The first thread of a process may exit long before the others.
bool hasOtherThreads(uint32_t pid) {
    NumberedEntries threads(procPath(pid, "task"));
    uint32_t id = 0;
    while (threads.isOpen() && threads.next(&id)) {
        if (id != pid) return true;
    }
    return false;
}

}  // namespace

const LifeText &textOf(Life life) {
    return kLifeTexts[static_cast<size_t>(life)];
}

Life Processes::bareLife(uint32_t pid) {
    if (!isThere(pid)) return Life::kDead;
    return hasExited(pid) && !hasOtherThreads(pid) ? Life::kZombie : Life::kAlive;
}

Life Processes::lifeOf(uint32_t pid) {
    const auto [known, isNew] = known_.emplace(pid, Life::kDead);
    if (!isNew) return known->second;
    known->second = bareLife(pid);
    if (known->second == Life::kAlive && mapsArena(pid, file_) == Seen::kNo &&
        hasArenaOpen(pid, file_) == Seen::kNo)
        known->second = Life::kStranger;
    return known->second;
}

Life Processes::holderLife(uint32_t thread) const {
    if (!isThere(thread)) return Life::kDead;
    if (hasExited(thread)) return Life::kZombie;
    return mapsArena(thread, file_) == Seen::kNo ? Life::kStranger : Life::kAlive;
}
