// Who uses an arena's file: has its lock, has it open, maps it.
#pragma once

#include "image.h"

#include <cstdint>
#include <string>
#include <vector>

struct ArenaUser {
    uint32_t pid;
    std::string command;
    std::string lock;  // "shared", "exclusive", "waits for exclusive", ...; empty for none
    bool hasOpen;      // seen among its descriptors; needs the right to look
};

// Who holds the file's lock or has it open, by process id, without this process. A process of
// another user may show only by its lock, a child that inherited the descriptor only by that.
std::vector<ArenaUser> arenaUsers(const ArenaFile &file);

enum class Seen { kNo, kYes, kHidden };  // hidden: this process may not look

Seen hasArenaOpen(uint32_t pid, const ArenaFile &file);
// Also of a single thread. Hidden, too, while a process is ending and has no mappings any more.
Seen mapsArena(uint32_t pid, const ArenaFile &file);

// The processes that map the file, without this one. False if there may be more: a process that may
// not be looked at. For root only one that has the file's lock counts: what is hidden even from
// root is the system's own, or a container's outside.
bool findMappers(const ArenaFile &file, std::vector<uint32_t> *pids);

// Whether process ids mean the same to that process as to this one.
Seen sharesPidNamespace(uint32_t pid);
