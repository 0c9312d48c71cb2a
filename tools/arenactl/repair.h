// Repairs what a process left that died inside one of an arena's mutexes, as bytes and nothing
// else: no process is asked and no mutex touched, so that tests can run it on any state of any
// arena.
//
// Every operation of the library changes an arena in an order that leaves one of its structures
// whole at each instruction: the heap's list of allocated blocks, a table's forward chains. These
// are the truth. What else is kept (free list, backward links, counts, modes) follows from them.
//
// A repair keeps to that order too. Killed at any instruction, it leaves what a repair can repair.
// What the truth does not explain is refused before the first store.
#pragma once

#include "heap.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

struct Repair {
    std::vector<std::string> done;  // what was put right, a line each; empty = all was whole
    std::string refusal;            // why nothing was changed; empty unless refused
};

// Whether a process has ended for certain, so that its records may go.
using HasEnded = std::function<bool(uint32_t pid)>;

// The heap, for the holder of the header's mutex.
Repair repairHeap(std::span<std::byte> bytes);

// The lock table in this chunk, for the holder of its mutex. Also removes the records of the
// processes that have ended: their clean may be what was cut short.
Repair repairTable(std::span<std::byte> bytes, const HeapBlock &chunk, const HasEnded &hasEnded);

// A lock table that its creator left half made: whether the chunk of this name is one, and gives it
// up, so that repairHeap() returns it to the heap. For the holder of the header's mutex, which no
// creator lets go before its table is ready.
Repair abandonTable(std::span<std::byte> bytes, const std::string &name);
