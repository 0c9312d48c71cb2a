// arenactl locks: every file of every lock table, who holds what of it, and who stands in whose
// way.
#include "blocking.h"
#include "commands.h"
#include "waiters.h"
#include "words.h"

#include <algorithm>
#include <cinttypes>

namespace {

std::string keyWords(const TableFile &file) {
    return printed("0x%" PRIx64 ":0x%" PRIx64, file.word0, file.word1);
}

// The table keeps the end of a long name only.
bool isNamed(const TableFile &file, const std::string &wanted) {
    const std::string_view name = file.name;
    return keyWords(file) == wanted || name.ends_with(wanted) ||
           (name.size() == kStoredNameBytes && wanted.ends_with(name));
}

bool isShown(const TableRecord &record, const LockFilter &filter) {
    return filter.pid == 0 || record.pid == filter.pid;
}

bool isShown(const TableFile &file, const LockFilter &filter) {
    if (!filter.file.empty() && !isNamed(file, filter.file)) return false;
    return filter.pid == 0 ||
           std::any_of(file.records.begin(), file.records.end(),
                       [&](const TableRecord &record) { return isShown(record, filter); });
}

std::string holderOf(const TableRecord &record) {
    return printed("process %" PRIu32 " owner %" PRIu32 " handle %" PRIu32, record.pid,
                   record.owner, record.handle);
}

// What every line about a file's records begins with, so that it can be read by itself.
std::string titleOf(const TableFile &file) {
    return file.name.empty() ? "key " + keyWords(file) : quoted(file.name);
}

std::string obstaclesText(const TableFile &file, const LockFilter &filter) {
    std::string text;
    for (const Obstacle &obstacle : obstaclesIn(file)) {
        if (!isShown(*obstacle.record, filter)) continue;
        const bool isOpen = obstacle.record->isOpen;
        text += "    " + titleOf(file) + "  " + holderOf(*obstacle.record) + " stops " +
                joined(obstacle.stops) + (isOpen ? "" : ", " + rangeWords(*obstacle.record));
        for (const TableRecord *other : obstacle.affected)
            text += (other == obstacle.affected.front() ? " by " : ", ") + holderOf(*other);
        text += "\n";
    }
    return text;
}

std::string waitersText(const LockTable &table, const std::vector<uint32_t> &pids) {
    std::string text;
    for (const uint32_t pid : pids)
        text += "  table " + quoted(table.name) +
                printed(": process %" PRIu32 " waits for the mutex\n", pid);
    return text;
}

std::string limitWords(const TableFile &file) {
    return file.openLimit == 0 ? std::string() : printed(" (limit %" PRIu32 ")", file.openLimit);
}

std::string recordsText(const TableFile &file, const LockFilter &filter, Processes &processes) {
    Columns columns;
    for (const TableRecord &record : file.records) {
        if (!isShown(record, filter)) continue;
        columns.row(
            {titleOf(file), record.isOpen ? "open" : "lock",
             printed("process %" PRIu32, record.pid), textOf(processes.lifeOf(record.pid)).words,
             printed("owner %" PRIu32, record.owner), printed("handle %" PRIu32, record.handle),
             record.isOpen ? joined(modeWords(record.mode))
                           : joined(lockWords(record.mode)) + ", " + rangeWords(record)});
    }
    return columns.text(4);
}

std::string fileText(const TableFile &file, const LockFilter &filter, Processes &processes) {
    return printed("  %s  key %s, %s%s, combined mode %s\n", quoted(file.name).c_str(),
                   keyWords(file).c_str(), counted(file.opens, "open", "opens").c_str(),
                   limitWords(file).c_str(), joined(modeWords(file.combinedMode)).c_str()) +
           recordsText(file, filter, processes) +
           (filter.blocking ? obstaclesText(file, filter) : std::string());
}

std::string tableText(const LockTable &table, const MutexState &mutex, const LockFilter &filter,
                      const std::vector<uint32_t> &waiters, Processes &processes) {
    std::string text = "table " + quoted(table.name);
    if (!table.readable) return text + ": damaged, see arenactl check\n";
    text += printed(": %zu of %s, %" PRIu64 " of %s in use, mutex %s\n", table.files.size(),
                    counted(table.fileEntries, "file entry", "file entries").c_str(),
                    table.recordsInUse(), counted(table.lockRecords, "record", "records").c_str(),
                    holderWords(mutex, processes).c_str());
    text += waitersText(table, waiters);
    for (const TableFile &file : table.files) {
        if (isShown(file, filter)) text += fileText(file, filter, processes);
    }
    return text;
}

std::string hexString(uint64_t value) {
    return printed("0x%016" PRIx64, value);
}

void holderJson(const TableRecord &record, JsonWriter &json) {
    json.key("kind").string(record.isOpen ? "open" : "lock");
    json.key("pid").number(record.pid);
    json.key("owner").number(record.owner);
    json.key("handle").number(record.handle);
}

void recordJson(const TableRecord &record, Processes &processes, JsonWriter &json) {
    json.beginObject();
    holderJson(record, json);
    json.key("life").string(textOf(processes.lifeOf(record.pid)).name);
    if (record.isOpen) {
        json.key("mode").number(record.mode);
        json.key("modeWords").strings(modeWords(record.mode));
    } else {
        json.key("flags").number(record.mode);
        json.key("flagWords").strings(lockWords(record.mode));
        json.key("start").signedNumber(record.start);
        json.key("end");  // null: to the end of the file, however long it grows
        if (record.end == INT64_MAX)
            json.null();
        else
            json.signedNumber(record.end);
        json.key("empty").boolean(isEmptyRange(record));
    }
    json.endObject();
}

void obstaclesJson(const TableFile &file, const LockFilter &filter, JsonWriter &json) {
    json.key("blocking").beginArray();
    for (const Obstacle &obstacle : obstaclesIn(file)) {
        if (!isShown(*obstacle.record, filter)) continue;
        json.beginObject();
        holderJson(*obstacle.record, json);
        json.key("stops").strings(obstacle.stops);
        json.key("affected").beginArray();
        for (const TableRecord *other : obstacle.affected) {
            json.beginObject();
            holderJson(*other, json);
            json.endObject();
        }
        json.endArray();
        json.endObject();
    }
    json.endArray();
}

void fileJson(const TableFile &file, const LockFilter &filter, Processes &processes,
              JsonWriter &json) {
    json.beginObject();
    json.key("name").string(file.name);
    // Strings, since many JSON readers lose what a double cannot hold.
    json.key("key").strings({hexString(file.word0), hexString(file.word1)});
    json.key("bucket").number(file.bucket);
    json.key("combinedMode").number(file.combinedMode);
    json.key("combinedModeWords").strings(modeWords(file.combinedMode));
    json.key("opens").number(file.opens);
    json.key("openLimit").number(file.openLimit);
    json.key("records").beginArray();
    for (const TableRecord &record : file.records) {
        if (isShown(record, filter)) recordJson(record, processes, json);
    }
    json.endArray();
    if (filter.blocking) obstaclesJson(file, filter, json);
    json.endObject();
}

void tableJson(const LockTable &table, const LockFilter &filter,
               const std::vector<uint32_t> &waiters, Processes &processes, JsonWriter &json) {
    json.beginObject();
    tableFillJson(table, json);
    if (filter.blocking) {
        json.key("waitingPids").beginArray();
        for (const uint32_t pid : waiters)
            json.number(pid);
        json.endArray();
    }
    json.key("files").beginArray();
    for (const TableFile &file : table.files) {
        if (isShown(file, filter)) fileJson(file, filter, processes, json);
    }
    json.endArray();
    json.endObject();
}

}  // namespace

