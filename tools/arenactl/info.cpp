// arenactl info: the header, the sizes, the mutexes and who uses the file.
#include "commands.h"
#include "users.h"
#include "words.h"

#include <cinttypes>

namespace {

std::string userWords(const ArenaUser &user) {
    std::string words = user.lock.empty() ? "no lock of its own" : user.lock + " lock";
    if (user.lock.starts_with("waits")) words = user.lock + " lock, not in use yet";
    return words;
}

std::string usersText(const std::vector<ArenaUser> &users) {
    if (users.empty()) {
        return "users: none; the next opener with SHARED_ARENA_CREATE would make the arena anew\n";
    }
    Columns columns;
    for (const ArenaUser &user : users) {
        columns.row({printed("process %" PRIu32, user.pid), quoted(user.command), userWords(user),
                     user.hasOpen ? "has it open" : ""});
    }
    return printed("users: %zu\n", users.size()) + columns.text(2);
}

std::string percent(uint64_t part, uint64_t whole) {
    return whole == 0 ? std::string()
                      : printed(", %.0f %%",
                                100.0 * static_cast<double>(part) / static_cast<double>(whole));
}

std::string fillWords(const LockTable &table) {
    if (!table.readable) return ", damaged";
    const uint64_t records = table.recordsInUse();
    return printed(": %zu of %" PRIu64 " file entries%s; %" PRIu64 " of %" PRIu64 " records%s",
                   table.files.size(), table.fileEntries,
                   percent(table.files.size(), table.fileEntries).c_str(), records,
                   table.lockRecords, percent(records, table.lockRecords).c_str());
}

}  // namespace

UsedSpace usedSpace(const ArenaModel &model) {
    UsedSpace used;
    for (const HeapBlock &block : model.blocks) {
        if (!block.allocated) continue;
        used.bytes += block.size;
        used.chunks++;
    }
    return used;
}

std::string infoText(Examination &exam) {
    const ArenaModel &model = exam.model;
    const UsedSpace used = usedSpace(model);
    const FreeSpace space = freeSpace(model);
    Columns columns;
    columns.row({"size", byteWords(exam.image.bytes().size())});
    columns.row(
        {"layout", printed("version %" PRIu32 ", magic 0x%08" PRIx32, model.version, model.magic)});
    columns.row({"in use", byteWords(used.bytes) + " in " +
                               counted(used.chunks, "chunk", "chunks") +
                               percent(used.bytes, used.bytes + space.bytes)});
    columns.row({"free", byteWords(space.bytes) + " in " +
                             counted(space.blocks, "block", "blocks") +
                             printed(", the largest %" PRIu64, space.largest)});
    for (const LockTable &table : model.tables)
        columns.row({"lock table", quoted(table.name) + fillWords(table)});
    for (const MutexState &mutex : model.mutexes)
        columns.row({"mutex", mutex.place + ": " + holderWords(mutex, exam.processes)});
    return columns.text() + usersText(arenaUsers(exam.file));
}

void infoJson(Examination &exam, JsonWriter &json) {
    const ArenaModel &model = exam.model;
    const UsedSpace used = usedSpace(model);
    json.key("magic").number(model.magic);
    json.key("layoutVersion").number(model.version);
    json.key("chunkCount").number(used.chunks);
    json.key("usedBytes").number(used.bytes);
    json.key("free");
    freeSpaceJson(freeSpace(model), json);
    json.key("tables").beginArray();
    for (const LockTable &table : model.tables) {
        json.beginObject();
        tableFillJson(table, json);
        json.endObject();
    }
    json.endArray();
    json.key("users").beginArray();
    for (const ArenaUser &user : arenaUsers(exam.file)) {
        json.beginObject();
        json.key("pid").number(user.pid);
        json.key("command").string(user.command);
        json.key("fileLock").string(user.lock);
        json.key("hasOpen").boolean(user.hasOpen);
        json.endObject();
    }
    json.endArray();
}
