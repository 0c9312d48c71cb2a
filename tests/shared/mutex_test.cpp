#include "iosched/shared.h"

#include "iosched/procs.h"
#include "iosched/sched.h"
#include "shared/call_wrap.h"
#include "support/in_child.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

void startLibrary() {
    char message[100];
    ASSERT_EQ(InitSched(7, 1, message, sizeof message), 0) << message;
}

// A mutex and a number in memory that children share.
struct Shared {
    SharedMutex mutex;
    uint64_t number;
    bool stop;
};

class Mutex : public ::testing::Test {
protected:
    Mutex() {
        void *memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        shared = static_cast<Shared *>(memory);
        mutex = &shared->mutex;
        EXPECT_EQ(InitializeSharedMutex(mutex), 0u);
    }
    ~Mutex() override { ::munmap(shared, sizeof(Shared)); }

    // Puts a mutex that reports misuse in place of the ordinary one.
    void makeErrorChecking() {
        pthread_mutexattr_t attribute;
        pthread_mutexattr_init(&attribute);
        pthread_mutexattr_settype(&attribute, PTHREAD_MUTEX_ERRORCHECK);
        EXPECT_EQ(pthread_mutex_init(&mutex->mutex, &attribute), 0);
    }

    Shared *shared;
    SharedMutex *mutex;
};

TEST_F(Mutex, RecordsTheHolderOnlyAfterStartUp) {
    errno = ENOTTY;
    EXPECT_EQ(AquireSharedMutex(mutex), 0u);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(mutex->holder, 0u);
    EXPECT_EQ(ReleaseSharedMutex(mutex), 0u);
    startLibrary();
    EXPECT_EQ(AquireSharedMutex(mutex), 0u);
    EXPECT_EQ(mutex->holder, static_cast<uint32_t>(::getpid()));
    errno = ENOTTY;
    EXPECT_EQ(ReleaseSharedMutex(mutex), 0u);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(mutex->holder, 0u);
}

TEST_F(Mutex, InitialisingLeavesTheHolderField) {
    mutex->holder = 77;
    errno = ENOTTY;
    EXPECT_EQ(InitializeSharedMutex(mutex), 0u);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(mutex->holder, 77u);
    EXPECT_EQ(DestroySharedMutex(mutex), 0u);
}

TEST_F(Mutex, AFailedInitialisationReportsTheCallThatFailed) {
    int destroyed = 0;
    for (const std::string_view call : {"pthread_mutexattr_init", "pthread_mutexattr_setpshared",
                                        "pthread_mutex_init", "pthread_mutexattr_destroy"}) {
        callHook = [&](std::string_view now) {
            destroyed += now == "pthread_mutexattr_destroy";
            return now == call ? ENOTSUP : 0;
        };
        EXPECT_EQ(InitializeSharedMutex(mutex), static_cast<uint32_t>(SCHED_ERR_SYSTEM)) << call;
        EXPECT_EQ(errno, ENOTSUP) << "not what the clean-up gave";
    }
    callHook = nullptr;
    EXPECT_EQ(destroyed, 3) << "each attribute that was made";
}

TEST_F(Mutex, ChildrenOfIoForkRecordThemselves) {
    startLibrary();
    const pid_t parent = ::getpid();
    const pid_t child = ioFork();
    if (child == 0) {
        (void)AquireSharedMutex(mutex);
        const bool own = mutex->holder == static_cast<uint32_t>(::getpid());
        (void)ReleaseSharedMutex(mutex);
        ::_exit(own ? 0 : 1);
    }
    EXPECT_EQ(waitForChild(child), 0);
    EXPECT_EQ(AquireSharedMutex(mutex), 0u);
    EXPECT_EQ(mutex->holder, static_cast<uint32_t>(parent));
    EXPECT_EQ(ReleaseSharedMutex(mutex), 0u);
    EXPECT_CHILD_OK([&] {  // a plain fork
        EXPECT_EQ(AquireSharedMutex(mutex), 0u);
        EXPECT_EQ(mutex->holder, static_cast<uint32_t>(parent));
        EXPECT_EQ(ReleaseSharedMutex(mutex), 0u);
    });
}

TEST_F(Mutex, KeepsProcessesApartAndNamesNobodyWhileFree) {
    startLibrary();
    constexpr uint64_t kRounds = 100000;
    const pid_t child = ioFork();
    if (child == 0) {
        for (uint64_t i = 0; i < kRounds; ++i) {
            (void)AquireSharedMutex(mutex);
            shared->number = shared->number + 1;
            (void)ReleaseSharedMutex(mutex);
        }
        ::_exit(0);
    }
    for (uint64_t i = 0; i < kRounds; ++i) {
        // Locked without recording a holder: what stands there was left by the child.
        while (pthread_mutex_trylock(&mutex->mutex) != 0) {
        }
        if (mutex->holder != 0) ADD_FAILURE() << "free, but held by " << mutex->holder;
        shared->number = shared->number + 1;
        pthread_mutex_unlock(&mutex->mutex);
    }
    EXPECT_EQ(waitForChild(child), 0);
    EXPECT_EQ(shared->number, 2 * kRounds);
}

TEST_F(Mutex, FailuresReportTheThreadsError) {
    makeErrorChecking();
    EXPECT_EQ(AquireSharedMutex(mutex), 0u);
    mutex->holder = 77;
    errno = 0;
    EXPECT_EQ(AquireSharedMutex(mutex), static_cast<uint32_t>(SCHED_ERR_SYSTEM));
    EXPECT_EQ(errno, EDEADLK);
    EXPECT_EQ(mutex->holder, 77u);
    EXPECT_EQ(DestroySharedMutex(mutex), static_cast<uint32_t>(SCHED_ERR_SYSTEM));
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(ReleaseSharedMutex(mutex), 0u);
    mutex->holder = 77;
    EXPECT_EQ(ReleaseSharedMutex(mutex), static_cast<uint32_t>(SCHED_ERR_SYSTEM));
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(mutex->holder, 0u);
}

}  // namespace
