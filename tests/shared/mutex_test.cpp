#include "iosched/shared.h"

#include "shared/call_wrap.h"
#include "shared/shared_internal.h"
#include "support/in_child.h"
#include "support/loop.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <linux/filter.h>
#include <linux/futex.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>

namespace {

constexpr uint32_t kSystemError = SCHED_ERR_SYSTEM;

// A mutex and a number in memory that children share.
struct Shared {
    SharedMutex mutex;
    uint64_t number;
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

    pid_t startWaiter() const {
        const pid_t waiter = ::fork();
        if (waiter != 0) {
            while (!sleepsAtAFutex(waiter))
                (void)::poll(nullptr, 0, 1);
            return waiter;
        }
        const sched_param none{};
        (void)::sched_setscheduler(0, SCHED_BATCH, &none);
        const uint32_t acquired = AquireSharedMutex(mutex);
        (void)ReleaseSharedMutex(mutex);
        ::_exit(acquired == 0 ? 0 : 1);
    }
    static bool sleepsAtAFutex(pid_t pid) {
        char call[5] = {};
        const std::string path = "/proc/" + std::to_string(pid) + "/syscall";
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        (void)::read(fd, call, 4);
        ::close(fd);
        return std::string(call) == std::to_string(SYS_futex) + " ";
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

TEST_F(Mutex, ChildrenOfIoForkRecordThemselvesAndThoseOfForkTheirParent) {
    startLibrary();
    const auto parent = static_cast<uint32_t>(::getpid());
    const auto heldBy = [this](uint32_t pid) {
        const bool good = AquireSharedMutex(mutex) == 0 && mutex->holder == pid;
        return ReleaseSharedMutex(mutex) == 0 && good;
    };
    const pid_t child = ioFork();
    if (child == 0) ::_exit(heldBy(static_cast<uint32_t>(::getpid())) ? 0 : 1);
    EXPECT_EQ(waitForChild(child), 0);
    EXPECT_TRUE(heldBy(parent));
    EXPECT_CHILD_OK([&] { EXPECT_TRUE(heldBy(parent)); });
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

TEST_F(Mutex, MisuseGetsTheThreadsErrorAndOnlyAReleaseTouchesTheHolder) {
    mutex->holder = 77;
    EXPECT_EQ(InitializeSharedMutex(mutex), 0u);
    EXPECT_EQ(errno, 0);

    pthread_mutexattr_t misuseIsReported;
    pthread_mutexattr_init(&misuseIsReported);
    pthread_mutexattr_settype(&misuseIsReported, PTHREAD_MUTEX_ERRORCHECK);
    ASSERT_EQ(pthread_mutex_init(&mutex->mutex, &misuseIsReported), 0);
    ASSERT_EQ(pthread_mutex_lock(&mutex->mutex), 0);
    EXPECT_EQ(AquireSharedMutex(mutex), kSystemError);
    EXPECT_EQ(errno, EDEADLK);
    EXPECT_EQ(DestroySharedMutex(mutex), kSystemError);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(mutex->holder, 77u);
    EXPECT_EQ(ReleaseSharedMutex(mutex), 0u);
    mutex->holder = 77;
    EXPECT_EQ(ReleaseSharedMutex(mutex), kSystemError);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(mutex->holder, 0u);
    EXPECT_EQ(DestroySharedMutex(mutex), 0u);
}

// Every kind, with scribble in all the rest: plain ones are locked, others refused. A word that
// nobody writes is refused by those who look at it, and held for the others.
TEST_F(Mutex, ADamagedMutexIsRefusedOrLockedButNeverTrusted) {
    const auto scribble = [this](int word, int owner, int kind) {
        std::memset(mutex, 0xA5, sizeof *mutex);
        mutex->mutex.__data.__lock = word;
        mutex->mutex.__data.__owner = owner;
        mutex->mutex.__data.__kind = kind;
    };
    EXPECT_CHILD_OK(
        [&] {
            for (int kind = -1; kind < 0x100; ++kind)
                for (const int owner : {0, 1, -1}) {
                    const bool plain = kind >= 0 && (kind & 0x7F) <= 3;
                    scribble(0, owner, kind);
                    ASSERT_EQ(AquireSharedMutex(mutex), plain ? 0 : kSystemError) << kind;
                    ASSERT_EQ(errno, plain ? 0 : EINVAL) << kind;
                    mutex->mutex.__data.__kind = 0x90;  // robust, damaged while it is held
                    ASSERT_EQ(ReleaseSharedMutex(mutex), kSystemError);
                    ASSERT_EQ(errno, EINVAL);
                }
            for (const int word : {3, 256, INT32_MIN, -1}) {
                scribble(word, 0, 0x80);
                ASSERT_EQ(acquireIfSound(mutex), kSystemError) << word;
                ASSERT_EQ(errno, EINVAL);
            }
        },
        20000);
}

// The unlock wakes one of two waiters, which is killed before it can take the mutex: all share one
// processor, and a waiter of the batch class does not interrupt who wakes it. One that ran after
// all may die holding the mutex, which is another matter. IOSCHED_WAKE_ROUNDS for a long run.
TEST_F(Mutex, AWaiterKilledOnTheWayToTheMutexStrandsNoOther) {
    const char *wanted = std::getenv("IOSCHED_WAKE_ROUNDS");
    const int rounds = wanted != nullptr ? std::atoi(wanted) : 20;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(::sched_getcpu()), &one);
    ASSERT_EQ(::sched_setaffinity(0, sizeof one, &one), 0);
    int diedHolding = 0, stranded = 0;
    for (int round = 0; round < rounds; ++round) {
        ASSERT_EQ(InitializeSharedMutex(mutex), 0u);
        ASSERT_EQ(AquireSharedMutex(mutex), 0u);
        const pid_t first = startWaiter(), second = startWaiter();
        ASSERT_EQ(ReleaseSharedMutex(mutex), 0u);
        (void)::kill(first, SIGKILL);
        (void)waitForChild(first);
        const bool holding = mutex->mutex.__data.__owner == first;
        if (holding) (void)::kill(second, SIGKILL);
        const bool gotThere = waitForChild(second, 1000) == 0;
        diedHolding += holding;
        stranded += !holding && !gotThere;
    }
    std::printf("rounds %d, stranded %d, died holding %d\n", rounds, stranded, diedHolding);
    EXPECT_EQ(stranded, 0);
    EXPECT_LT(diedHolding, rounds);
}

// Ends this process at its next futex wake.
void dieAtTheWake() {
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_futex, 0, 4),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
        BPF_STMT(BPF_ALU | BPF_AND | BPF_K, static_cast<uint32_t>(FUTEX_CMD_MASK)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, FUTEX_WAKE, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{sizeof code / sizeof code[0], code};
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

TEST_F(Mutex, AReleaserKilledBetweenTheWordAndTheWakeStrandsNobody) {
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // the waiter outlives its parent
    const int status = inChild([this] {
        ASSERT_EQ(AquireSharedMutex(mutex), 0u);
        secondIsEnding = true;  // each slice of the waiter's ends in the next one
        shared->number = static_cast<uint64_t>(startWaiter());
        dieAtTheWake();
        (void)ReleaseSharedMutex(mutex);
    });
    EXPECT_EQ(WTERMSIG(status), SIGSYS) << "at the wake";
    EXPECT_EQ(waitForChild(static_cast<pid_t>(shared->number), 5000), 0);
}

}  // namespace