void tableFillJson(const LockTable &table, JsonWriter &json) {
    json.key("name").string(table.name);
    json.key("offset").number(table.offset);
    json.key("bytes").number(table.size);
    json.key("readable").boolean(table.readable);
    json.key("buckets").number(table.buckets);
    json.key("fileEntries").number(table.fileEntries);
    json.key("usedFileEntries").number(table.files.size());
    json.key("freeFileEntries").number(table.freeFiles);
    json.key("lockRecords").number(table.lockRecords);
    json.key("usedLockRecords").number(table.recordsInUse());
    json.key("freeLockRecords").number(table.freeRecords);
}

std::string locksText(Examination &exam, const LockFilter &filter) {
    if (exam.model.tables.empty()) return "no lock table in this arena\n";
    Waiters waiters;
    if (filter.blocking) waiters = arenaWaiters(exam.file);
    std::string text;
    // The mutexes are the header's and then the tables', in the same order.
    for (size_t i = 0; i < exam.model.tables.size(); i++) {
        const MutexState &mutex = exam.model.mutexes[i + 1];
        text +=
            tableText(exam.model.tables[i], mutex, filter, waiters[mutex.offset], exam.processes);
    }
    return text;
}

void locksJson(Examination &exam, const LockFilter &filter, JsonWriter &json) {
    Waiters waiters;
    if (filter.blocking) waiters = arenaWaiters(exam.file);
    json.key("tables").beginArray();
    for (const LockTable &table : exam.model.tables)
        tableJson(table, filter, waiters[table.offset], exam.processes, json);
    json.endArray();
}
