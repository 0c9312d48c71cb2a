// Which processes sleep on an arena's mutexes.
#pragma once

#include "image.h"

#include <cstdint>
#include <map>
#include <vector>

using Waiters = std::map<uint64_t, std::vector<uint32_t>>;

// The waiting processes by the arena offset of what they wait for. Shows only those that this
// process may look at.
Waiters arenaWaiters(const ArenaFile &file);
