// arenactl chunks: what the heap is divided into.
#include "commands.h"
#include "words.h"

#include <algorithm>
#include <cinttypes>

namespace {

bool isTable(const ArenaModel &model, const HeapBlock &block) {
    return std::any_of(model.tables.begin(), model.tables.end(),
                       [&](const LockTable &table) { return table.offset == block.data(); });
}

std::string nameWords(const ArenaModel &model, const HeapBlock &block) {
    if (!block.allocated) return "free";
    if (!block.sound) return "damaged";
    if (!block.named) return "anonymous";
    return quoted(block.name) + (isTable(model, block) ? ", a lock table" : "");
}

}  // namespace

std::string chunksText(const Examination &exam) {
    Columns columns({1, 2, 3});
    columns.row({"block at", "block bytes", "chunk bytes", "references", "name"});
    for (const HeapBlock &block : exam.model.blocks) {
        const bool used = block.allocated;
        columns.row({printed("0x%" PRIx64, block.offset), printed("%" PRIu64, block.size),
                     used ? printed("%" PRIu64, block.chunkSize) : "-",
                     used ? printed("%" PRIu32, block.references) : "-",
                     nameWords(exam.model, block)});
    }
    const FreeSpace space = freeSpace(exam.model);
    return columns.text() +
           printed("free: %s in %s, the largest %" PRIu64 "; %" PRIu64 "%% fragmented\n",
                   byteWords(space.bytes).c_str(), counted(space.blocks, "block", "blocks").c_str(),
                   space.largest, space.fragmentation());
}

void chunksJson(const Examination &exam, JsonWriter &json) {
    json.key("blocks").beginArray();
    for (const HeapBlock &block : exam.model.blocks) {
        json.beginObject();
        json.key("offset").number(block.offset);
        json.key("bytes").number(block.size);
        json.key("allocated").boolean(block.allocated);
        if (block.allocated) {
            json.key("chunkBytes").number(block.chunkSize);
            json.key("references").number(block.references);
            json.key("name");
            if (block.named)
                json.string(block.name);
            else
                json.null();
            json.key("isTable").boolean(isTable(exam.model, block));
        }
        json.endObject();
    }
    json.endArray();
    json.key("free");
    freeSpaceJson(freeSpace(exam.model), json);
}
