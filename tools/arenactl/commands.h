// The commands. Each appends its answer to a text or writes it into the innermost JSON object; what
// all answers share (the path, how good the copy is, what is wrong) is written around them.
#pragma once

#include "examine.h"
#include "json.h"

#include <string>
#include <vector>

// What of a lock table arenactl locks shows.
struct LockFilter {
    std::string file;  // a name, the end of one, or a key as it is printed; empty for every file
    uint32_t pid = 0;  // only what this process holds; 0 for everybody
    bool blocking = false;  // with who stands in whose way
};

// Each in the file of its name.
std::string infoText(Examination &exam);
void infoJson(Examination &exam, JsonWriter &json);
std::string chunksText(const Examination &exam);
void chunksJson(const Examination &exam, JsonWriter &json);
std::string locksText(Examination &exam, const LockFilter &filter);
void locksJson(Examination &exam, const LockFilter &filter, JsonWriter &json);
std::string checkText(Examination &exam);
std::string metricsText(Examination &exam);

// What several of them show.
struct FreeSpace {
    uint64_t bytes = 0;
    uint64_t blocks = 0;
    uint64_t largest = 0;

    // How much of the free space one request cannot get, in percent.
    uint64_t fragmentation() const { return bytes == 0 ? 0 : (bytes - largest) * 100 / bytes; }
};
FreeSpace freeSpace(const ArenaModel &model);
// What is allocated, in bytes of blocks; free space is the rest.
struct UsedSpace {
    uint64_t bytes = 0;
    uint64_t chunks = 0;
};
UsedSpace usedSpace(const ArenaModel &model);

// The findings that no change under way explains.
size_t countSure(const Examination &exam);

// How a lock table is called and how full it is.
void tableFillJson(const LockTable &table, JsonWriter &json);

void freeSpaceJson(const FreeSpace &space, JsonWriter &json);

// The records of processes that have ended or have nothing to do with the arena, by table and
// process. Nothing is wrong with them: they count until somebody cleans.
struct StaleRecords {
    const LockTable *table;
    uint32_t pid;
    Life life;
    uint64_t records;
};
std::vector<StaleRecords> staleRecords(Examination &exam);
std::string staleText(Examination &exam);
void staleJson(Examination &exam, JsonWriter &json);

// "free", "held by process 4711 (alive)".
std::string holderWords(const MutexState &mutex, Processes &processes);
void mutexesJson(Examination &exam, JsonWriter &json);

enum class Command { kInfo, kChunks, kLocks, kCheck, kMetrics };

// The whole output of a command and the exit status: 0, or 2 if something is wrong with the arena.
int runCommand(Command command, bool asJson, Examination &exam, std::string *output,
               const LockFilter &filter = {});
