#include "repair_report.h"

#include "text.h"

#include <algorithm>
#include <cinttypes>

namespace {

const char *holderName(Holder holder) {
    static constexpr const char *kNames[] = {"free", "alive", "dead", "nameless"};
    return kNames[static_cast<size_t>(holder)];
}

std::string holderText(const MutexReport &mutex) {
    switch (mutex.holder) {
    case Holder::kNone:
        return "free";
    case Holder::kAlive:
        return printed("held by process %" PRIu32 ", which lives", mutex.thread);
    case Holder::kDead:
        return printed("held by process %" PRIu32 ", which is dead", mutex.thread);
    case Holder::kNameless:
        break;
    }
    return "locked, with no owner named";
}

std::string resultName(const RepairReport &report) {
    if (report.isRefused()) return "refused";
    if (!report.hasDone()) return "nothing to do";
    return report.isRehearsal ? "would be done" : "done";
}

}  // namespace

bool RepairReport::isRefused() const {
    return !refusals.empty() ||
           std::any_of(mutexes.begin(), mutexes.end(),
                       [](const MutexReport &mutex) { return !mutex.refusal.empty(); });
}

bool RepairReport::hasDone() const {
    return std::any_of(mutexes.begin(), mutexes.end(),
                       [](const MutexReport &mutex) { return !mutex.done.empty(); });
}

std::string RepairReport::text() const {
    std::string text = "arena " + quoted(path) + "\n";
    if (isRehearsal) text += "nothing is changed; this is what would be done:\n";
    for (const MutexReport &mutex : mutexes) {
        text += mutex.place + ": " + holderText(mutex);
        text += mutex.outcome.empty() ? "\n" : "; " + mutex.outcome + "\n";
        for (const std::string &line : mutex.done)
            text += "  " + line + "\n";
        if (!mutex.refusal.empty()) text += "  refused: " + mutex.refusal + "\n";
    }
    for (const std::string &line : notes)
        text += "note: " + line + "\n";
    for (const std::string &line : refusals)
        text += "refused: " + line + "\n";
    return text + resultName(*this) + "\n";
}

std::string RepairReport::json() const {
    JsonWriter json;
    json.beginObject();
    json.key("schema").number(kJsonSchema);
    json.key("command").string(command);
    json.key("arena").string(path);
    json.key("dryRun").boolean(isRehearsal);
    json.key("result").string(resultName(*this));
    json.key("mutexes").beginArray();
    for (const MutexReport &mutex : mutexes) {
        json.beginObject();
        json.key("place").string(mutex.place);
        json.key("offset").number(mutex.offset);
        json.key("holder").string(holderName(mutex.holder));
        json.key("thread").number(mutex.thread);
        json.key("outcome").string(mutex.outcome);
        json.key("done").strings(mutex.done);
        json.key("refusal").string(mutex.refusal);
        json.endObject();
    }
    json.endArray();
    json.key("notes").strings(notes);
    json.key("refusals").strings(refusals);
    json.endObject();
    return json.text();
}
