// What the answers of all commands share, and the findings of arenactl check.
#include "commands.h"
#include "words.h"

#include <algorithm>
#include <cinttypes>

namespace {

constexpr uint64_t kShownBytes = 16;

std::span<const std::byte> bytesOf(const Examination &exam, const Finding &finding) {
    const std::span<const std::byte> bytes = exam.image.bytes();
    if (finding.offset >= bytes.size()) return {};
    const uint64_t most = std::min(bytes.size() - finding.offset, kShownBytes);
    return bytes.subspan(finding.offset, std::min(finding.length, most));
}

std::string findingText(const Examination &exam, const Finding &finding) {
    return describe(finding) + "\n    bytes " + hexBytes(bytesOf(exam, finding)) +
           (finding.length > kShownBytes ? " ...\n" : "\n");
}

void findingJson(const Examination &exam, const Finding &finding, JsonWriter &json) {
    json.beginObject();
    json.key("code").string(finding.code);
    json.key("offset").number(finding.offset);
    json.key("length").number(finding.length);
    json.key("found").string(hexBytes(bytesOf(exam, finding)));
    json.key("place").string(finding.place);
    json.key("problem").string(finding.problem);
    json.key("unsure").boolean(finding.unsure);
    json.endObject();
}

std::string copyWords(const Examination &exam) {
    if (exam.exact) return {};
    return "best-effort copy, taken while the arena was in use (" + exam.whyNot +
           "): parts of it may not fit together; look again, or with a longer -w\n";
}

std::string answerText(Command command, Examination &exam, const LockFilter &filter) {
    switch (command) {
    case Command::kInfo:
        return infoText(exam);
    case Command::kChunks:
        return chunksText(exam);
    case Command::kLocks:
        return locksText(exam, filter);
    case Command::kCheck:
    case Command::kMetrics:
        break;
    }
    return {};
}

void answerJson(Command command, Examination &exam, const LockFilter &filter, JsonWriter &json) {
    switch (command) {
    case Command::kInfo:
        return infoJson(exam, json);
    case Command::kChunks:
        return chunksJson(exam, json);
    case Command::kLocks:
        return locksJson(exam, filter, json);
    case Command::kCheck:
        return staleJson(exam, json);
    case Command::kMetrics:
        return;
    }
}

std::string wholeText(Command command, Examination &exam, const LockFilter &filter) {
    if (command == Command::kMetrics) return metricsText(exam);
    const std::string title = "arena " + quoted(exam.file.path()) + "\n" + copyWords(exam);
    if (command == Command::kCheck || !exam.model.isArena) return title + checkText(exam);
    std::string text = title + answerText(command, exam, filter);
    if (const size_t sure = countSure(exam))
        text += counted(sure, "thing is", "things are") + " wrong; arenactl check lists them\n";
    return text;
}

const char *nameOf(Command command) {
    static constexpr const char *kNames[] = {"info", "chunks", "locks", "check", "metrics"};
    return kNames[static_cast<size_t>(command)];
}

std::string wholeJson(Command command, Examination &exam, const LockFilter &filter) {
    JsonWriter json;
    json.beginObject();
    json.key("schema").number(kJsonSchema);
    json.key("command").string(nameOf(command));
    json.key("arena").string(exam.file.path());
    json.key("bytes").number(exam.image.bytes().size());
    json.key("copy").string(exam.exact ? "exact" : "best-effort");
    json.key("copyReason").string(exam.exact ? "" : exam.whyNot);
    mutexesJson(exam, json);
    answerJson(command, exam, filter, json);
    json.key("findings").beginArray();
    for (const Finding &finding : exam.model.findings.list())
        findingJson(exam, finding, json);
    json.endArray();
    json.key("findingsNotListed").number(exam.model.findings.unlisted());
    json.key("damaged").boolean(exam.damaged());
    json.endObject();
    return json.text();
}

}  // namespace

size_t countSure(const Examination &exam) {
    const std::vector<Finding> &list = exam.model.findings.list();
    return static_cast<size_t>(std::count_if(
        list.begin(), list.end(), [](const Finding &finding) { return !finding.unsure; }));
}

FreeSpace freeSpace(const ArenaModel &model) {
    FreeSpace space;
    for (const HeapBlock &block : model.blocks) {
        if (block.allocated) continue;
        space.bytes += block.size;
        space.blocks++;
        space.largest = std::max(space.largest, block.size);
    }
    return space;
}

void freeSpaceJson(const FreeSpace &space, JsonWriter &json) {
    json.beginObject();
    json.key("bytes").number(space.bytes);
    json.key("blockCount").number(space.blocks);
    json.key("largestBytes").number(space.largest);
    json.key("fragmentationPercent").number(space.fragmentation());
    json.endObject();
}

std::string holderWords(const MutexState &mutex, Processes &processes) {
    if (!mutex.held()) return "free";
    if (mutex.process() == 0) return "held by a process that has not recorded itself yet";
    const uint32_t pid = mutex.process();
    const std::string other = mutex.holder == 0 || mutex.holder == pid
                                  ? std::string()
                                  : printed(", recorded as %" PRIu32, mutex.holder);
    return printed("held by process %" PRIu32 " (%s%s)", pid,
                   textOf(processes.holderLife(pid)).words, other.c_str());
}

void mutexesJson(Examination &exam, JsonWriter &json) {
    json.key("mutexes").beginArray();
    for (const MutexState &mutex : exam.model.mutexes) {
        json.beginObject();
        json.key("place").string(mutex.place);
        json.key("offset").number(mutex.offset);
        json.key("held").boolean(mutex.held());
        json.key("pid").number(mutex.holder);
        json.key("thread").number(mutex.owner);
        json.key("life");
        if (mutex.held())
            json.string(textOf(exam.processes.holderLife(mutex.process())).name);
        else
            json.null();
        json.endObject();
    }
    json.endArray();
}

std::string checkText(Examination &exam) {
    std::string text;
    for (const MutexState &mutex : exam.model.mutexes) {
        if (mutex.held())
            text += "mutex of " + mutex.place + ": " + holderWords(mutex, exam.processes) + "\n";
    }
    std::string unsure;
    for (const Finding &finding : exam.model.findings.list())
        (finding.unsure ? unsure : text) += findingText(exam, finding);
    if (exam.model.findings.unlisted() > 0)
        text += printed("and %" PRIu64 " more\n", exam.model.findings.unlisted());
    if (!unsure.empty())
        text +=
            "perhaps only a change half made, since a living process holds the mutex:\n" + unsure;
    text += staleText(exam);
    if (!exam.model.isArena) return text + "not an arena that this program can read\n";
    const size_t sure = countSure(exam);
    if (sure > 0) return text + counted(sure, "thing is", "things are") + " wrong\n";
    return text + printed("sound: %s, %s\n",
                          counted(exam.model.blocks.size(), "block", "blocks").c_str(),
                          counted(exam.model.tables.size(), "lock table", "lock tables").c_str());
}

int runCommand(Command command, bool asJson, Examination &exam, std::string *output,
               const LockFilter &filter) {
    *output = asJson ? wholeJson(command, exam, filter) : wholeText(command, exam, filter);
    return exam.damaged() ? 2 : 0;
}
