// Single-letter option parser with its own set of globals.
//
// It scans in order and stops at the first operand. Between calls the parser remembers only which
// argument's group it is in and how far: the group goes on as long as ZORoptind still points right
// behind that argument, so a caller that moves ZORoptind starts afresh by that alone.

#include "iosched/util.h"

#include <cstdio>
#include <cstring>

int ZORoptind = 1;
int ZORopterr = 1;
int ZORoptopt = 0;
char *ZORoptarg = nullptr;
int ZORoptreset = 0;

namespace {

int suboptind = -1;  // index of the argument whose group is being scanned; -1 before the first
int subopt = 0;      // position in that argument of the next option character

bool insideGroup(char *const *argv) {
    if (ZORoptreset != 0 || ZORoptind - 1 != suboptind || argv[suboptind] == nullptr) return false;
    // A caller that moved ZORoptind by itself, or changed the vector, can leave subopt behind the
    // end of the argument.
    return std::strlen(argv[suboptind]) > static_cast<size_t>(subopt);
}

// Enters the group at ZORoptind; false when the scan ends there.
bool enterGroup(int argc, char *const *argv) {
    ZORoptreset = 0;
    if (ZORoptind >= argc) return false;
    const char *arg = argv[ZORoptind];
    if (arg == nullptr || arg[0] != '-' || arg[1] == '\0') return false;
    suboptind = ZORoptind++;
    subopt = 1;
    return std::strcmp(arg, "--") != 0;
}

// The option's argument: the rest of its own word, or the next word, or null.
char *takeArgument(char *const *argv) {
    char *rest = &argv[suboptind][subopt];
    if (*rest != '\0') {
        ++suboptind;  // no longer right before ZORoptind: the group is over
        return rest;
    }
    // The null pointer ends the vector, whatever the count says.
    return argv[ZORoptind] != nullptr ? argv[ZORoptind++] : nullptr;
}

void report(const char *format, char *const *argv) {
    if (ZORopterr != 0) (void)std::fprintf(stderr, format, argv[0], ZORoptopt);
}

}  // namespace

int ZORgetopt(int argc, char *const *argv, const char *optstring) {
    if (ZORoptind == 0) ZORoptind = 1;
    if (!insideGroup(argv) && !enterGroup(argc, argv)) return -1;

    // NOLINTNEXTLINE(bugprone-signed-char-misuse): bytes above 127 come back negative by contract
    const int option = static_cast<signed char>(argv[suboptind][subopt++]);
    const char *known = std::strchr(optstring, option);
    if (known == nullptr) {
        ZORoptopt = option;
        report("%s: illegal option -- %c\n", argv);
        return '?';
    }
    if (known[1] != ':') return option;

    char *argument = takeArgument(argv);
    if (argument == nullptr) {
        ZORoptopt = option;
        report("%s: option requires an argument -- %c\n", argv);
        return optstring[0] == ':' ? ':' : '?';
    }
    ZORoptarg = argument;
    return option;
}
