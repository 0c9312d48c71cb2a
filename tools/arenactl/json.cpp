#include "json.h"

#include "text.h"

#include <cinttypes>

JsonWriter &JsonWriter::key(std::string_view name) {
    startValue();
    quote(name);
    text_ += ": ";
    afterKey_ = true;
    return *this;
}

void JsonWriter::string(std::string_view text) {
    startValue();
    quote(text);
}

void JsonWriter::number(uint64_t value) {
    startValue();
    text_ += printed("%" PRIu64, value);
}

void JsonWriter::signedNumber(int64_t value) {
    startValue();
    text_ += printed("%" PRId64, value);
}

void JsonWriter::boolean(bool value) {
    startValue();
    text_ += value ? "true" : "false";
}

void JsonWriter::null() {
    startValue();
    text_ += "null";
}

void JsonWriter::strings(const std::vector<std::string> &texts) {
    beginArray();
    for (const std::string &text : texts)
        string(text);
    endArray();
}

void JsonWriter::begin(char bracket) {
    startValue();
    text_ += bracket;
    depth_++;
    first_ = true;
}

void JsonWriter::end(char bracket) {
    depth_--;
    if (!first_) newLine();
    text_ += bracket;
    first_ = false;
    if (depth_ == 0) text_ += '\n';
}

// What stands between a value and the one before it.
void JsonWriter::startValue() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (depth_ == 0) return;
    if (!first_) text_ += ',';
    first_ = false;
    newLine();
}

void JsonWriter::newLine() {
    text_ += '\n';
    text_.append(depth_ * 2, ' ');
}

void JsonWriter::quote(std::string_view text) {
    text_ += '"';
    while (!text.empty()) {
        const size_t length = utf8Length(text);
        const auto first = static_cast<unsigned char>(text[0]);
        if (length == 0 || first < 0x20 || first == 0x7F) {
            text_ += printed("\\u%04x", first);
        } else {
            if (first == '"' || first == '\\') text_ += '\\';
            text_ += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    text_ += '"';
}
