// A hash table from a key (an address, a process id) to a record of the library.
//
// Open addressing with linear probing in an array of a power of two. Removing shifts the records
// behind the gap back instead of leaving a mark, so a table that lives as long as the process never
// fills with marks, and removing neither allocates nor fails. Only reserve() can fail: a caller
// does it before anything that it could not take back, and insert() then always succeeds.
//
// Constant-initialised, and never freed: records outlive every scope that could free it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace iosched_lib {

template <class Record>
class HashTable {
public:
    static uintptr_t keyOf(const void *address) { return reinterpret_cast<uintptr_t>(address); }
    static uintptr_t keyOf(int number) { return static_cast<uintptr_t>(number); }

    // Makes sure that the next insert() finds room. False with errno ENOMEM and nothing changed.
    bool reserve() {
        if (2 * (count_ + 1) <= capacity()) return true;  // half empty, so that runs stay short
        return resize(slots_ == nullptr ? kFirstBits : bits_ + 1);
    }

    // Needs reserve(), and a key that the table does not hold. record is not null.
    template <class Key>
    void insert(Key key, Record *record) {
        place({keyOf(key), record});
        ++count_;
    }

    // The key's record, or null.
    template <class Key>
    Record *find(Key key) const {
        return count_ == 0 ? nullptr : slots_[indexOf(keyOf(key))].record;
    }

    // Takes the key's record out and returns it; null if there is none.
    template <class Key>
    Record *remove(Key key) {
        if (count_ == 0) return nullptr;
        const size_t index = indexOf(keyOf(key));
        Record *const record = slots_[index].record;
        if (record == nullptr) return nullptr;
        closeGap(index);
        --count_;
        return record;
    }

    size_t size() const { return count_; }

private:
    struct Slot {
        uintptr_t key;
        Record *record;  // null: the slot is free
    };

    static constexpr unsigned kFirstBits = 4;

    size_t capacity() const { return slots_ == nullptr ? 0 : size_t{1} << bits_; }
    size_t after(size_t index) const { return (index + 1) & (capacity() - 1); }

    // Multiplying by 2^64 divided by the golden ratio spreads keys in even steps, as aligned
    // addresses and process ids are, over the upper bits.
    size_t home(uintptr_t key) const {
        return (key * UINT64_C(0x9E3779B97F4A7C15)) >> (64 - bits_);
    }

    // Where the key stands, or the free slot that ends its run.
    size_t indexOf(uintptr_t key) const {
        size_t index = home(key);
        while (slots_[index].record != nullptr && slots_[index].key != key)
            index = after(index);
        return index;
    }

    void place(const Slot &slot) { slots_[indexOf(slot.key)] = slot; }

    // Frees a slot. A record further down its run moves up if its home does not lie in between:
    // otherwise a search would end at the gap before it.
    void closeGap(size_t gap) {
        for (size_t i = after(gap); slots_[i].record != nullptr; i = after(i)) {
            const size_t probes = (i - home(slots_[i].key)) & (capacity() - 1);
            if (probes < ((i - gap) & (capacity() - 1))) continue;
            slots_[gap] = slots_[i];
            gap = i;
        }
        slots_[gap].record = nullptr;
    }

    bool resize(unsigned bits) {
        auto *const bigger = static_cast<Slot *>(std::calloc(size_t{1} << bits, sizeof(Slot)));
        if (bigger == nullptr) return false;
        Slot *const old = slots_;
        const size_t oldCapacity = capacity();
        slots_ = bigger;
        bits_ = bits;
        for (size_t i = 0; i < oldCapacity; ++i)
            if (old[i].record != nullptr) place(old[i]);
        std::free(old);
        return true;
    }

    Slot *slots_ = nullptr;
    unsigned bits_ = 0;  // the capacity is 2^bits_ once there are slots
    size_t count_ = 0;
};

}  // namespace iosched_lib

using namespace iosched_lib;
