// arenactl locks: every file of every lock table, and who holds what of it.
#include "commands.h"
#include "words.h"

#include <cinttypes>

namespace {

std::string limitWords(const TableFile &file) {
    return file.openLimit == 0 ? std::string() : printed(" (limit %" PRIu32 ")", file.openLimit);
}

std::string recordsText(const TableFile &file, Processes &processes) {
    Columns columns;
    for (const TableRecord &record : file.records) {
        columns.row({record.isOpen ? "open" : "lock", printed("process %" PRIu32, record.pid),
                     lifeWords(processes.lifeOf(record.pid)),
                     printed("owner %" PRIu32, record.owner),
                     printed("handle %" PRIu32, record.handle),
                     record.isOpen ? joined(modeWords(record.mode))
                                   : joined(lockWords(record.mode)) + ", " + rangeWords(record)});
    }
    return columns.text(4);
}

std::string fileText(const TableFile &file, Processes &processes) {
    return printed("  %s  key 0x%" PRIx64 ":0x%" PRIx64 ", %s%s, combined mode %s\n",
                   quoted(file.name).c_str(), file.word0, file.word1,
                   counted(file.opens, "open", "opens").c_str(), limitWords(file).c_str(),
                   joined(modeWords(file.combinedMode)).c_str()) +
           recordsText(file, processes);
}

std::string tableText(const LockTable &table, const MutexState &mutex, Processes &processes) {
    std::string text = "table " + quoted(table.name);
    if (!table.readable) return text + ": damaged, see arenactl check\n";
    text += printed(": %zu of %s, %" PRIu64 " of %s in use, mutex %s\n", table.files.size(),
                    counted(table.fileEntries, "file entry", "file entries").c_str(),
                    table.recordsInUse(), counted(table.lockRecords, "record", "records").c_str(),
                    holderWords(mutex, processes).c_str());
    for (const TableFile &file : table.files)
        text += fileText(file, processes);
    return text;
}

std::string hexString(uint64_t value) {
    return printed("0x%016" PRIx64, value);
}

void recordJson(const TableRecord &record, Processes &processes, JsonWriter &json) {
    json.beginObject();
    json.key("kind").string(record.isOpen ? "open" : "lock");
    json.key("pid").number(record.pid);
    json.key("process").string(lifeName(processes.lifeOf(record.pid)));
    json.key("owner").number(record.owner);
    json.key("handle").number(record.handle);
    json.key("mode").number(record.mode);
    json.key("modeWords").strings(record.isOpen ? modeWords(record.mode) : lockWords(record.mode));
    if (!record.isOpen) {
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

void fileJson(const TableFile &file, Processes &processes, JsonWriter &json) {
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
    for (const TableRecord &record : file.records)
        recordJson(record, processes, json);
    json.endArray();
    json.endObject();
}

void tableJson(const LockTable &table, Processes &processes, JsonWriter &json) {
    json.beginObject();
    json.key("name").string(table.name);
    json.key("offset").number(table.offset);
    json.key("bytes").number(table.size);
    json.key("readable").boolean(table.readable);
    json.key("buckets").number(table.buckets);
    json.key("fileEntries").number(table.fileEntries);
    json.key("freeFileEntries").number(table.freeFiles);
    json.key("lockRecords").number(table.lockRecords);
    json.key("freeLockRecords").number(table.freeRecords);
    json.key("files").beginArray();
    for (const TableFile &file : table.files)
        fileJson(file, processes, json);
    json.endArray();
    json.endObject();
}

}  // namespace

std::string locksText(Examination &exam) {
    if (exam.model.tables.empty()) return "no lock table in this arena\n";
    std::string text;
    // The mutexes are the header's and then the tables', in the same order.
    for (size_t i = 0; i < exam.model.tables.size(); i++)
        text += tableText(exam.model.tables[i], exam.model.mutexes[i + 1], exam.processes);
    return text;
}

void locksJson(Examination &exam, JsonWriter &json) {
    json.key("tables").beginArray();
    for (const LockTable &table : exam.model.tables)
        tableJson(table, exam.processes, json);
    json.endArray();
}
