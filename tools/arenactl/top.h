// arenactl top: the arena once a second.
#pragma once

#include <string>

// On a terminal a view that fills it, with keys to sort and to quit; else a few lines for every
// look, to be kept or filtered. Ends after so many looks, with 0 never by itself. Returns false
// with the reason, ready to print, once the arena cannot be read.
bool watchArena(const char *path, int looks, std::string *error);
