// The heap against a sorted set, with entries that are told where they stand.

#include "support/quad_heap.h"

#include <gtest/gtest.h>
#include <random>
#include <set>
#include <utility>

namespace {

size_t places[200];

struct Entry {
    int key;
    size_t id;  // 0: a hole
    bool before(const Entry &other) const {
        return std::pair(key, id) < std::pair(other.key, other.id);
    }
    bool isHole() const { return id == 0; }
    void setPlace(size_t place) const { places[id] = place; }
};

TEST(QuadHeap, KeepsTheEarliestFirstAndEveryEntryAtItsPlace) {
    std::minstd_rand random(3);
    static constinit QuadHeap<Entry> heap;
    std::set<std::pair<int, size_t>> model;
    int keys[200] = {};
    int taken = 0;  // no key up to this one is inserted while one is there
    for (int step = 0; step < 300000; ++step) {
        if (model.empty() || model.begin()->first > taken) {
            taken = random() % 8 == 0 ? static_cast<int>(random() % 50) : 0;
            heap.takeOff([taken](const Entry &entry) { return entry.key <= taken; });
        }
        // Mostly growing or mostly shrinking, the first one most often.
        const bool first = step / 300 % 2 == 0 && random() % 2 == 0 && !model.empty();
        const size_t id = first ? model.begin()->second : 1 + random() % 199;
        if (model.erase({keys[id], id}) == 1) {
            heap.remove(places[id]);
        } else {
            keys[id] = taken + 1 + static_cast<int>(random() % 50);
            ASSERT_TRUE(heap.reserve());
            heap.insert({keys[id], id});
            model.insert({keys[id], id});
        }
        ASSERT_EQ(heap.isEmpty(), model.empty());
        if (model.empty()) continue;
        ASSERT_EQ(heap.first().id, model.begin()->second);
        for (const auto &[key, there] : {*model.begin(), *model.rbegin()})
            ASSERT_EQ(heap.at(places[there])->id, there);
        ASSERT_TRUE(heap.at(places[id]) == nullptr || model.contains({keys[id], id}) ||
                    heap.at(places[id])->id != id);
    }
}

}  // namespace
