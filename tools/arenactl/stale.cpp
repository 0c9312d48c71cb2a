// What of a lock table is left from processes that are no more.
#include "commands.h"

#include <cinttypes>
#include <map>

std::vector<StaleRecords> staleRecords(Examination &exam) {
    std::vector<StaleRecords> stale;
    for (const LockTable &table : exam.model.tables) {
        std::map<uint32_t, uint64_t> counts;
        for (const TableFile &file : table.files) {
            for (const TableRecord &record : file.records)
                counts[record.pid]++;
        }
        for (const auto &[pid, count] : counts) {
            const Life life = exam.processes.lifeOf(pid);
            if (life != Life::kAlive) stale.push_back({&table, pid, life, count});
        }
    }
    return stale;
}

std::string staleText(Examination &exam) {
    std::string text;
    for (const StaleRecords &left : staleRecords(exam)) {
        const bool isOne = left.records == 1;
        text += "note: table " + quoted(left.table->name) + ": " +
                counted(left.records, "record", "records") +
                printed(" of process %" PRIu32 ", %s; ", left.pid, textOf(left.life).words) +
                (hasEnded(left.life) ? "arenactl clean removes "
                                     : "name it to arenactl clean to remove ") +
                (isOne ? "it\n" : "them\n");
    }
    return text;
}

void staleJson(Examination &exam, JsonWriter &json) {
    json.key("stale").beginArray();
    for (const StaleRecords &left : staleRecords(exam)) {
        json.beginObject();
        json.key("table").string(left.table->name);
        json.key("pid").number(left.pid);
        json.key("life").string(textOf(left.life).name);
        json.key("recordCount").number(left.records);
        json.endObject();
    }
    json.endArray();
}
