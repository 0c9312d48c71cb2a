// What the system knows about processes: who uses the arena, and whether a process id in it still
// means anything.
#pragma once

#include "image.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

enum class Life {
    kAlive,     // runs, and has the arena open or mapped, or nobody may look
    kStranger,  // runs, but has nothing to do with the arena: the id was used again
    kZombie,    // has ended and waits for its parent
    kDead,      // there is no such process
};

// "alive", "ended, not reaped", ...
const char *lifeWords(Life life);
// "alive", "stranger", "zombie", "dead": for programs.
const char *lifeName(Life life);
inline bool hasEnded(Life life) {
    return life != Life::kAlive;
}

// Answers are kept, so that a table with a thousand records of one process asks once.
class Processes {
public:
    explicit Processes(const ArenaFile &file) : file_(file) {}
    Life lifeOf(uint32_t pid);

private:
    Life look(uint32_t pid) const;
    bool usesArena(uint32_t pid) const;

    const ArenaFile &file_;
    std::unordered_map<uint32_t, Life> known_;
};

struct ArenaUser {
    uint32_t pid;
    std::string command;
    std::string lock;  // "shared", "exclusive", "waits for exclusive", ...; empty for none
    bool hasOpen;      // seen among its descriptors; needs the right to look
};

// Who holds the file's lock or has it open, by process id. A process of another user may show only
// by its lock, a child that inherited the descriptor only by that.
std::vector<ArenaUser> arenaUsers(const ArenaFile &file);
