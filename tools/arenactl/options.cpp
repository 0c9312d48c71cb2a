#include "options.h"

#include "iosched/util.h"
#include "text.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr uint32_t kLongestWaitMs = 3600000;

bool parseBetween(const char *what, const char *text, uint32_t least, uint32_t most,
                  uint32_t *number) {
    char *end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < long{least} || value > long{most}) {
        return complain(what, printed("a number from %u to %u is wanted, not %s", least, most,
                                      quoted(text).c_str()));
    }
    *number = static_cast<uint32_t>(value);
    return true;
}

bool parseInt(const char *what, const char *text, uint32_t most, int *value) {
    uint32_t number = 0;
    if (!parseBetween(what, text, 0, most, &number)) return false;
    *value = static_cast<int>(number);
    return true;
}

// The parser knows single letters only; a word after "--" reaches us as the argument of '-'. Its
// own argument follows behind '=' or as the next word.
bool takeLongOption(std::string_view word, int argc, char **argv, Options *options) {
    const struct {
        std::string_view word;
        bool *flag;
    } flags[] = {{"json", &options->json},
                 {"help", &options->help},
                 {"version", &options->version},
                 {"dry-run", &options->dryRun},
                 {"blocking", &options->blocking}};
    for (const auto &known : flags) {
        if (known.word != word) continue;
        *known.flag = true;
        return true;
    }
    const std::string name(word.substr(0, word.find('=')));
    if (name != "file" && name != "pid") {
        return complain(quoted("--" + name), "no such option");
    }
    const char *value = std::strchr(word.data(), '=');
    if (value != nullptr) {
        value++;
    } else if (ZORoptind < argc) {
        value = argv[ZORoptind++];
        ZORoptreset = 1;  // see parseOptions
    }
    if (value == nullptr || *value == '\0') {
        return complain("--" + name, "needs an argument");
    }
    if (name == "pid") return parseNumber("--pid", value, &options->pid);
    options->file = value;
    return true;
}

bool takeOption(int letter, int argc, char **argv, Options *options) {
    switch (letter) {
    case 'j':
        options->json = true;
        return true;
    case 'h':
        options->help = true;
        return true;
    case 'V':
        options->version = true;
        return true;
    case 'w':
        return parseInt("-w", ZORoptarg, kLongestWaitMs, &options->waitMs);
    case 'n':
        return parseInt("-n", ZORoptarg, INT_MAX, &options->looks);
    case '-':
        return takeLongOption(ZORoptarg, argc, argv, options);
    default: {
        const char option[] = {'-', static_cast<char>(ZORoptopt), '\0'};
        const bool isKnown = ZORoptopt == 'w' || ZORoptopt == 'n';
        return complain(quoted(option), isKnown ? "needs an argument" : "no such option");
    }
    }
}

}  // namespace

bool complain(const std::string &what, const std::string &problem) {
    (void)std::fprintf(stderr, "arenactl: %s: %s; arenactl --help tells how it is used\n",
                       what.c_str(), problem.c_str());
    return false;
}

// Options may stand before, between and behind the operands; "--" ends them.
bool parseOptions(int argc, char **argv, Options *options) {
    ZORopterr = 0;  // its messages have another form
    while (ZORoptind < argc) {
        int letter;
        while ((letter = ZORgetopt(argc, argv, "-:jhVw:n:")) != -1) {
            if (!takeOption(letter, argc, argv, options)) return false;
        }
        const bool ended = std::strcmp(argv[ZORoptind - 1], "--") == 0;
        do {
            if (ZORoptind < argc) options->operands.push_back(argv[ZORoptind++]);
        } while (ended && ZORoptind < argc);
        ZORoptreset = 1;  // or it would take the moved index for an option group to go on with
    }
    return true;
}

bool parseNumber(const char *what, const char *text, uint32_t *number) {
    return parseBetween(what, text, 1, INT_MAX, number);
}
