// arenactl explain: result codes and errno values in words.
#pragma once

#include <span>
#include <string>

// The answer about each of the words, which are numbers or names, or about every code. False with
// the message, ready to print, for a word that is none.
bool explainCodes(std::span<const char *const> words, bool asJson, std::string *answer,
                  std::string *error);
