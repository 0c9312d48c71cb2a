// An arena's creator that is killed at each of its calls in turn.
#include "faults/faults.h"

#include "support/in_child.h"
#include "support/test_arena.h"

#include <cerrno>

namespace {

using KilledCreator = TestArena;

TEST_F(KilledCreator, LeavesTheOldArenaNoneOrAWholeNewOne) {
    int oldOnes = 0, unfinished = 0, newOnes = 0;
    Fault death{};
    death.isDeadly = death.armed = true;
    for (long calls = 0;; ++calls) {
        SCOPED_TRACE(calls);
        ASSERT_EQ(open(SHARED_ARENA_CREATE), 0u);
        ASSERT_NE(allocate("old", 64), nullptr);
        close();
        const int status = inChild([&] {
            death.countdown = calls;
            death.owner = ::getpid();
            ::fault = &death;
            EXPECT_EQ(open(SHARED_ARENA_CREATE, 8192), 0u);
            ::fault = nullptr;
        });
        if (status == 0) break;
        ASSERT_EQ(WTERMSIG(status), SIGKILL);

        const uint32_t attached = open(0);
        if (attached == 0) {
            EXPECT_EQ(fault().find("link"), std::string::npos);
            const bool isOld = arena->mapLength == 4096;
            EXPECT_EQ(blocks().size(), isOld ? 2u : 1u);
            ++(isOld ? oldOnes : newOnes);
            close();
        } else {
            EXPECT_TRUE(attached == SHARED_ERR_MAGIC ||
                        (attached == kSystemError && errno == EINVAL));
            ++unfinished;
        }
        ASSERT_EQ(open(SHARED_ARENA_CREATE, 8192), 0u) << "the next creator starts from there";
        EXPECT_EQ(fault(), "");
        EXPECT_NE(allocate("new", 64), nullptr) << "with a mutex that is free";
        close();
    }
    EXPECT_EQ(oldOnes, 7) << "up to the truncation, which comes after all looks at the file";
    EXPECT_GE(unfinished, 8);
    EXPECT_GE(newOnes, 4) << "from the release of the mutex on";
}

}  // namespace
