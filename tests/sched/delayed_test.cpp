// Delayed calls against a naive model: random registrations, withdrawals and runs, also inside the
// functions themselves and while memory is short.

#include "support/alloc_wrap.h"
#include "support/loop.h"

#include <algorithm>
#include <deque>
#include <list>
#include <random>

namespace {

class Delayed : public LoopTest {
protected:
    Delayed() {
        for (int i = 0; i < kRecords; ++i)
            records_.emplace_back([this, i] { onCall(i); });
    }

    bool waits(int i) const {
        const auto has = [i](const std::deque<int> &batch) {
            return std::find(batch.begin(), batch.end(), i) != batch.end();
        };
        return has(queue_) || std::any_of(batches_.begin(), batches_.end(), has);
    }
    int pick(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

    // Sometimes many changes in a row, so that what is withdrawn leaves holes to close.
    void step() {
        if (batches_.size() < 4 && pick(6) == 0) return run(random_() % 2 == 0);
        for (int changes = pick(64) == 0 ? 300 : 1; changes > 0; --changes)
            change(pick(kRecords));
    }
    void change(int i) {
        if (pick(16) == 0) allocationsUntilFailure = 0;
        if (pick(5) < 2) {
            ASSERT_EQ(unRegisterDelayedCall(&records_[static_cast<size_t>(i)]),
                      static_cast<int>(std::erase(queue_, i)));
            return;
        }
        if (!waits(i)) queue_.push_back(i);
        registerDelayedCall(&records_[static_cast<size_t>(i)]);
    }

    void run(bool inPass) {
        const bool any = !queue_.empty();
        batches_.push_back(std::exchange(queue_, {}));
        // A pass that runs some does not wait; by hand, the result tells.
        ASSERT_EQ(inPass ? iosched(any ? -1 : 0) : runDelayedCallQueue(), !inPass && any ? 1 : 0);
        ASSERT_TRUE(batches_.back().empty());
        batches_.pop_back();
    }

    void onCall(int i) {
        ASSERT_FALSE(batches_.empty() || batches_.back().empty());
        ASSERT_EQ(batches_.back().front(), i);
        batches_.back().pop_front();
        for (int steps = pick(4); steps > 0; --steps)
            step();
        // Out of every list by now: what the function does to its record is its own affair.
        if (!waits(i)) records_[static_cast<size_t>(i)].next = records_[0].next;
    }

    static constexpr int kRecords = 60;
    std::minstd_rand random_{1};
    std::deque<TestCall> records_;
    std::deque<int> queue_;
    std::list<std::deque<int>> batches_;  // being run, outermost first
};

TEST_F(Delayed, RunOnceInOrderWhateverTheirFunctionsDo) {
    for (int i = 0; i < 50000 && !HasFatalFailure(); ++i)
        step();
}

TEST_F(Delayed, MayFreeTheirRecordOrHaveNoFunction) {
    auto *freed = new DelayedCall{};
    freed->func = [](DelayedCall *record) { delete record; };
    DelayedCall silent{};
    registerDelayedCall(freed);
    registerDelayedCall(&silent);
    EXPECT_EQ(runDelayedCallQueue(), 1);
    EXPECT_EQ(runDelayedCallQueue(), 0);
}

}  // namespace
