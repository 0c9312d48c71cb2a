// The hash table against a map, and with an allocator that fails.

#include "support/alloc_wrap.h"
#include "support/hash_table.h"

#include <gtest/gtest.h>
#include <map>
#include <random>

namespace {

// Few keys at first, others in each round, so that runs grow together, go on from the array's end
// to its beginning, and gaps close in every way; then many, to grow.
TEST(HashTable, HoldsWhatAMapHolds) {
    std::minstd_rand random(1);
    static int records[5000];
    static constinit HashTable<int> table;  // never freed
    std::map<int, int *> model;
    for (unsigned round = 0; round <= 500; ++round) {
        const unsigned keys = round < 500 ? 8 : 5000;
        for (unsigned step = 0; step < 40 * keys; ++step) {
            const unsigned id = static_cast<unsigned>(random() % keys);
            const int key = static_cast<int>((id + round) * (id + round) * (id + 1));
            int *const held = model.contains(key) ? model[key] : nullptr;
            ASSERT_EQ(table.find(key), held);
            if (random() % 2 == 0) {
                ASSERT_EQ(table.remove(key), held);
                model.erase(key);
            } else if (held == nullptr) {
                ASSERT_TRUE(table.reserve());
                table.insert(key, model[key] = &records[id]);
            }
            ASSERT_EQ(table.size(), model.size());
        }
        for (; !model.empty(); model.erase(model.begin()))
            ASSERT_EQ(table.remove(model.begin()->first), model.begin()->second);
    }
}

TEST(HashTable, OnlyReservingFailsAndChangesNothing) {
    static constinit HashTable<int> table;  // never freed
    int records[100], failures = 0;
    for (int &record : records) {
        allocationsUntilFailure = 0;
        if (!table.reserve()) {
            ++failures;
            for (int *earlier = records; earlier != &record; ++earlier)
                ASSERT_EQ(table.find(earlier), earlier);
            ASSERT_TRUE(table.reserve());
        }
        allocationsUntilFailure = 0;  // nothing below asks for memory
        table.insert(&record, &record);
        ASSERT_EQ(table.remove(&record), &record);
        table.insert(&record, &record);
    }
    allocationsUntilFailure = -1;
    EXPECT_EQ(failures, 5) << "room doubles, from 8 records on";
}

}  // namespace
