// arenactl clean: removes from the lock tables the records of processes that have ended.
#pragma once

#include "repair_report.h"

#include <set>

struct CleanOptions {
    int waitMs = 250;         // for each mutex, and for another repair
    std::set<uint32_t> pids;  // only these; empty for all that have certainly ended
};

// False with the reason, ready to print, if the arena cannot be looked at.
bool cleanArena(const char *path, const CleanOptions &options, RepairReport *report,
                std::string *error);
