// arenactl repair: frees the mutexes of an arena whose holders died, after a repair of what they
// guard.
#pragma once

#include "repair_report.h"

#include <string>
#include <vector>

struct RepairOptions {
    int waitMs = 250;  // for a living holder of the arena's mutex, and for another repair
    bool isRehearsal = false;
    std::vector<std::string> abandoned;  // names of lock tables to give up that were never ready
};

// False with the reason, ready to print, if the arena cannot be looked at.
bool repairArena(const char *path, const RepairOptions &options, RepairReport *report,
                 std::string *error);
