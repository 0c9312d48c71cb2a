// What arenactl reads in an arena file: the bytes, in the order in which they lie there.
//
// A looker must never take an offset on trust, so these structs are only ever copied out of the
// file, never pointed into it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace layout {

constexpr uint32_t kMagic = 0x51317093;
constexpr uint32_t kVersion = 1;
constexpr uint64_t kHeapStart = 0x48;
constexpr uint64_t kPageBytes = 4096;
constexpr uint32_t kTableReady = 3;

// The first words of a process-shared mutex: glibc's, then the library's holder field.
struct Mutex {
    uint32_t word;  // 0 free, 1 locked, 2 locked and waited for
    uint32_t count;
    uint32_t owner;  // thread id of the owner
    uint32_t users;
    uint32_t kind;  // 0x80: shared between processes, default type
    uint32_t rest[5];
    uint32_t holder;
    uint32_t padding;
};
static_assert(sizeof(Mutex) == 48 && offsetof(Mutex, holder) == 40);

struct Header {
    Mutex mutex;
    uint32_t magic;
    uint32_t version;
    uint64_t freeHead;
    uint64_t allocatedHead;
};
static_assert(sizeof(Header) == kHeapStart && offsetof(Header, freeHead) == 0x38);

struct Block {
    uint64_t next;
    uint64_t name;
    uint64_t blockSize;
    uint64_t chunkSize;
    uint32_t references;
    uint32_t padding;
};
static_assert(sizeof(Block) == 0x28);

struct Links {
    uint64_t next;
    uint64_t prev;
};

struct Table {
    Mutex mutex;
    uint32_t state;
    uint32_t zero;
    Links freeFiles;
    Links freeRecords;
    uint32_t buckets;
    uint32_t zero2;
};
static_assert(sizeof(Table) == 96 && offsetof(Table, buckets) == 88);

struct File {
    Links links;
    uint64_t word0;
    uint64_t word1;
    uint32_t combinedMode;
    uint32_t openLimit;
    uint32_t opens;
    char name[32];
    uint32_t zero;
    Links records;
};
static_assert(sizeof(File) == 96 && offsetof(File, name) == 44 && offsetof(File, records) == 80);

struct Record {
    Links links;
    uint32_t pid;
    uint32_t owner;
    uint32_t handle;
    uint32_t zero;
    int64_t start;
    int64_t end;
    uint32_t mode;
    uint32_t zero2;
};
static_assert(sizeof(Record) == 56 && offsetof(Record, mode) == 48);

}  // namespace layout
