// arenactl: looks into an arena file without leaving a trace in it, and on request puts right what
// dead processes left there.
//
// An answer is put together first and written in one go, so that a reader of the JSON never sees
// half of it because something went wrong on the way.
#include "cleaner.h"
#include "commands.h"
#include "explain.h"
#include "options.h"
#include "repairer.h"
#include "text.h"
#include "top.h"

#include "iosched/sched.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <span>
#include <string_view>

namespace {

constexpr int kFine = 0;
constexpr int kUsage = 1;
constexpr int kWrong = 2;

// "@(#)", for programs that look for identification strings, is nothing to show.
constexpr size_t kMarkLength = 4;

constexpr const char *kHelp =
    "usage: arenactl [OPTION...] info|chunks|locks|check|metrics|top ARENA\n"
    "       arenactl [OPTION...] repair ARENA [TABLE...]\n"
    "       arenactl [OPTION...] clean ARENA [PID...]\n"
    "       arenactl [OPTION...] explain [CODE...]\n"
    "\n"
    "  info     how full the arena and its tables are, mutexes, and the processes that use it\n"
    "  chunks   what the heap is divided into: name, size, references, place; free space\n"
    "  locks    every file of every lock table, with each open and range lock and its holder\n"
    "  check    everything that is wrong with the arena, where, and whose mutex is held;\n"
    "           notes what processes left that have ended\n"
    "  metrics  the figures in the text format that Prometheus reads\n"
    "  top      the most important figures, once a second\n"
    "  repair   frees the mutexes of processes that died in them, and repairs what these guard;\n"
    "           gives up each TABLE whose creator died before it was ready\n"
    "  clean    removes the records of processes that have ended, of all or of each PID\n"
    "  explain  what each CODE means and what to do about it: a result code or an errno, by\n"
    "           number or name; all codes of the library without one\n"
    "\n"
    "  -j, --json     one JSON object instead of text (not of metrics and top)\n"
    "  -w MS          wait at most so many milliseconds for a quiet moment, or for a mutex (250);\n"
    "                 when no quiet moment comes, the copy is a best effort and labelled so\n"
    "  --file NAME    locks: only the file of this name, end of a name, or key\n"
    "  --pid PID      locks: only what this process holds\n"
    "  --blocking     locks: also who stands in whose way, and who waits for a mutex\n"
    "  --dry-run      repair: change nothing, say what would be done\n"
    "  -n LOOKS       top: end after so many\n"
    "  -h, --help     this text\n"
    "  -V, --version  the version of the program and its library\n"
    "\n"
    "Looking never writes to the arena and takes none of its locks.\n"
    "Exit status: 0 fine, 1 usage or the file cannot be read, 2 something is wrong with the "
    "arena\n"
    "or was refused.\n";

int usageError(const std::string &what, const char *problem) {
    (void)complain(what, problem);
    return kUsage;
}

int failed(const std::string &reason) {
    (void)std::fprintf(stderr, "arenactl: %s\n", reason.c_str());
    return kUsage;
}

// Nothing that was asked for may get lost in a full disk or a closed pipe.
int print(const std::string &text, int status) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0)
        return status;
    return failed(std::string("standard output: ") + std::strerror(errno) +
                  "; not all of the answer was written");
}

int look(Command command, const Options &options) {
    Examination exam;
    std::string text;
    if (!examineArena(options.operands[1], options.waitMs, &exam, &text)) return failed(text);
    const LockFilter filter{options.file, options.pid, options.blocking};
    const int status = runCommand(command, options.json, exam, &text, filter);
    return print(text, status);
}

int printReport(const RepairReport &report, const Options &options) {
    return print(options.json ? report.json() : report.text(), report.isRefused() ? kWrong : kFine);
}

int repair(const Options &options) {
    RepairOptions wanted{options.waitMs, options.dryRun, {}};
    wanted.abandoned.assign(options.operands.begin() + 2, options.operands.end());
    RepairReport report;
    std::string error;
    if (!repairArena(options.operands[1], wanted, &report, &error)) return failed(error);
    return printReport(report, options);
}

int clean(const Options &options) {
    CleanOptions wanted{options.waitMs, {}};
    for (size_t i = 2; i < options.operands.size(); i++) {
        uint32_t pid = 0;
        if (!parseNumber("a process id", options.operands[i], &pid)) return kUsage;
        wanted.pids.insert(pid);
    }
    RepairReport report;
    std::string error;
    if (!cleanArena(options.operands[1], wanted, &report, &error)) return failed(error);
    return printReport(report, options);
}

int top(const Options &options) {
    std::string error;
    return watchArena(options.operands[1], options.looks, &error) ? kFine : failed(error);
}

int explain(const Options &options) {
    const std::span<const char *const> words(options.operands);
    std::string answer, error;
    if (!explainCodes(words.subspan(1), options.json, &answer, &error)) return failed(error);
    return print(answer, kFine);
}

constexpr struct {
    std::string_view word;
    Command command;
} kLooks[] = {
    {"info", Command::kInfo},   {"chunks", Command::kChunks},   {"locks", Command::kLocks},
    {"check", Command::kCheck}, {"metrics", Command::kMetrics},
};

int run(const Options &options) {
    const char *const word = options.operands[0];
    const std::string_view name = word;
    if (name == "explain") return explain(options);
    const bool isChange = name == "repair" || name == "clean";
    const bool isFigures = name == "metrics" || name == "top";
    const auto *const known = std::find_if(std::begin(kLooks), std::end(kLooks),
                                           [&](const auto &entry) { return entry.word == name; });
    if (known == std::end(kLooks) && name != "top" && !isChange)
        return usageError(quoted(name), "no such command");
    if (options.operands.size() < 2) return usageError(word, "give the path of an arena");
    if (options.operands.size() > 2 && !isChange) return usageError(word, "one arena at a time");
    if (isFigures && options.json) return usageError(word, "there is no JSON of it");
    if (name == "repair") return repair(options);
    if (name == "clean") return clean(options);
    return name == "top" ? top(options) : look(known->command, options);
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    if (!parseOptions(argc, argv, &options)) return kUsage;
    if (options.help) return print(kHelp, kFine);
    if (options.version)
        return print(std::string("arenactl, ") + (iosched_version + kMarkLength) + "\n", kFine);
    if (options.operands.empty()) return usageError("no command", "give one");
    return run(options);
}
