// Building lines of text: printf into a string, and names made safe to show.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

[[gnu::format(printf, 1, 2)]] std::string printed(const char *format, ...);

// The length of the UTF-8 sequence at the front of the text; 0 if there is none that is valid.
size_t utf8Length(std::string_view text);

// A name between quotes, for people: what would move the cursor or is no UTF-8 appears as \xNN, and
// a very long name is cut.
std::string quoted(std::string_view name);

// "0a 12": bytes as two-digit hexadecimal numbers.
std::string hexBytes(std::span<const std::byte> bytes);

// "1 file", "2 files".
std::string counted(uint64_t count, const char *one, const char *many);

// Lines whose cells stand below one another.
class Columns {
public:
    // Numbers read best with their ends below one another.
    explicit Columns(std::set<size_t> rightAligned = {}) : rightAligned_(std::move(rightAligned)) {}
    void row(std::vector<std::string> cells);
    std::string text(size_t indent = 0) const;

private:
    std::set<size_t> rightAligned_;
    std::vector<size_t> widths_;
    std::vector<std::vector<std::string>> rows_;
};
