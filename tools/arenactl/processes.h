// What the system knows about processes: whether a process id in the arena still means anything.
#pragma once

#include "image.h"

#include <cstdint>
#include <unordered_map>

enum class Life {
    kAlive,     // runs, and has the arena open or mapped, or nobody may look
    kStranger,  // runs, but has nothing to do with the arena: the id was used again
    kZombie,    // has ended and waits for its parent
    kDead,      // there is no such process
};

struct LifeText {
    const char *name;   // for programs: "alive", "stranger", "zombie", "dead"
    const char *words;  // for people
};
const LifeText &textOf(Life life);

// Answers are kept, so that a table with a thousand records of one process asks once.
class Processes {
public:
    explicit Processes(const ArenaFile &file) : file_(file) {}
    Life lifeOf(uint32_t pid);

    // Whether a mutex's holder, known by its thread id, can still release it. Asks anew every time.
    // Only who maps the arena can: a stranger here may have the file open.
    Life holderLife(uint32_t thread) const;

    // Without a look at the arena, so that a stranger is alive.
    static Life bareLife(uint32_t pid);

private:
    const ArenaFile &file_;
    std::unordered_map<uint32_t, Life> known_;
};

// No such process, or one that only waits for its parent: its records are nobody's. A stranger's
// may be its own: it has closed the arena, or is just starting another program in its place.
inline bool hasEnded(Life life) {
    return life == Life::kZombie || life == Life::kDead;
}

// Likewise a mutex: whoever does not map the arena does not hold it.
inline bool cannotHold(Life life) {
    return life != Life::kAlive;
}
