// The commands. Each appends its answer to a text or writes it into the innermost JSON object; what
// all answers share (the path, how good the copy is, what is wrong) is written around them.
#pragma once

#include "examine.h"
#include "json.h"

#include <string>

// Each in the file of its name.
std::string infoText(Examination &exam);
void infoJson(Examination &exam, JsonWriter &json);
std::string chunksText(const Examination &exam);
void chunksJson(const Examination &exam, JsonWriter &json);
std::string locksText(Examination &exam);
void locksJson(Examination &exam, JsonWriter &json);
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
int runCommand(Command command, bool asJson, Examination &exam, std::string *output);
