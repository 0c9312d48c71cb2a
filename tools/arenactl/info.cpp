// arenactl info: the header, the sizes, the mutexes and who uses the file.
#include "commands.h"
#include "users.h"
#include "words.h"

#include <cinttypes>

namespace {

uint64_t allocatedBytes(const ArenaModel &model, uint64_t *chunks) {
    uint64_t bytes = 0;
    *chunks = 0;
    for (const HeapBlock &block : model.blocks) {
        if (!block.allocated) continue;
        bytes += block.size;
        (*chunks)++;
    }
    return bytes;
}

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

}  // namespace

std::string infoText(Examination &exam) {
    const ArenaModel &model = exam.model;
    uint64_t chunks = 0;
    const uint64_t used = allocatedBytes(model, &chunks);
    const FreeSpace space = freeSpace(model);
    Columns columns;
    columns.row({"size", byteWords(exam.image.bytes().size())});
    columns.row(
        {"layout", printed("version %" PRIu32 ", magic 0x%08" PRIx32, model.version, model.magic)});
    columns.row({"in use", byteWords(used) + " in " + counted(chunks, "chunk", "chunks")});
    columns.row({"free", byteWords(space.bytes) + " in " +
                             counted(space.blocks, "block", "blocks") +
                             printed(", the largest %" PRIu64, space.largest)});
    for (const LockTable &table : model.tables)
        columns.row({"lock table", quoted(table.name)});
    for (const MutexState &mutex : model.mutexes)
        columns.row({"mutex", mutex.place + ": " + holderWords(mutex, exam.processes)});
    return columns.text() + usersText(arenaUsers(exam.file));
}

void infoJson(Examination &exam, JsonWriter &json) {
    const ArenaModel &model = exam.model;
    uint64_t chunks = 0;
    const uint64_t used = allocatedBytes(model, &chunks);
    json.key("magic").number(model.magic);
    json.key("version").number(model.version);
    json.key("chunks").number(chunks);
    json.key("usedBytes").number(used);
    json.key("free");
    freeSpaceJson(freeSpace(model), json);
    json.key("users").beginArray();
    for (const ArenaUser &user : arenaUsers(exam.file)) {
        json.beginObject();
        json.key("pid").number(user.pid);
        json.key("command").string(user.command);
        json.key("lock").string(user.lock);
        json.key("open").boolean(user.hasOpen);
        json.endObject();
    }
    json.endArray();
}
