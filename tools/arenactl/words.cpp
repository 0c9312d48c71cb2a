#include "words.h"

#include "mode_words.h"

#include <cinttypes>
#include <span>

namespace {

constexpr BitWord kLockWords[] = {
    {SHARED_FILE_LOCK_SHARED, "shared"},
    {SHARED_FILE_LOCK_EXCLUSIVE, "exclusive"},
};

std::vector<std::string> wordsOf(uint32_t bits, std::span<const BitWord> names) {
    std::vector<std::string> words;
    for (const BitWord &name : names) {
        if (bits & name.bit) words.emplace_back(name.word);
        bits &= ~name.bit;
    }
    if (bits != 0) words.push_back(printed("0x%" PRIx32, bits));
    return words;
}

}  // namespace

std::vector<std::string> modeWords(uint32_t mode) {
    return wordsOf(mode, kModeWords);
}

std::vector<std::string> lockWords(uint32_t flags) {
    return wordsOf(flags, kLockWords);
}

std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text.empty() ? "none" : text;
}

bool isEmptyRange(const TableRecord &record) {
    // At offset 0 the end of such a range is stored one lower, or it would look like an open.
    return (record.start == 0 && record.end == kEmptyRangeAtZeroEnd) ||
           (record.start != INT64_MIN && record.end == record.start - 1);
}

std::string rangeWords(const TableRecord &record) {
    if (isEmptyRange(record)) return printed("no bytes at %" PRId64, record.start);
    if (record.end == INT64_MAX) return printed("bytes from %" PRId64, record.start);
    return printed("bytes %" PRId64 " to %" PRId64, record.start, record.end);
}

std::string byteWords(uint64_t bytes) {
    static constexpr const char *kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    std::string text = counted(bytes, "byte", "bytes");
    if (bytes < 10240) return text;
    double figure = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    while (figure >= 1024 && unit + 1 < std::size(kUnits)) {
        figure /= 1024;
        unit++;
    }
    return text + printed(" (%.1f %s)", figure, kUnits[unit]);
}
