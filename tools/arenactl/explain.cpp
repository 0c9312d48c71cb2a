#include "explain.h"

#include "json.h"
#include "result_words.h"
#include "text.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr int kLargestErrno = 4095;  // the kernel's bound

// What is known about a code, its name and meaning perhaps the system's.
struct Entry {
    uint32_t code;
    std::string name, meaning, remedy;

    explicit Entry(const ResultWords &words)
        : code(words.code), name(words.name), meaning(words.meaning), remedy(words.remedy) {}
    explicit Entry(int error)
        : code(static_cast<uint32_t>(error)), name(::strerrorname_np(error)),
          meaning(std::strerror(error)),
          remedy("see errno(3), and what the call that failed says about it") {
        for (const ResultWords &words : kErrnoWords) {
            if (words.code != code) continue;
            meaning += std::string(": ") + words.meaning;
            remedy = words.remedy;
        }
    }

    std::string text() const {
        return printed("%s  %" PRIu32 "  0x%" PRIx32 "  ", name.c_str(), code, code) + meaning +
               "\n    what to do: " + remedy + "\n";
    }
};

constexpr ResultWords kSuccess{0, "0", "success", "nothing"};

constexpr struct {
    const char *name;
    int error;
} kAliases[] = {{"EWOULDBLOCK", EWOULDBLOCK}, {"EDEADLOCK", EDEADLOCK}, {"EOPNOTSUPP", EOPNOTSUPP}};

bool parseCode(const char *word, uint64_t *code) {
    if (std::isdigit(static_cast<unsigned char>(*word)) == 0) return false;
    char *end = nullptr;
    const bool isHex = word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    *code = std::strtoull(word, &end, isHex ? 16 : 10);
    return *end == '\0';
}

// "SHARED_ERR_LOCKED" by its whole name, or by what stands behind "_ERR_", in either case.
bool isCalled(const char *name, const char *word) {
    const char *const last = std::strstr(name, "_ERR_");
    return ::strcasecmp(name, word) == 0 ||
           (last != nullptr && ::strcasecmp(last + std::strlen("_ERR_"), word) == 0);
}

// A short name may be that of several codes.
std::vector<Entry> entriesOf(const char *word) {
    std::vector<Entry> found;
    uint64_t code = 0;
    const bool isNumber = parseCode(word, &code);
    if (isNumber && code == kSuccess.code) found.emplace_back(kSuccess);
    for (const ResultWords &words : kResultWords) {
        if (isNumber ? words.code == code : isCalled(words.name, word)) found.emplace_back(words);
    }
    for (int error = 1; error <= kLargestErrno; error++) {
        const char *const name = ::strerrorname_np(error);
        if (name == nullptr) continue;
        if (isNumber ? static_cast<uint64_t>(error) == code : ::strcasecmp(name, word) == 0)
            found.emplace_back(error);
    }
    for (const auto &alias : kAliases) {
        if (::strcasecmp(alias.name, word) == 0 && found.empty()) found.emplace_back(alias.error);
    }
    return found;
}

std::vector<Entry> everyEntry() {
    std::vector<Entry> all;
    for (const ResultWords &words : kResultWords)
        all.emplace_back(words);
    for (const ResultWords &words : kErrnoWords)
        all.emplace_back(static_cast<int>(words.code));
    return all;
}

std::string jsonOf(const std::vector<Entry> &entries) {
    JsonWriter json;
    json.beginObject();
    json.key("schema").number(kJsonSchema);
    json.key("command").string("explain");
    json.key("codes").beginArray();
    for (const Entry &entry : entries) {
        json.beginObject();
        json.key("code").number(entry.code);
        json.key("name").string(entry.name);
        json.key("meaning").string(entry.meaning);
        json.key("remedy").string(entry.remedy);
        json.endObject();
    }
    json.endArray();
    json.endObject();
    return json.text();
}

}  // namespace

bool explainCodes(std::span<const char *const> words, bool asJson, std::string *answer,
                  std::string *error) {
    std::vector<Entry> entries;
    if (words.empty()) entries = everyEntry();
    for (const char *word : words) {
        const std::vector<Entry> found = entriesOf(word);
        if (found.empty()) {
            *error = printed("%s: no result code and no errno; arenactl explain lists the codes",
                             quoted(word).c_str());
            return false;
        }
        entries.insert(entries.end(), found.begin(), found.end());
    }
    if (asJson) {
        *answer = jsonOf(entries);
        return true;
    }
    for (const Entry &entry : entries)
        *answer += entry.text();
    return true;
}
