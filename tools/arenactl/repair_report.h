// What arenactl repair and clean have found and done, for people and for programs.
#pragma once

#include "json.h"
#include "takeover.h"

#include <string>
#include <vector>

// A mutex, and what became of what it guards.
struct MutexReport {
    std::string place;  // "arena header", "table \"locks\""
    uint64_t offset;
    Holder holder;
    uint32_t thread;  // of the holder, 0 for none
    std::string outcome;
    std::vector<std::string> done;
    std::string refusal;
};

struct RepairReport {
    std::string path;
    const char *command = "repair";
    bool isRehearsal = false;  // --dry-run: everything is what would be done
    std::vector<MutexReport> mutexes;
    std::vector<std::string> notes;     // what the bytes cannot tell
    std::vector<std::string> refusals;  // of the arena as a whole

    bool isRefused() const;
    bool hasDone() const;
    std::string text() const;
    std::string json() const;
};
