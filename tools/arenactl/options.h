// The command line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Options {
    bool json = false;
    bool help = false;
    bool version = false;
    bool dryRun = false;
    bool blocking = false;
    int waitMs = 250;
    int looks = 0;
    uint32_t pid = 0;
    std::string file;
    std::vector<const char *> operands;
};

// The message about a word of the command line that was not understood; false, to be handed on.
bool complain(const std::string &what, const std::string &problem);

// False after such a message.
bool parseOptions(int argc, char **argv, Options *options);

// A process id, or a number of something, from 1 up. False after such a message.
bool parseNumber(const char *what, const char *text, uint32_t *number);
