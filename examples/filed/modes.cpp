#include "modes.h"

#include "arenactl/mode_words.h"

#include <charconv>
#include <iosched/shared.h>

namespace {

// Every client's opens have an owner of their own here, so the words about owners mean nothing.
constexpr uint32_t kOwnerBits = SHARED_FILE_OWNER_COMPAT | SHARED_FILE_OWNER_OVERRIDE;

constexpr struct {
    int code;
    const char *word;
} kCodeWords[] = {
    {SHARED_ERR_DENIED, "DENIED"},       {SHARED_ERR_NOLOCKS, "NOLOCKS"},
    {SHARED_ERR_LOCKED, "LOCKED"},       {SHARED_ERR_SELFLOCKED, "SELFLOCKED"},
    {SHARED_ERR_NOTLOCKED, "NOTLOCKED"}, {SHARED_ERR_NOTOPEN, "NOTOPEN"},
    {SHARED_ERR_OPLOCK, "OPLOCK"},
};

bool parseMaxOpens(std::string_view word, uint32_t *maxOpens) {
    constexpr std::string_view kPrefix = "max=";
    if (!word.starts_with(kPrefix)) return false;
    word.remove_prefix(kPrefix.size());
    const auto [at, error] = std::from_chars(word.data(), word.data() + word.size(), *maxOpens);
    return error == std::errc{} && at == word.data() + word.size();
}

bool parseWord(std::string_view word, ModeWords *words) {
    for (const auto &known : kModeWords) {
        if (word != known.word || (known.bit & kOwnerBits)) continue;
        words->mode |= known.bit;
        return true;
    }
    if (word == "create") return words->create = true;
    return word == "none" || parseMaxOpens(word, &words->maxOpens);
}

}  // namespace

bool parseMode(std::string_view text, ModeWords *words) {
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(','));
        text.remove_prefix(word.size() + (word.size() < text.size() ? 1 : 0));
        if (!parseWord(word, words)) return false;
    }
    return true;
}

std::string modeText(uint32_t mode) {
    std::string text;
    for (const auto &known : kModeWords) {
        if (!(mode & known.bit)) continue;
        if (!text.empty()) text += ',';
        text += known.word;
    }
    return text.empty() ? "none" : text;
}

const char *codeWord(int code) {
    for (const auto &known : kCodeWords)
        if (known.code == code) return known.word;
    return "SYSTEM";
}
