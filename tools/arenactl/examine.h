// What every command begins with: a copy of the arena, read and checked, and how far to trust it.
#pragma once

#include "check.h"
#include "image.h"
#include "processes.h"

#include <string>

struct Examination {
    ArenaFile file;
    ArenaImage image;
    ArenaModel model;
    Processes processes{file};
    bool exact = false;  // the copy is the arena as it was at one moment, between two operations
    std::string whyNot;  // otherwise: what kept it from holding still

    // Something is wrong that a change under way does not explain.
    bool damaged() const;
};

// Looks at most waitMs milliseconds for a quiet moment. False with the reason, ready to print, when
// the file cannot be read at all.
bool examineArena(const char *path, int waitMs, Examination *exam, std::string *error);
