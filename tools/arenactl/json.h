// Writes JSON that is always valid.
//
// Names in an arena are arbitrary bytes, JSON is Unicode: bytes that are no UTF-8 are written as
// the code points of the same numbers (\u00XX), so that no output ever fails to parse.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Stands in every answer. Rises when a name goes or changes its meaning; names may be added.
constexpr uint64_t kJsonSchema = 1;

class JsonWriter {
public:
    // Each value inside an object follows its key.
    JsonWriter &key(std::string_view name);

    void beginObject() { begin('{'); }
    void endObject() { end('}'); }
    void beginArray() { begin('['); }
    void endArray() { end(']'); }
    void string(std::string_view text);
    void number(uint64_t value);
    void signedNumber(int64_t value);
    void boolean(bool value);
    void null();
    void strings(const std::vector<std::string> &texts);

    const std::string &text() const { return text_; }

private:
    void begin(char bracket);
    void end(char bracket);
    void startValue();
    void newLine();
    void quote(std::string_view text);

    std::string text_;
    size_t depth_ = 0;
    bool first_ = true;  // nothing yet in the innermost object or array
    bool afterKey_ = false;
};
