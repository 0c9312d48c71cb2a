// The mode word of an open, in words.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct ModeWords {
    uint32_t mode = 0;  // SHARED_FILE_ bits
    uint32_t maxOpens = 0;
    bool create = false;
};

// Reads "read,deny-write,oplock-batch". Returns false at a word that it does not know.
bool parseMode(std::string_view text, ModeWords *words);

// The other way round; "none" for 0.
std::string modeText(uint32_t mode);

// SHARED_ERR_ codes as the protocol spells them.
const char *codeWord(int code);
