// A heap with four children to a node: half as deep as one with two, and the four lie side by side.
//
// Entries hold their keys, so that comparing touches nothing else, and are told where they stand,
// so that one in the middle can be found and taken out. What an entry says of its place proves
// nothing by itself: who asks compares the entry that stands there.
//
// It must stay where it is made. An Entry has `bool before(const Entry &) const` and `void
// setPlace(size_t) const`. Only reserve() can fail. Constant-initialised, and never freed.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace iosched_lib {

template <class Entry>
class QuadHeap {
public:
    size_t size() const { return size_; }
    const Entry &at(size_t place) const { return entries_[place]; }
    const Entry &first() const { return entries_[0]; }

    // Makes sure that the next insert() finds room. False with errno ENOMEM and nothing changed.
    bool reserve() {
        if (size_ < capacity_) return true;
        const bool isFirst = entries_ == first_;
        auto *grown = static_cast<Entry *>(
            ::reallocarray(isFirst ? nullptr : entries_, 2 * capacity_, sizeof(Entry)));
        if (grown == nullptr) return false;
        if (isFirst) std::copy_n(first_, size_, grown);
        entries_ = grown;
        capacity_ *= 2;
        return true;
    }

    void insert(const Entry &entry) { siftUp(size_++, entry); }

    // Gives the entry at a place another key.
    void replace(size_t place, const Entry &entry) {
        if (place > 0 && entry.before(entries_[parentOf(place)]))
            siftUp(place, entry);
        else
            siftDown(place, entry);
    }

    void remove(size_t place) {
        const Entry last = entries_[--size_];
        if (place < size_) replace(place, last);
    }

    void clear() { size_ = 0; }

private:
    static constexpr size_t kFirstCapacity = 16;
    static constexpr size_t kChildren = 4;

    static size_t parentOf(size_t place) { return (place - 1) / kChildren; }

    void put(size_t place, const Entry &entry) {
        entries_[place] = entry;
        entry.setPlace(place);
    }

    void siftUp(size_t place, const Entry &entry) {
        while (place > 0 && entry.before(entries_[parentOf(place)])) {
            put(place, entries_[parentOf(place)]);
            place = parentOf(place);
        }
        put(place, entry);
    }

    // The earliest of the children from begin to end. Which one it is cannot be predicted, so it is
    // chosen without a branch.
    size_t earliest(size_t begin, size_t end) const {
        size_t best = begin;
        for (size_t child = begin + 1; child < end; ++child)
            best = entries_[child].before(entries_[best]) ? child : best;
        return best;
    }

    // First all the way down along the earliest children, then up: an entry from the end of the
    // heap mostly belongs near its end.
    void siftDown(size_t place, const Entry &entry) {
        const size_t top = place;
        for (;;) {
            const size_t begin = kChildren * place + 1;
            if (begin >= size_) break;
            const size_t end = begin + kChildren;
            const size_t child = earliest(begin, end < size_ ? end : size_);
            put(place, entries_[child]);
            place = child;
        }
        while (place > top && entry.before(entries_[parentOf(place)])) {
            put(place, entries_[parentOf(place)]);
            place = parentOf(place);
        }
        put(place, entry);
    }

    Entry first_[kFirstCapacity]{};  // to begin with; larger ones come from malloc
    Entry *entries_ = first_;
    size_t size_ = 0;
    size_t capacity_ = kFirstCapacity;
};

}  // namespace iosched_lib

using namespace iosched_lib;
