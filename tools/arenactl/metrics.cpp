// arenactl metrics: the figures in the text format that Prometheus reads, for a textfile collector
// or a small exporter.
#include "commands.h"
#include "users.h"

#include <cinttypes>
#include <set>

namespace {

// A label's value is Unicode in which backslash, quote and newline are escaped; bytes that are
// neither appear as \xNN, as everywhere else.
std::string labelValue(std::string_view text) {
    std::string value;
    while (!text.empty()) {
        const size_t length = utf8Length(text);
        const auto first = static_cast<unsigned char>(text[0]);
        if (first == '\n')
            value += "\\n";
        else if (length == 0 || first < 0x20 || first == 0x7F)
            value += printed("\\\\x%02x", first);
        else
            value += (first == '"' || first == '\\' ? "\\" : "") + std::string(text, 0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return value;
}

// The lines of one metric have to stand together, below its help.
class Gauges {
public:
    explicit Gauges(const Examination &exam)
        : arena_("arena=\"" + labelValue(exam.file.path()) + '"') {}

    void about(const char *name, const char *help) {
        name_ = std::string("iosched_") + name;
        text_ += "# HELP " + name_ + ' ' + help + "\n# TYPE " + name_ + " gauge\n";
    }
    void value(uint64_t number, const std::string &labels = {}) {
        text_ += name_ + '{' + arena_ + labels + printed("} %" PRIu64 "\n", number);
    }
    void one(const char *name, const char *help, uint64_t number) {
        about(name, help);
        value(number);
    }
    const std::string &text() const { return text_; }

private:
    std::string arena_, name_, text_;
};

// Damaged arenas may hold two of one name; the place tells them apart.
std::string placeLabels(const char *kind, const std::string &name, uint64_t offset) {
    return printed(",%s=\"%s\",offset=\"0x%" PRIx64 "\"", kind, labelValue(name).c_str(), offset);
}

struct TableFigures {
    std::string labels;
    uint64_t figures[8] = {};

    explicit TableFigures(const LockTable &table)
        : labels(placeLabels("table", table.name, table.offset)) {
        std::set<uint32_t> pids;
        uint64_t opens = 0;
        for (const TableFile &file : table.files) {
            for (const TableRecord &record : file.records) {
                pids.insert(record.pid);
                opens += record.isOpen;
            }
        }
        const uint64_t records = table.recordsInUse();
        const uint64_t all[] = {table.fileEntries,
                                table.files.size(),
                                table.lockRecords,
                                records,
                                opens,
                                records - opens,
                                pids.size(),
                                0};
        std::copy(std::begin(all), std::end(all), figures);
    }
};

constexpr size_t kStale = 7;  // the last of the figures

constexpr struct {
    const char *name;
    const char *help;
} kTableGauges[] = {
    {"table_file_entries", "Files that the lock table has room for."},
    {"table_file_entries_used", "Files in the lock table."},
    {"table_lock_records", "Opens and range locks that the lock table has room for."},
    {"table_lock_records_used", "Opens and range locks in the lock table."},
    {"table_opens", "Opens in the lock table."},
    {"table_range_locks", "Range locks in the lock table."},
    {"table_processes", "Processes with records in the lock table."},
    {"table_stale_records", "Records of processes that have ended or do not use the arena."},
};

void addTables(Examination &exam, Gauges *gauges) {
    std::vector<TableFigures> tables;
    const std::vector<StaleRecords> stale = staleRecords(exam);
    for (const LockTable &table : exam.model.tables) {
        if (!table.readable) continue;
        tables.emplace_back(table);
        for (const StaleRecords &left : stale) {
            if (left.table == &table) tables.back().figures[kStale] += left.records;
        }
    }
    for (size_t i = 0; i < std::size(kTableGauges) && !tables.empty(); i++) {
        gauges->about(kTableGauges[i].name, kTableGauges[i].help);
        for (const TableFigures &table : tables)
            gauges->value(table.figures[i], table.labels);
    }
}

void addMutexes(Examination &exam, Gauges *gauges) {
    gauges->about("mutex_held", "1 while the mutex is held.");
    for (const MutexState &mutex : exam.model.mutexes)
        gauges->value(mutex.held(), placeLabels("mutex", mutex.place, mutex.offset));
    gauges->about("mutex_holder_dead", "1 while the mutex is held by a process that has ended.");
    for (const MutexState &mutex : exam.model.mutexes) {
        const bool isDead = mutex.held() && mutex.process() != 0 &&
                            cannotHold(exam.processes.holderLife(mutex.process()));
        gauges->value(isDead, placeLabels("mutex", mutex.place, mutex.offset));
    }
}

}  // namespace

std::string metricsText(Examination &exam) {
    Gauges gauges(exam);
    gauges.one("arena_size_bytes", "Size of the arena's file.", exam.image.bytes().size());
    gauges.one("arena_readable", "1 for an arena of the layout that this arenactl reads.",
               exam.model.isArena);
    gauges.one("arena_copy_exact",
               "1 when the figures are those of one moment, 0 when the arena never held still.",
               exam.exact);
    gauges.one("arena_findings", "What is wrong with the arena, by arenactl check.",
               countSure(exam) + exam.model.findings.unlisted());
    if (!exam.model.isArena) return gauges.text();
    const UsedSpace used = usedSpace(exam.model);
    const FreeSpace space = freeSpace(exam.model);
    gauges.one("arena_used_bytes", "Bytes of the blocks that are allocated.", used.bytes);
    gauges.one("arena_free_bytes", "Bytes of the blocks that are free.", space.bytes);
    gauges.one("arena_largest_free_block_bytes", "Size of the largest free block.", space.largest);
    gauges.one("arena_free_blocks", "Free blocks.", space.blocks);
    gauges.one("arena_chunks", "Allocated chunks.", used.chunks);
    gauges.one("arena_users", "Processes that have the arena's file open or locked.",
               arenaUsers(exam.file).size());
    addMutexes(exam, &gauges);
    addTables(exam, &gauges);
    return gauges.text();
}
