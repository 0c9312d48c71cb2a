// The commands. Each appends its answer to a text or writes it into the innermost JSON object; what
// all answers share (the path, how good the copy is, what is wrong) is written around them.
#pragma once

#include "examine.h"
#include "json.h"

#include <string>

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

// What several of them show.
struct FreeSpace {
    uint64_t bytes = 0;
    uint64_t blocks = 0;
    uint64_t largest = 0;

    // How much of the free space one request cannot get, in percent.
    uint64_t fragmentation() const { return bytes == 0 ? 0 : (bytes - largest) * 100 / bytes; }
};
FreeSpace freeSpace(const ArenaModel &model);
void freeSpaceJson(const FreeSpace &space, JsonWriter &json);

// "free", "held by process 4711 (alive)".
std::string holderWords(const MutexState &mutex, Processes &processes);
void mutexesJson(Examination &exam, JsonWriter &json);

enum class Command { kInfo, kChunks, kLocks, kCheck };

// The whole output of a command and the exit status: 0, or 2 if something is wrong with the arena.
int runCommand(Command command, bool asJson, Examination &exam, std::string *output,
               const LockFilter &filter = {});
