// Reads a file lock table out of its chunk.
//
// The table stores neither how many file entries it has nor how many records. Both follow from the
// size of the chunk and from the lists: every entry and every record is on exactly one.
#pragma once

#include "findings.h"
#include "heap.h"
#include "shared/locks_internal.h"

#include <string>
#include <vector>

struct TableRecord {
    uint64_t offset;
    uint32_t pid;
    uint32_t owner;
    uint32_t handle;
    int64_t start;
    int64_t end;
    uint32_t mode;
    bool isOpen;  // an open of the file; otherwise a lock on a range of its bytes
};

struct TableFile {
    uint64_t offset;
    uint32_t bucket;
    uint64_t word0;
    uint64_t word1;
    uint32_t combinedMode;
    uint32_t openLimit;
    uint32_t opens;
    std::string name;
    std::vector<TableRecord> records;  // in list order, which is the order of their making
};

struct LockTable {
    uint64_t offset;  // of the chunk's data
    uint64_t size;
    std::string name;  // of the chunk
    uint32_t state;
    uint32_t buckets;
    uint64_t fileEntries;
    uint64_t freeFiles;
    uint64_t lockRecords;
    uint64_t freeRecords;
    std::vector<TableFile> files;       // in bucket order
    std::vector<uint64_t> lostFiles;    // offsets of the entries that are on no list
    std::vector<uint64_t> lostRecords;  // likewise
    bool readable;                      // the counts could be worked out and the lists were read

    uint64_t recordsInUse() const {
        uint64_t count = 0;
        for (const TableFile &file : files)
            count += file.records.size();
        return count;
    }
};

// Does this chunk hold a lock table, or what is left of one? Decided by most of the signs that one
// bears, so that a table with one of them damaged is still checked as a table.
bool looksLikeTable(const ArenaView &arena, const HeapBlock &chunk);

LockTable readTable(const ArenaView &arena, const HeapBlock &chunk, Findings &findings);
