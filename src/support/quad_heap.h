// A heap with four children to a node: half as deep as one with two, and the four lie side by side.
//
// Entries hold their keys, so that comparing touches nothing else, and are told where they stand,
// so that one in the middle can be found and taken out. What an entry says of its place proves
// nothing by itself: who asks compares the entry that stands there.
//
// Who wants all entries up to some key takes them off together: they are sorted at once and wait at
// the other end of the array, which costs less than bringing each of them to the top. They still
// belong to the heap, as its first ones, and can be taken out from there, too.
//
// It must stay where it is made. An Entry has `bool before(const Entry &) const`, `void
// setPlace(size_t) const`, and `bool isHole() const`, true of an Entry{} alone. Only reserve() can
// fail. Constant-initialised, and never freed.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace iosched_lib {

template <class Entry>
class QuadHeap {
public:
    bool isEmpty() const { return size_ + taken_ == 0; }
    const Entry &first() const { return entries_[taken_ > 0 ? capacity_ - taken_ : 0]; }

    // The entry at a place, or null when there is no such place.
    const Entry *at(size_t place) const {
        if (place < size_) return &entries_[place];
        return ~place < taken_ ? &entries_[capacity_ - 1 - ~place] : nullptr;
    }

    // Makes sure that the next insert() finds room. False with errno ENOMEM and nothing changed.
    bool reserve() {
        if (size_ + taken_ < capacity_) return true;
        const bool isFirst = entries_ == first_;
        auto *grown = static_cast<Entry *>(
            ::reallocarray(isFirst ? nullptr : entries_, 2 * capacity_, sizeof(Entry)));
        if (grown == nullptr) return false;
        if (isFirst) std::copy_n(first_, capacity_, grown);
        std::copy_n(grown + capacity_ - taken_, taken_, grown + 2 * capacity_ - taken_);
        entries_ = grown;
        capacity_ *= 2;
        return true;
    }

    void insert(const Entry &entry) { siftUp(size_++, entry); }

    void remove(size_t place) {
        if (place >= size_) {
            entries_[capacity_ - 1 - ~place] = Entry{};
            while (taken_ > 0 && first().isHole())
                --taken_;
            return;
        }
        const Entry last = entries_[--size_];
        if (place == size_) return;
        if (place > 0 && last.before(entries_[parentOf(place)]))
            siftUp(place, last);
        else
            siftDown(place, last);
    }

    // Takes all entries off that are due, once those of the last time are gone. None of the others
    // may be before one that is due, nor be inserted before one that has been taken.
    template <class IsDue>
    void takeOff(IsDue isDue) {
        if (taken_ > 0 || size_ == 0 || !isDue(entries_[0])) return;
        takeSubtree(0, isDue);
        std::sort(entries_ + capacity_ - taken_, entries_ + capacity_,
                  [](const Entry &a, const Entry &b) { return a.before(b); });
        for (size_t i = 0; i < taken_; ++i)
            entries_[capacity_ - 1 - i].setPlace(~i);
    }

    void clear() { size_ = taken_ = 0; }

private:
    static constexpr size_t kFirstCapacity = 16;
    static constexpr size_t kChildren = 4;

    static size_t parentOf(size_t place) { return (place - 1) / kChildren; }

    // From the back of the heap: what fills a gap comes from there, too, and is not due.
    template <class IsDue>
    void takeSubtree(size_t place, IsDue isDue) {
        const size_t begin = kChildren * place + 1;
        for (size_t child = begin + kChildren; child-- > begin;)
            if (child < size_ && isDue(entries_[child])) takeSubtree(child, isDue);
        while (place < size_) {
            const Entry last = entries_[size_ - 1];
            const size_t gap = isDue(last) ? size_ - 1 : place;
            const Entry due = entries_[gap];
            remove(gap);
            entries_[capacity_ - ++taken_] = due;
            if (gap == place) return;
        }
    }

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
    size_t size_ = 0;   // of the heap, at the front
    size_t taken_ = 0;  // entries at the back, holes included; the first of them is none
    size_t capacity_ = kFirstCapacity;
};

}  // namespace iosched_lib

using namespace iosched_lib;
