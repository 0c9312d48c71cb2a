// Takes a request line apart, word by word.
#pragma once

#include <charconv>
#include <cstdint>
#include <string_view>

class Words {
public:
    explicit Words(std::string_view line) : rest_(line) { skipBlanks(); }

    bool empty() const { return rest_.empty(); }

    // The next word; empty at the end of the line.
    std::string_view next() {
        const std::string_view word = rest_.substr(0, rest_.find_first_of(" \t"));
        rest_.remove_prefix(word.size());
        gap_ = rest_;
        skipBlanks();
        return word;
    }

    // All that is left, blanks inside included.
    std::string_view rest() const { return rest_; }
    // The same, less exactly one blank: for text that may begin with blanks.
    std::string_view text() const { return gap_.empty() ? gap_ : gap_.substr(1); }

    // The next word as a decimal number. Returns false, and takes nothing, if it is none or too
    // big.
    template <class Number>
    bool number(Number *value) {
        const std::string_view word = rest_.substr(0, rest_.find_first_of(" \t"));
        const char *end = word.data() + word.size();
        Number parsed{};
        const auto [at, error] = std::from_chars(word.data(), end, parsed);
        if (error != std::errc{} || at != end || word.empty()) return false;
        *value = parsed;
        (void)next();
        return true;
    }

private:
    void skipBlanks() {
        while (rest_.starts_with(' ') || rest_.starts_with('\t'))
            rest_.remove_prefix(1);
    }

    std::string_view rest_, gap_;
};
