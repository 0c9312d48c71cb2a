// The checker: everything that can be read out of an arena's bytes, and everything wrong with them.
//
// It works on a span of bytes and nothing else, so tests can run it on a mapping of their own and
// the tool on a copy. It follows no offset that it has not checked and ends on any input. What
// only the system knows, such as whether the holder of a mutex is alive, is not its business.
#pragma once

#include "findings.h"
#include "heap.h"
#include "table.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

struct MutexState {
    uint64_t offset;
    std::string place;  // "arena header", "table \"locks\""
    uint32_t word;      // 0 while free
    uint32_t owner;     // thread id that the mutex itself records
    uint32_t holder;    // process id that the library records; 0 while free

    bool held() const { return word != 0; }
    // The process to ask about. The C library records the locker itself; what the library records
    // is wrong in a child of plain fork(), which goes on giving its parent's id.
    uint32_t process() const { return owner != 0 ? owner : holder; }
};

struct ArenaModel {
    bool isArena = false;  // magic and version are right; nothing else was read if not
    uint32_t magic = 0;
    uint32_t version = 0;
    std::vector<MutexState> mutexes;  // the header's, then the tables' by address
    std::vector<HeapBlock> blocks;    // by address
    std::vector<LockTable> tables;    // by address
    Findings findings;

    bool anyMutexHeld() const;
};

// Reads and checks a whole arena. The bytes must hold still: under the mutexes, or a copy.
ArenaModel readArena(std::span<const std::byte> bytes);

// The findings alone, one line each, for tests: an empty string says that the arena is sound.
std::string checkArena(std::span<const std::byte> bytes);

// "0x48 +8  block at 0x48, next: leads to 0x3, which ..."
std::string describe(const Finding &finding);
