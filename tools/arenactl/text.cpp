#include "text.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr size_t kShownNameBytes = 200;

}  // namespace

std::string printed(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char *line = nullptr;
    const int length = ::vasprintf(&line, format, arguments);
    va_end(arguments);
    if (length < 0) return {};
    std::string text(line, static_cast<size_t>(length));
    std::free(line);
    return text;
}

size_t utf8Length(std::string_view text) {
    if (text.empty()) return 0;
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) return 1;
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return 0;
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
    }
    // Too long for what they say, surrogates, and beyond the last code point.
    if (lead == 0xE0 && byte(1) < 0xA0) return 0;
    if (lead == 0xED && byte(1) > 0x9F) return 0;
    if (lead == 0xF0 && byte(1) < 0x90) return 0;
    if (lead == 0xF4 && byte(1) > 0x8F) return 0;
    return length;
}

std::string quoted(std::string_view name) {
    std::string shown = "\"";
    const bool isLong = name.size() > kShownNameBytes;
    name = name.substr(0, kShownNameBytes);
    while (!name.empty()) {
        const size_t length = utf8Length(name);
        const auto first = static_cast<unsigned char>(name[0]);
        // U+0080 to U+009F are control characters too, and begin with this byte.
        const bool control =
            first < 0x20 || first == 0x7F ||
            (length == 2 && first == 0xC2 && static_cast<unsigned char>(name[1]) < 0xA0);
        if (length == 0 || control) {
            shown += printed("\\x%02x", first);
            name.remove_prefix(1);
            continue;
        }
        if (first == '"' || first == '\\') shown += '\\';
        shown += name.substr(0, length);
        name.remove_prefix(length);
    }
    return shown + (isLong ? "\"..." : "\"");
}

std::string hexBytes(std::span<const std::byte> bytes) {
    std::string text;
    for (const std::byte b : bytes) {
        if (!text.empty()) text += ' ';
        text += printed("%02x", static_cast<unsigned>(b));
    }
    return text;
}

std::string counted(uint64_t count, const char *one, const char *many) {
    return printed("%" PRIu64 " %s", count, count == 1 ? one : many);
}

void Columns::row(std::vector<std::string> cells) {
    if (widths_.size() < cells.size()) widths_.resize(cells.size());
    for (size_t i = 0; i < cells.size(); i++)
        widths_[i] = std::max(widths_[i], cells[i].size());
    rows_.push_back(std::move(cells));
}

std::string Columns::text(size_t indent) const {
    std::string text;
    for (const std::vector<std::string> &cells : rows_) {
        std::string line(indent, ' ');
        for (size_t i = 0; i < cells.size(); i++) {
            const size_t gap = widths_[i] - cells[i].size();
            const bool right = rightAligned_.contains(i);
            if (right) line.append(gap, ' ');
            line += cells[i];
            if (!right) line.append(gap, ' ');
            line += "  ";
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}
