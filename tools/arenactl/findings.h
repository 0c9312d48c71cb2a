// What the checker found wrong, and where.
#pragma once

#include "text.h"
#include "view.h"

#include <string>
#include <vector>

struct Finding {
    const char *code;     // one word for programs, such as "free-neighbours"; a literal
    uint64_t offset;      // arena offset of the bytes that are wrong
    uint64_t length;      // how many they are
    uint64_t guard;       // arena offset of the mutex under which these bytes change
    std::string place;    // which field of what, in words
    std::string problem;  // what is wrong with it, in words
    // Found while a living process held the guard: perhaps only a change half made.
    bool unsure = false;
};

// A damaged arena can break a rule once for every block; the list keeps the first thousand and
// counts the rest.
class Findings {
public:
    static constexpr size_t kListed = 1000;

    // All findings that follow change under this mutex.
    void guardedBy(uint64_t mutexOffset) { guard_ = mutexOffset; }

    void add(const char *code, uint64_t offset, uint64_t length, std::string place,
             std::string problem) {
        if (list_.size() == kListed) {
            unlisted_++;
            return;
        }
        list_.push_back(
            {code, offset, length, guard_, std::move(place), std::move(problem), false});
    }

    std::vector<Finding> &list() { return list_; }
    const std::vector<Finding> &list() const { return list_; }
    uint64_t unlisted() const { return unlisted_; }
    bool empty() const { return list_.empty(); }

private:
    std::vector<Finding> list_;
    uint64_t unlisted_ = 0;
    uint64_t guard_ = 0;
};
