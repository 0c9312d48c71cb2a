#include "check.h"

#include <algorithm>
#include <cinttypes>

namespace {

constexpr uint32_t kSharedKind = 0x80;

void readMutex(const ArenaView &arena, uint64_t offset, const std::string &place,
               ArenaModel *model) {
    const auto mutex = arena.load<layout::Mutex>(offset);
    Findings &findings = model->findings;
    findings.guardedBy(offset);
    model->mutexes.push_back({offset, place, mutex.word, mutex.owner, mutex.holder});
    if (mutex.kind != kSharedKind) {
        findings.add("mutex-kind", offset + offsetof(layout::Mutex, kind), 4, place + ", mutex",
                     printed("kind 0x%" PRIx32
                             ", where a mutex shared between processes has 0x%" PRIx32,
                             mutex.kind, kSharedKind));
    }
    if (mutex.word > 2) {
        findings.add(
            "mutex-word", offset, 4, place + ", mutex",
            printed("lock word %" PRIu32 ", where only 0, 1 and 2 mean anything", mutex.word));
    }
    // The holder field and the owner are cleared before the lock word.
    if (mutex.word == 0 && (mutex.holder != 0 || mutex.owner != 0)) {
        const bool byHolder = mutex.holder != 0;
        findings.add(
            "mutex-holder",
            offset + (byHolder ? offsetof(layout::Mutex, holder) : offsetof(layout::Mutex, owner)),
            4, place + (byHolder ? ", holder" : ", mutex owner"),
            printed("names process %" PRIu32 ", but the mutex is free",
                    byHolder ? mutex.holder : mutex.owner));
    }
    if (mutex.padding != 0) {
        findings.add("padding", offset + offsetof(layout::Mutex, padding), 4,
                     place + ", padding after the holder", "is not zero");
    }
}

bool readHeader(const ArenaView &arena, ArenaModel *model) {
    Findings &findings = model->findings;
    if (arena.size() < sizeof(layout::Header)) {
        findings.add("short", 0, arena.size(), "file",
                     printed("%" PRIu64 " bytes; an arena header takes %zu", arena.size(),
                             sizeof(layout::Header)));
        return false;
    }
    const auto header = arena.load<layout::Header>(0);
    model->magic = header.magic;
    model->version = header.version;
    if (header.magic != layout::kMagic) {
        findings.add("magic", offsetof(layout::Header, magic), 4, "header, magic",
                     printed("0x%08" PRIx32 " instead of 0x%08" PRIx32
                             ": not an arena, or never initialised to its end",
                             header.magic, layout::kMagic));
        return false;
    }
    if (header.version != layout::kVersion) {
        findings.add("version", offsetof(layout::Header, version), 4, "header, layout version",
                     printed("%" PRIu32 "; this program reads layout %" PRIu32, header.version,
                             layout::kVersion));
        return false;
    }
    if (arena.size() % layout::kPageBytes != 0) {
        findings.add(
            "file-size", 0, arena.size(), "file",
            printed("%" PRIu64 " bytes are not whole pages; it was cut or grew", arena.size()));
    }
    return true;
}

}  // namespace

bool ArenaModel::anyMutexHeld() const {
    return std::any_of(mutexes.begin(), mutexes.end(),
                       [](const MutexState &mutex) { return mutex.held(); });
}

ArenaModel readArena(std::span<const std::byte> bytes) {
    const ArenaView arena(bytes);
    ArenaModel model;
    model.isArena = readHeader(arena, &model);
    if (!model.isArena) return model;
    readMutex(arena, 0, "arena header", &model);
    model.blocks = readHeap(arena, model.findings);
    for (const HeapBlock &block : model.blocks) {
        if (!looksLikeTable(arena, block)) continue;
        readMutex(arena, block.data(), "table " + quoted(block.name), &model);
        model.tables.push_back(readTable(arena, block, model.findings));
    }
    return model;
}

std::string checkArena(std::span<const std::byte> bytes) {
    const ArenaModel model = readArena(bytes);
    std::string text;
    for (const Finding &finding : model.findings.list())
        text += describe(finding) + "\n";
    if (model.findings.unlisted() > 0)
        text += printed("and %" PRIu64 " more\n", model.findings.unlisted());
    return text;
}

std::string describe(const Finding &finding) {
    return printed("0x%" PRIx64 " +%" PRIu64 "  ", finding.offset, finding.length) + finding.place +
           ": " + finding.problem;
}
