#include "support/loop.h"

#include <string>

namespace {

using Delayed = LoopTest;

TEST_F(Delayed, RunInTheOrderOfQueuingEachOnce) {
    std::string order;
    TestCall first([&] { order += '1'; }), second([&] { order += '2'; }),
        third([&] { order += '3'; });
    for (TestCall *call : {&first, &second, &first, &third, &second})
        registerDelayedCall(call);
    EXPECT_EQ(iosched(-1), 0);  // a pass that ran delayed calls does not wait
    EXPECT_EQ(order, "123");
    EXPECT_EQ(runDelayedCallQueue(), 0);
}

TEST_F(Delayed, TakenOutDoesNotRun) {
    TestCall call, silent;
    silent.func = nullptr;
    EXPECT_EQ(unRegisterDelayedCall(&call), 0);
    registerDelayedCall(&call);
    EXPECT_EQ(unRegisterDelayedCall(&call), 1);
    EXPECT_EQ(unRegisterDelayedCall(&call), 0);
    EXPECT_EQ(runDelayedCallQueue(), 0);
    registerDelayedCall(&silent);
    EXPECT_EQ(runDelayedCallQueue(), 1);  // dropped, and counted as a run
    EXPECT_EQ(runDelayedCallQueue(), 0);
    EXPECT_EQ(call.calls, 0);
}

TEST_F(Delayed, MayQueueOrFreeItsRecord) {
    TestCall call;
    call.onCall = [&] { registerDelayedCall(&call); };
    auto *freed = new DelayedCall{};
    freed->func = [](DelayedCall *record) { delete record; };
    registerDelayedCall(freed);
    registerDelayedCall(&call);
    for (int pass = 1; pass <= 3; ++pass) {
        EXPECT_EQ(iosched(-1), 0);
        EXPECT_EQ(call.calls, pass);
    }
}

// The batch of a run in progress counts as waiting, in passes nested inside it too.
TEST_F(Delayed, ARecordOfARunningBatchIsWaiting) {
    std::string order;
    TestCall waiting([&] { order += 'w'; }), queued([&] { order += 'q'; });
    TestCall inner([&] {
        order += 'i';
        registerDelayedCall(&waiting);
        EXPECT_EQ(unRegisterDelayedCall(&waiting), 0);
    });
    TestCall outer([&] {
        order += 'o';
        registerDelayedCall(&waiting);
        EXPECT_EQ(unRegisterDelayedCall(&waiting), 0);
        registerDelayedCall(&inner);
        registerDelayedCall(&queued);
        EXPECT_EQ(iosched(-1), 0);
        registerDelayedCall(&queued);  // its batch is over: this queues it anew
        order += '.';
    });
    registerDelayedCall(&outer);
    registerDelayedCall(&waiting);
    EXPECT_EQ(iosched(-1), 0);
    EXPECT_EQ(order, "oiq.w");
    EXPECT_EQ(iosched(-1), 0);
    EXPECT_EQ(order, "oiq.wq");
}

}  // namespace
