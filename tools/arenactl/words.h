// The numbers of a lock table in words.
#pragma once

#include "table.h"

#include <string>
#include <vector>

// The bits of an open's mode word: "read", "deny-write", ...; bits without a name as one
// hexadecimal number at the end. Empty for 0.
std::vector<std::string> modeWords(uint32_t mode);

// The flags of a range lock: "shared", "exclusive", likewise.
std::vector<std::string> lockWords(uint32_t flags);

// "read, deny-write"; "none" for nothing.
std::string joined(const std::vector<std::string> &words);

// "bytes 0 to 99", "bytes from 100", "no bytes at 5".
std::string rangeWords(const TableRecord &record);

// A range that locks no byte at all; the table keeps such ranges like any other.
bool isEmptyRange(const TableRecord &record);

// "27520 bytes", with a rounded figure behind it where that helps.
std::string byteWords(uint64_t bytes);
