// A lock table as it lies in the arena, read and checked by the checker that arenactl is made of.
#pragma once

#include "check.h"

#include "iosched/shared.h"

#include <string>
#include <vector>

// The whole table, and what is wrong with it or with the arena around it.
struct TableBytes {
    std::string fault;  // empty = every invariant holds
    std::vector<TableFile> entries;
    uint64_t freeEntries = 0, freeRecords = 0;
};

// To be called while nobody is in the table, which was made for so many entries and records.
inline TableBytes readTableBytes(const SharedFileLockTable *table, uint64_t entries,
                                 uint64_t records) {
    const auto *base = static_cast<const std::byte *>(table->arena->base);
    const auto offset = static_cast<uint64_t>(static_cast<const std::byte *>(table->header) - base);
    const ArenaModel model = readArena({base, table->arena->mapLength});
    if (!model.findings.empty()) return {describe(model.findings.list().front()), {}};
    for (const LockTable &found : model.tables) {
        if (found.offset != offset) continue;
        if (found.fileEntries != entries || found.lockRecords != records)
            return {"another number of entries or records", {}};
        return {"", found.files, found.freeFiles, found.freeRecords};
    }
    return {"no table there", {}};
}
