// What a mutex guards, and how a change of it is tried on a copy before it is made.
#pragma once

#include "repair.h"
#include "repair_report.h"

struct Guarded {
    std::function<Repair(std::span<std::byte>)> mend;
    // What is wrong with it, as one line; empty for nothing.
    std::function<std::string(std::span<const std::byte>)> fault;
};

Guarded guardedHeap();
Guarded guardedTable(const HeapBlock &chunk, HasEnded hasEnded);

// Whether the chunk is a lock table that is ready to be used.
bool isReadyTable(std::span<const std::byte> bytes, const HeapBlock &chunk);

// Mends a copy and lets the checker judge it. True with what would be done in the report; false
// with the refusal there, also when the copy would not be sound afterwards. The real thing is then
// left as it is.
bool rehearse(std::span<const std::byte> bytes, const Guarded &guarded, MutexReport *report);
