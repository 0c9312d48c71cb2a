#include "check.h"

#include "mutex_words.h"

#include <algorithm>
#include <cinttypes>

namespace {

constexpr uint64_t kPageBytes = 4096;

// Where the words lie in the 40 bytes of the pthread mutex.
constexpr uint64_t kOwnerOffset = offsetof(pthread_mutex_t, __data.__owner);
constexpr uint64_t kKindOffset = offsetof(pthread_mutex_t, __data.__kind);

void readMutex(const ArenaView &arena, uint64_t offset, const std::string &place,
               ArenaModel *model) {
    const auto mutex = arena.load<SharedMutex>(offset);
    const MutexWords words = mutexWords(mutex);
    Findings &findings = model->findings;
    findings.guardedBy(offset);
    model->mutexes.push_back({offset, place, words.lock, words.owner, mutex.holder});
    if (words.kind != kSharedMutexKind) {
        findings.add("mutex-kind", offset + kKindOffset, 4, place + ", mutex",
                     printed("kind 0x%" PRIx32 ", where every arena mutex has 0x%" PRIx32,
                             words.kind, kSharedMutexKind));
    }
    if (words.lock > 2) {
        findings.add(
            "mutex-word", offset, 4, place + ", mutex",
            printed("lock word %" PRIu32 ", where only 0, 1 and 2 mean anything", words.lock));
    }
    // The holder is cleared before the mutex is unlocked, and its owner before its lock word; so
    // either of them beside a word of 0 was left by nobody's unlock.
    if (words.lock == 0 && (mutex.holder != 0 || words.owner != 0)) {
        const bool byHolder = mutex.holder != 0;
        findings.add("mutex-holder",
                     offset + (byHolder ? offsetof(SharedMutex, holder) : kOwnerOffset), 4,
                     place + (byHolder ? ", holder" : ", owner of the mutex"),
                     printed("names process %" PRIu32 ", but the mutex is free",
                             byHolder ? mutex.holder : words.owner));
    }
    if (mutex.padding != 0) {
        findings.add("padding", offset + offsetof(SharedMutex, padding), 4,
                     place + ", padding after the holder", "is not zero");
    }
}

bool readHeader(const ArenaView &arena, ArenaModel *model) {
    Findings &findings = model->findings;
    if (arena.size() < sizeof(ArenaHeader)) {
        findings.add("short", 0, arena.size(), "file",
                     printed("%" PRIu64 " bytes; an arena header takes %zu", arena.size(),
                             sizeof(ArenaHeader)));
        return false;
    }
    const auto header = arena.load<ArenaHeader>(0);
    model->magic = header.magic;
    model->version = header.version;
    if (header.magic != kArenaMagic) {
        findings.add("magic", offsetof(ArenaHeader, magic), 4, "header, magic",
                     printed("0x%08" PRIx32 " instead of 0x%08" PRIx32
                             ": not an arena, or never initialised to its end",
                             header.magic, kArenaMagic));
        return false;
    }
    if (header.version != kArenaVersion) {
        findings.add("version", offsetof(ArenaHeader, version), 4, "header, layout version",
                     printed("%" PRIu32 "; this program reads layout %" PRIu32, header.version,
                             kArenaVersion));
        return false;
    }
    if (arena.size() % kPageBytes != 0) {
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
