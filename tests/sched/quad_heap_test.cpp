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
    size_t id;
    bool before(const Entry &other) const {
        return std::pair(key, id) < std::pair(other.key, other.id);
    }
    void setPlace(size_t place) const { places[id] = place; }
};

TEST(QuadHeap, KeepsTheEarliestFirstAndEveryEntryAtItsPlace) {
    std::minstd_rand random(3);
    static constinit QuadHeap<Entry> heap;
    std::set<std::pair<int, size_t>> model;
    int keys[200] = {};
    for (int step = 0; step < 200000; ++step) {
        const size_t id = random() % 200;
        const int key = static_cast<int>(random() % 50);
        const bool isIn = model.contains({keys[id], id});
        if (!isIn) {
            ASSERT_TRUE(heap.reserve());
            heap.insert({key, id});
        } else if (random() % 2 == 0) {
            heap.replace(places[id], {key, id});
        } else {
            heap.remove(places[id]);
        }
        const bool stays = heap.size() > model.size() || (isIn && heap.size() == model.size());
        if (isIn) model.erase({keys[id], id});
        if (stays) model.insert({keys[id] = key, id});
        ASSERT_EQ(heap.size(), model.size());
        if (model.empty()) continue;
        ASSERT_EQ(heap.first().id, model.begin()->second);
        ASSERT_EQ(heap.at(places[heap.first().id]).id, heap.first().id);
    }
}

}  // namespace
