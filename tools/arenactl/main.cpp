// arenactl: looks into an arena file without leaving a trace in it.
//
// The output is put together first and written in one go, so that a reader of the JSON never sees
// half of it because something went wrong on the way.
#include "commands.h"

#include "iosched/sched.h"
#include "iosched/util.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

constexpr int kFine = 0;
constexpr int kUsage = 1;
constexpr int kDefaultWaitMs = 250;

// "@(#)", for programs that look for identification strings, is nothing to show.
constexpr size_t kMarkLength = 4;

constexpr const char *kHelp =
    "usage: arenactl [--json] [-w MS] info|chunks|locks|check ARENA\n"
    "\n"
    "  info    header, sizes, mutexes, and the processes that use the file\n"
    "  chunks  what the heap is divided into: name, size, references, place; free space\n"
    "  locks   every file of every lock table, with each open and range lock and its holder\n"
    "  check   everything that is wrong with the arena, where, and whose mutex is held\n"
    "\n"
    "  -j, --json     one JSON object instead of text\n"
    "  -w MS          wait at most so many milliseconds for a quiet moment (250); when none\n"
    "                 comes, the copy is a best effort and labelled so\n"
    "  -h, --help     this text\n"
    "  -V, --version  the version of the library\n"
    "\n"
    "Looking never writes to the arena and takes none of its locks.\n"
    "Exit status: 0 fine, 1 usage or the file cannot be read, 2 something is wrong with the "
    "arena.\n";

struct Options {
    bool json = false;
    bool help = false;
    bool version = false;
    int waitMs = kDefaultWaitMs;
    std::vector<const char *> operands;
};

bool parseWait(const char *text, int *waitMs) {
    char *end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < 0 || value > 3600000) {
        (void)std::fprintf(stderr, "arenactl: -w takes milliseconds from 0 to 3600000, not %s\n",
                           text);
        return false;
    }
    *waitMs = static_cast<int>(value);
    return true;
}

// The parser knows single letters only; a word after "--" reaches us as the argument of '-'.
bool takeLongOption(std::string_view word, Options *options) {
    if (word == "json")
        options->json = true;
    else if (word == "help")
        options->help = true;
    else if (word == "version")
        options->version = true;
    else {
        (void)std::fprintf(stderr, "arenactl: there is no option --%s\n",
                           std::string(word).c_str());
        return false;
    }
    return true;
}

bool takeOption(int letter, Options *options) {
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
        return parseWait(ZORoptarg, &options->waitMs);
    case '-':
        return takeLongOption(ZORoptarg, options);
    default:
        return false;  // the parser has said why
    }
}

// Options may stand before, between and behind the operands; "--" ends them.
bool parseOptions(int argc, char **argv, Options *options) {
    while (ZORoptind < argc) {
        int letter;
        while ((letter = ZORgetopt(argc, argv, "-:jhVw:")) != -1) {
            if (!takeOption(letter, options)) return false;
        }
        const bool ended = std::strcmp(argv[ZORoptind - 1], "--") == 0;
        do {
            if (ZORoptind < argc) options->operands.push_back(argv[ZORoptind++]);
        } while (ended && ZORoptind < argc);
        ZORoptreset = 1;  // or it would take the moved index for an option group to go on with
    }
    return true;
}

bool findCommand(std::string_view word, Command *command) {
    static constexpr struct {
        std::string_view word;
        Command command;
    } kCommands[] = {{"info", Command::kInfo},
                     {"chunks", Command::kChunks},
                     {"locks", Command::kLocks},
                     {"check", Command::kCheck}};
    for (const auto &known : kCommands) {
        if (known.word != word) continue;
        *command = known.command;
        return true;
    }
    return false;
}

int usageError(const char *message) {
    (void)std::fprintf(stderr, "arenactl: %s\narenactl --help tells how it is used\n", message);
    return kUsage;
}

// Nothing that was asked for may get lost in a full disk or a closed pipe.
int print(const std::string &text, int status) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0)
        return status;
    (void)std::fprintf(stderr, "arenactl: writing the answer: %s\n", std::strerror(errno));
    return kUsage;
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    if (!parseOptions(argc, argv, &options)) return usageError("that was not understood");
    if (options.help) return print(kHelp, kFine);
    if (options.version) return print(std::string(iosched_version + kMarkLength) + "\n", kFine);
    if (options.operands.size() != 2) return usageError("give a command and the path of an arena");
    Command command;
    if (!findCommand(options.operands[0], &command))
        return usageError("the commands are info, chunks, locks and check");
    Examination exam;
    std::string text;
    if (!examineArena(options.operands[1], options.waitMs, &exam, &text)) {
        (void)std::fprintf(stderr, "arenactl: %s\n", text.c_str());
        return kUsage;
    }
    const int status = runCommand(command, options.json, exam, &text);
    return print(text, status);
}
