// The n-th failure: each scenario runs again and again in a fresh process, and each time the next
// of the calls that the library makes in it fails, once or from then on, until none is left. The
// function then has to fail as documented, with the errno of that call and nothing left over, or to
// do without; and the same call has to work afterwards, with the books as after a run without
// faults.

#include "faults/faults.h"

#include "iosched/aio.h"
#include "iosched/procs.h"
#include "iosched/sched.h"
#include "iosched/shared.h"
#include "iosched/util.h"
#include "sched/ready_internal.h"
#include "shared/pid_internal.h"
#include "support/in_child.h"
#include "support/scratch_dir.h"

#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <link.h>
#include <map>
#include <set>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace {

enum Outcome { kWorked, kFailed, kOdd };

struct Exceptions {
    bool othersErrno = false;  // the function's errno is not that of the call that failed
    bool inChildren = false;   // what fails are calls of the processes that the scenario forks
    bool onlyOnce = false;     // a lasting failure is beyond repair
    const char *spared = "";   // calls that are left alone
    const char *retried = "";  // calls that are tried again, so that their last errno is told
    int error = 0;             // what the failing call reports instead of its usual error
    int leaves = 0;            // descriptors that a failed function keeps for the next attempt
    long hooks = 0;            // blocks that each call keeps: starts register their hooks once more
    bool blocks = false;       // a signal that could not be caught stays in the mask
};

struct Scenario {
    const char *name;
    std::function<void()> prepare;
    std::function<Outcome()> call;
    std::function<void()> undo;   // after kWorked
    const char *mayBeBorne = "";  // calls whose failure need not make the function fail
    Exceptions but = {};
};

// ---- what scenarios work on: one process runs one scenario ----

std::string scratch;  // a path in a directory of the test's own
int fd = -1, ends[2] = {-1, -1};
long number;
pid_t pid;
FILE *stream;
void *chunk, *copy;
SharedArena *arena;
SharedFileLockTable *table;
SharedMutex mutex;
AIORequest request;
const SharedFileKey kKey{1, 2};
uint32_t word;

Outcome resultOf(int64_t result, int64_t failure = SCHED_ERR_SYSTEM) {
    return result == failure ? kFailed : failure > 0 && result != 0 ? kOdd : kWorked;
}
void nothing() {}
void start() {
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, nullptr, 0) != 0) std::abort();
}
void stop() {
    (void)ExitSched();
}
void onSignal(int) {}
void onFork(void *, int, int) {}
void onChild(void *, const ChildStatus *) {}
void onReady(void *, int) {}
int onTransfer(AIORequest *) {
    return 0;
}

void reap() {
    while (::waitpid(-1, nullptr, 0) > 0) {
    }
}

uint32_t openArena(int flags) {
    return OpenSharedArena(scratch.c_str(), flags, 0600, 8192, &arena);
}
void closeArena() {
    (void)CloseSharedArena(arena);
    arena = nullptr;
}
void makeArena() {
    (void)::unlink(scratch.c_str());
    if (openArena(SHARED_ARENA_CREATE) != 0) std::abort();
}
void makeArenaFile() {
    makeArena();
    closeArena();
}
// A file that nobody has initialised, and that another process holds for a moment.
void makeBareFile() {
    (void)::unlink(scratch.c_str());
    fd = ::open(scratch.c_str(), O_RDWR | O_CREAT, 0600);
    if (::flock(fd, LOCK_SH) != 0) std::abort();
    if (::fork() == 0) ::_exit(::poll(nullptr, 0, 3));
    ::close(fd);
}
void makeTable() {
    makeArena();
    if (AllocateSharedFileLockTable(arena, "t", 2, 2, 0, &table) != 0) std::abort();
}
void openFile() {
    makeTable();
    if (OpenSharedFile(table, 1, 1, &kKey, SHARED_FILE_READ, 0, "f", &word) != 0) std::abort();
}
Outcome allocate(const char *name, uint64_t size) {
    uint32_t created = 0;
    const Outcome result = resultOf(AllocateSharedChunk(arena, name, &size, &chunk, &created));
    number = created;
    return result;
}
void unlock() {
    if (number != 0) (void)ReleaseSharedMutex(static_cast<SharedMutex *>(arena->base));
}
void freeChunk() {
    unlock();
    (void)FreeSharedChunk(arena, chunk);
}
void makeChunk() {
    if (arena == nullptr) makeArena();
    if (allocate("c", 8) != kWorked) std::abort();
    unlock();
}
void startWithPipe() {
    start();
    if (::pipe(ends) != 0 || ::write(ends[1], "01234567", 8) != 8) std::abort();
    (void)registerInput(ends[0], onReady, nullptr);
    request = {ends[0], &word, 1, onTransfer, nullptr, -1, 0};
}
void limitTo(rlim_t now, rlim_t most) {
    const rlimit limit{now, most};
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
}
// With the descriptors in an epoll set, which is compared with poll in each pass.
void startParked() {
    parkingPolicy = Parking::kAlways;
    auditShare = 0;
    startWithPipe();
}
void drain() {
    (void)registerInput(ends[0], nullptr, nullptr);
}
// Many descriptors, and a limit below their number: poll takes them in pieces.
void startInPieces() {
    start();
    if (::pipe(ends) != 0) std::abort();
    for (int i = 0; i < 20; ++i)
        (void)registerInput(::dup(ends[0]), onReady, nullptr);
    limitTo(8, 64);
}
// Until the commands of earlier streams have been collected too.
void closeStream() {
    (void)ZORpclose(stream);
    siginfo_t ignored;
    while (::waitid(P_ALL, 0, &ignored, WEXITED | WNOHANG | WNOWAIT) == 0)
        (void)iosched(1);
}
// Every record gets its call, with memory or without. 0, or how many did not.
int queueMany() {
    static DelayedCall calls[300];
    number = std::size(calls);
    for (DelayedCall &call : calls) {
        call.func = [](DelayedCall *) { --number; };
        registerDelayedCall(&call);
    }
    (void)runDelayedCallQueue();
    return static_cast<int>(number);
}
void registerEight() {
    start();
    for (int child = 11; child < 19; ++child)
        (void)registerChild(child, onChild, nullptr);
}
void openEight() {
    start();
    for (int i = 0; i < 8; ++i)
        (void)ZORpopen("true", "r");
}
// Tables have room for eight to begin with.
void startWithEight() {
    static AIORequest others[8];
    startWithPipe();
    for (AIORequest &other : others) {
        other = request;
        other.fd = ::dup(ends[0]);
        if (AIORead(&other) != 0) std::abort();
    }
}
// The outcome of the one transfer that a pass has made, or failed to make.
Outcome transfer(int started) {
    request.transferred = -1;
    if (started == -1 || iosched(0) == -1) return kFailed;
    errno = request.error;
    return request.transferred == 1 ? kWorked : request.transferred == 0 ? kFailed : kOdd;
}
void cancel() {
    AIOCancelRead(&request), AIOCancelWrite(&request);
}
int statusOf(pid_t child) {
    int status = 0;
    return ::waitpid(child, &status, 0) == child ? status : -1;
}
void startAndRaiseLimit() {
    limitTo(64, 256);
    start();
    limitTo(80, 256);
}
// Without memory that is wiped at every fork the kernel has to be asked.
void expectOwnPidInChildren() {
    const auto isRight = [] { return ownPid() == static_cast<uint32_t>(::syscall(SYS_getpid)); };
    EXPECT_TRUE(isRight());
    EXPECT_CHILD_OK([&] { EXPECT_TRUE(isRight()); });
    const long unheardOf = ::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0);
    if (unheardOf == 0) ::_exit(isRight() ? 0 : 1);
    EXPECT_EQ(waitForChild(static_cast<pid_t>(unheardOf)), 0);
}
// What becomes of a child that runs one or two passes, a program that has everything changed before
// it starts, one without descriptors, a daemon, and one on a terminal of its own.
int passesInChild() {
    if ((pid = ioFork()) == 0) ::_exit(iosched(0) == -1 && iosched(0) == -1 ? 1 : 0);
    return pid == -1 ? -1 : statusOf(pid);
}
int changedProgram() {
    static char setting[] = "A=1";
    static char *const environment[] = {setting, nullptr};
    static const uint32_t group = 0;
    const SpawnOptions options{0x77f & ~SPAWN_ARGV,
                               SPAWN_EXT_SETPGRP,
                               1,
                               1,
                               1,
                               "/",
                               0,
                               0,
                               nullptr,
                               environment,
                               1,
                               &group};
    return statusOf(spawnProcess(&options, "true"));
}
int bareProgram() {
    SpawnOptions options{};
    options.flags = SPAWN_EXTFLAGS;
    options.extFlags = SPAWN_EXT_SETSID | SPAWN_EXT_DEVNULL;
    return statusOf(spawnProcess(&options, "true"));
}
int daemonInChild() {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) ::_exit(daemonify() == -1 ? 1 : 0);
    return statusOf(child);
}
int terminalInChild() {
    char name[20];
    const int master = allocPty(name);
    const pid_t child = ::fork();
    if (child == 0) ::_exit(disassociate() == -1 || setupSlave(name, 80, 25) == -1 ? 1 : 0);
    const int status = statusOf(child);
    ::close(master);
    return status;
}
int mapFile() {
    uint64_t length = 0;
    int64_t offset = 0;
    chunk = nullptr;
    const uint32_t flags = MEMMAP_READ | MEMMAP_PRIVATE | MEMMAP_DONTNEED;
    const int result = MemMap(&length, flags, fd, &offset, &chunk, &copy);
    number = static_cast<long>(length);
    return result;
}
// A failure before the file is an arena gives its room on the disk back, if only that works.
Outcome makeNewArena() {
    const Outcome outcome = resultOf(openArena(SHARED_ARENA_CREATE));
    const int error = errno;
    const std::string file = readFile(scratch);
    errno = error;
    const bool keepsRoom = file.size() > 4096 && file[0x30] == 0;
    return keepsRoom && !fault->forever ? kOdd : outcome;
}
Outcome copyChunk() {
    int64_t delta = 7;
    copy = &copy;
    const Outcome outcome = resultOf(CopySharedChunk(arena, chunk, &mutex, &copy, &delta));
    return outcome == kFailed && (copy != nullptr || delta != 0) ? kOdd : outcome;
}
int testRange() {
    int64_t length = 9;
    return TestSharedFileRange(table, 1, 1, &kKey, 0, &length, 1);
}
constexpr int kExit1 = 1 << 8, kExit127 = 127 << 8;
// A start that fails keeps the self-pipe, signalfd and epoll set for the next one, and one without
// the last two polls.
constexpr int kSelfPipe = 4;
constexpr char kTablesAndSets[] = "calloc reallocarray mmap madvise fcntl signalfd epoll_create1";
constexpr char kAsking[] = "sigpending poll ppoll epoll_create1 epoll_ctl signalfd";
FSInfo figures;
char ptyName[20];

#define DO(...) [] { __VA_ARGS__; }
#define RUN(...) [] { return resultOf(__VA_ARGS__); }
#define OPEN(flags) RUN(openArena(flags))

// A row for each scenario.
// clang-format off
const std::vector<Scenario> kScenarios = {
    // sched
    {"InitSched", nothing, RUN(InitSched(7, 1, nullptr, 0)), stop, kTablesAndSets, {.leaves = kSelfPipe, .hooks = 2}},
    {"InitSched without standard descriptors", DO(::close(0), ::close(1), ::close(2)),
     RUN(InitSched(7, 1, nullptr, 0)), stop, kTablesAndSets, {.leaves = kSelfPipe, .hooks = 2}},
    {"InitSched with many descriptors", DO(limitTo(40000, 40000)), RUN(InitSched(7, 1, nullptr, 0)),
     stop, kTablesAndSets, {.leaves = kSelfPipe, .hooks = 2}},
    {"ResizeSchedTable", startAndRaiseLimit, RUN(ResizeSchedTable()), nothing, "reallocarray"},
    {"catchSignal", start, RUN(catchSignal(SIGUSR1, onSignal) == SIG_ERR ? -1 : 0, -1),
     DO((void)catchSignal(SIGUSR1, SIG_DFL)), "signalfd", {.blocks = true}},
    {"iosched", startWithPipe, RUN(iosched(0), -1), nothing},
    {"iosched, a signal waiting", startWithPipe, RUN((::raise(SIGCHLD), iosched(0)), -1), nothing, "read write"},
    // A set that cannot be asked passes for somebody else's descriptor and is not closed.
    {"iosched, parked", startParked, RUN(iosched(0), -1), nothing, kAsking, {.spared = "epoll_wait"}},
    {"registerInput, parked", DO(startParked(), iosched(0)),
     RUN(registerInput(ends[0], nullptr, nullptr), -1),
     DO((void)registerInput(ends[0], onReady, nullptr), iosched(0)), kAsking},
    // A pipe that this very process has both ends of can only be full or empty.
    {"msleep, parked", startParked, RUN((drain(), msleep(2)), -1), nothing, kAsking,
     {.onlyOnce = true, .spared = "read write epoll_wait"}},
    {"msleep, in pieces", startInPieces, RUN(msleep(2), -1), nothing, kAsking,
     {.onlyOnce = true, .spared = "read write"}},
    {"iopeek", startWithPipe, RUN(iopeek() - 1), nothing, "sigpending poll ppoll"},
    {"iopeek, parked", startParked, RUN(iopeek() - 1), nothing, kAsking, {.spared = "epoll_wait"}},
    {"registerDelayedCall, many", start, RUN(queueMany()), nothing, "reallocarray"},
    {"ioYield", nothing, RUN(ioYield(), -1), nothing},
    // procs
    {"registerChild", start, RUN(registerChild(1, onChild, nullptr), -1),
     DO((void)registerChild(1, nullptr, nullptr))},
    {"registerChild, the ninth", registerEight, RUN(registerChild(1, onChild, nullptr), -1),
     DO((void)registerChild(1, nullptr, nullptr))},
    {"registerFork", start, RUN(registerFork(onFork, nullptr), -1),
     DO((void)unRegisterFork(onFork, nullptr))},
    {"ioFork", start, [] { if ((pid = ioFork()) == 0) ::_exit(0); return resultOf(pid, -1); },
     reap},
    {"ioFork, its child", start, RUN(passesInChild(), kExit1), nothing, "pipe2 poll ppoll signalfd mmap madvise epoll_create1",
     {.inChildren = true, .spared = "epoll_wait"}},
    {"spawnProcess", start, RUN(spawnProcess(nullptr, "true"), -1), reap},
    {"spawnProcess, its child", start, RUN(changedProgram(), kExit127), nothing,
     "sigaction dup2 putenv", {.inChildren = true}},
    {"spawnProcess, its child without descriptors", start, RUN(bareProgram(), kExit127), nothing,
     "sigaction open dup2", {.inChildren = true}},
    {"ZORsystem", start, RUN(ZORsystem("true"), -1), nothing, "sigaction signalfd poll ppoll",
     {.spared = "read write"}},
    // The descriptor is new and the process's own: it can be marked.
    {"ZORpopen", start, RUN((stream = ZORpopen("true", "r")) == nullptr ? -1 : 0, -1),
     closeStream, "", {.spared = "fcntl"}},
    {"ZORpopen, the ninth", openEight, RUN((stream = ZORpopen("true", "r")) == nullptr ? -1 : 0, -1),
     closeStream, "", {.spared = "fcntl"}},
    {"ZORpopen, writing", start, RUN((stream = ZORpopen("cat", "w")) == nullptr ? -1 : 0, -1),
     closeStream, "", {.spared = "fcntl"}},
    // What the exit handlers of the parent do is not the library's.
    {"daemonify", nothing, RUN(daemonInChild(), kExit1), nothing, "setsid",
     {.inChildren = true, .spared = "pthread_mutex_destroy"}},
    {"disassociate, setupSlave", nothing, RUN(terminalInChild(), kExit1), nothing, "",
     {.inChildren = true}},
    {"allocPty", nothing, RUN(fd = allocPty(ptyName), -1), DO(::close(fd)), "",
     {.othersErrno = true}},
    // aio
    {"AIOPipe", nothing, RUN(AIOPipe(&ends[0], &ends[1], 3), -1),
     DO(::close(ends[0]), ::close(ends[1])), "fcntl"},
    {"AIORead", startWithPipe, RUN(AIORead(&request), -1), cancel},
    {"AIORead, the ninth", startWithEight, RUN(AIORead(&request), -1), cancel},
    {"AIOWrite", startWithPipe, RUN(AIOWrite(&request), -1), cancel},
    {"AIORead, its transfer", startWithPipe, [] { return cancel(), transfer(AIORead(&request)); },
     cancel},
    {"AIORead, its transfer interrupted", startWithPipe,
     [] { return cancel(), transfer(AIORead(&request)); }, cancel, "", {.error = EINTR}},
    {"AIOWrite, its transfer", DO(startWithPipe(), request.fd = ends[1]),
     [] { return cancel(), transfer(AIOWrite(&request)); }, cancel},
    // util
    {"GetFSInfo", nothing, RUN(GetFSInfo(-1, "/", 0, &figures), -1), nothing,
     "stat setmntent getmntent calloc strdup"},
    {"GetFSInfo of a descriptor", nothing, RUN(GetFSInfo(1, nullptr, 0, &figures), -1), nothing},
    {"MemMap", DO(fd = ::open("/proc/self/exe", O_RDONLY)), RUN(mapFile(), -1),
     DO((void)MemUnmap(chunk, static_cast<uint64_t>(number)))},
    {"SetBlockingMode", nothing, RUN(SetBlockingMode(1, 1), -1), nothing},
    {"maxGroups", nothing, RUN(maxGroups(), -1), nothing},
    // arenas
    {"OpenSharedArena, new", DO((void)::unlink(scratch.c_str())), makeNewArena, closeArena, "munmap"},
    {"OpenSharedArena, in use and not ready", makeBareFile, OPEN(SHARED_ARENA_CREATE), closeArena,
     "munmap flock", {.retried = "flock"}},
    {"OpenSharedArena, new alone", nothing, RUN(((void)::unlink(scratch.c_str()),
     openArena(SHARED_ARENA_CREATE | SHARED_ARENA_EXCLUSIVE))), closeArena, "munmap",
     {.spared = "unlink"}},
    {"OpenSharedArena, attaching", makeArenaFile, OPEN(0), closeArena},
    {"OpenSharedArena, interrupted", makeArenaFile, OPEN(0), closeArena, "", {.error = EINTR}},
    {"CloseSharedArena", makeArena, [] { return closeArena(), kWorked; }, makeArena, "munmap"},
    {"DeleteSharedArena", makeArenaFile, RUN(DeleteSharedArena(scratch.c_str())), makeArenaFile},
    {"ForkSharedArena", makeArena, RUN(ForkSharedArena(arena)), nothing},
    {"ForkSharedArena without room", makeArena, RUN(ForkSharedArena(arena)), nothing, "open",
     {.retried = "open", .error = EMFILE}},
    // process ids, chunks, mutexes and tables
    {"preparePid", nothing, [] { return preparePid(), kWorked; }, expectOwnPidInChildren,
     "mmap madvise pthread_atfork"},
    {"AllocateSharedChunk", makeArena, [] { return allocate("c", 8); }, freeChunk},
    {"AllocateSharedChunk, there already", makeChunk, [] { return allocate("c", 8); }, freeChunk,
     "pthread_mutex_unlock"},
    {"FreeSharedChunk", makeChunk, RUN(FreeSharedChunk(arena, chunk)), makeChunk,
     "pthread_mutex_unlock"},
    {"CopySharedChunk", DO(makeChunk(), InitializeSharedMutex(&mutex)), copyChunk,
     DO(std::free(copy)), "pthread_mutex_unlock"},
    {"InitializeSharedMutex", nothing, RUN(InitializeSharedMutex(&mutex)), nothing},
    {"AquireSharedMutex", DO(InitializeSharedMutex(&mutex)), RUN(AquireSharedMutex(&mutex)),
     DO((void)ReleaseSharedMutex(&mutex))},
    {"DestroySharedMutex", DO(InitializeSharedMutex(&mutex)), RUN(DestroySharedMutex(&mutex)),
     DO(InitializeSharedMutex(&mutex))},
    // A mutex that cannot be taken again keeps the half-made chunk.
    {"AllocateSharedFileLockTable", makeArena,
     RUN(AllocateSharedFileLockTable(arena, "t", 2, 2, 0, &table)),
     DO((void)FreeSharedFileLockTable(table)), "mmap madvise pthread_atfork pthread_mutex_unlock",
     {.onlyOnce = true}},
    {"OpenSharedFile", makeTable, RUN(OpenSharedFile(table, 1, 1, &kKey, 1, 0, "f", &word)),
     DO((void)CloseSharedFile(table, 1, 1, &kKey))},
    // Closed is closed, even if the mutex cannot be given back.
    {"CloseSharedFile", openFile, RUN(CloseSharedFile(table, 1, 1, &kKey)),
     DO((void)OpenSharedFile(table, 1, 1, &kKey, 1, 0, "f", &word)), "",
     {.spared = "pthread_mutex_unlock"}},
    {"SharedFileIsOpen", makeTable, RUN(SharedFileIsOpen(table, &kKey), 1), nothing,
     "pthread_mutex_unlock"},
    {"SharedFileInfo", openFile, RUN(SharedFileInfo(table, &kKey, &word, &word, nullptr, 0)),
     nothing},
    {"LockSharedFileRange", openFile, RUN(LockSharedFileRange(table, 1, 1, &kKey, 0, 9, 1)),
     DO((void)UnlockSharedFileRange(table, 1, 1, &kKey, 0, 9))},
    {"TestSharedFileRange", openFile, RUN(testRange()), nothing},
    {"GetOplockHolders", openFile, RUN(GetOplockHolders(table, &kKey, nullptr, 0, &word)), nothing},
    {"SetSharedFileMode", openFile, RUN(SetSharedFileMode(table, 1, 1, &kKey, 1)), nothing},
    {"CleanSharedFileLockTable", openFile, RUN(CleanSharedFileLockTable(table, 1)), nothing},
};
// clang-format on

// ---- running them ----

// What a process has; a fault must not add to it.
struct Books {
    long descriptors, children, blocks, mappings;
    sigset_t mask;
};
Books *reference;  // after a run without faults, for the runs with faults to compare with

Books books() {
    Books now{0, 0, liveBlocks, liveMappings, {}};
    (void)::pthread_sigmask(SIG_SETMASK, nullptr, &now.mask);
    for (int i = 0; i < 256; ++i)
        now.descriptors += ::fcntl(i, F_GETFD) != -1;
    siginfo_t info{};
    now.children = ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
    return now;
}

bool lists(const std::string &names, const std::string &name) {
    return !name.empty() && (' ' + names + ' ').find(' ' + name + ' ') != std::string::npos;
}

Outcome callArmed(const Scenario &scenario, long countdown, bool forever) {
    fault->countdown = countdown;
    fault->forever = forever;
    fault->inChildren = scenario.but.inChildren;
    fault->instead = scenario.but.error;
    std::strncpy(fault->spared, scenario.but.spared, sizeof fault->spared - 1);
    fault->owner = ::getpid();
    fault->name[0] = '\0';
    fault->repeats = 0;
    errno = 0;
    fault->armed = true;
    const Outcome outcome = scenario.call();
    fault->armed = false;
    return outcome;
}

constexpr long kNever = 1000000;  // calls before the first failure

// In a process of its own. The exit status is what inChild makes of the expectations.
void runWithFault(const Scenario &scenario, long countdown, bool forever) {
    scenario.prepare();
    const Books before = books();
    const Outcome outcome = callArmed(scenario, countdown, forever);
    const int error = errno;
    const bool failed = fault->name[0] != '\0';
    const bool mayWork = !failed || lists(scenario.mayBeBorne, fault->name);
    if (outcome == kWorked) {
        EXPECT_TRUE(mayWork) << "the failure went unnoticed";
        scenario.undo();
    } else {
        EXPECT_EQ(outcome, kFailed);
        EXPECT_TRUE(failed) << "errno " << error << " without any fault";
        if (!scenario.but.othersErrno && !scenario.but.inChildren) {
            const bool isRetried = lists(scenario.but.retried, fault->name);
            EXPECT_EQ(error, isRetried ? fault->lastError : fault->error);
        }
        const Books now = books();
        EXPECT_LE(now.descriptors, before.descriptors + scenario.but.leaves);
        EXPECT_EQ(now.children, before.children);
        EXPECT_TRUE(std::memcmp(&now.mask, &before.mask, sizeof now.mask) == 0 ||
                    scenario.but.leaves != 0 || scenario.but.blocks);
    }
    // A wait that poll refuses goes on; nothing else is tried time and again.
    EXPECT_TRUE(fault->repeats < kMostRepeats || lists("poll ppoll", fault->name) ||
                scenario.but.inChildren);
    EXPECT_EQ(scenario.call(), kWorked) << "afterwards; errno " << errno;
    scenario.undo();
    const Books after = books();
    for (int round = 1; !failed && round <= 3; ++round) {  // without faults nothing grows
        EXPECT_EQ(scenario.call(), kWorked);
        scenario.undo();
        EXPECT_EQ(books().blocks, after.blocks + round * scenario.but.hooks) << "leaked";
        EXPECT_EQ(books().descriptors, after.descriptors) << "leaked";
    }
    if (!failed) *reference = after;
    EXPECT_LE(after.descriptors, reference->descriptors);
    EXPECT_EQ(after.children, reference->children);
    if (lists("munmap", fault->name)) return;  // what cannot be unmapped stays
    EXPECT_LE(after.blocks, reference->blocks + scenario.but.hooks);
    EXPECT_LE(after.mappings, reference->mappings);
}

// What the library calls and calls.h leaves out: what has no failure; what fails only for arguments
// that are never passed, or with a result that is no failure here; the end of a process or its
// becoming a program; quotas, which no kernel here has.
constexpr char kNeverFailing[] =
    "__errno_location __stack_chk_fail bcmp close clock_gettime endmntent fclose fileno "
    "get_nprocs_conf "
    "getdtablesize getegid geteuid getpagesize getpid getppid getrlimit memchr memcmp memcpy "
    "memmove "
    "memset sigaddset sigdelset sigemptyset sigfillset sigismember sigisemptyset snprintf strchr "
    "strerror strlen strpbrk strcmp syslog fprintf "
    "kill nanosleep pthread_sigmask raise setitimer wait3 waitid "
    "abort _exit exit execl execlp execv execvp "
    "quotactl";

// The places in the library's code from which a call goes out that may fail, by the disassembly of
// this program: the address behind the call, and where it is. Jumps to such a call have no place.
[[maybe_unused]] std::map<size_t, std::string> callSites(std::set<std::string> *unwrapped) {
    std::set<std::string> exported;
    std::ifstream list(EXPORTS_LIST);
    for (std::string name; list >> name;)
        exported.insert(name);
    std::map<size_t, std::string> sites;
    std::string function, called;
    std::ifstream listing(DISASSEMBLY);
    for (std::string line; std::getline(listing, line);) {
        const std::string name =
            line.substr(line.find('<') + 1, line.find('>') - line.find('<') - 1);
        if (line.find(">:") != line.npos) {
            const std::string plain = name.substr(0, name.find('.'));
            const bool ours =
                plain.find("11iosched_lib") != plain.npos || exported.count(plain) != 0;
            function = ours ? plain : "";
        }
        if (!called.empty()) sites[std::strtoul(line.c_str(), nullptr, 16)] = called;
        const bool toLibc = !function.empty() && line.find(" <") != line.npos;
        if (toLibc && name.ends_with("@plt")) unwrapped->insert(name.substr(0, name.find('@')));
        const bool calls = line.find("\tcall") != line.npos && name.starts_with("__wrap_");
        called = calls && !function.empty() && name != "__wrap_free"
                     ? name.substr(7) + " in " + function
                     : "";
    }
    return sites;
}

[[maybe_unused]] bool canRaiseDescriptors() {
    return inChild([] {
               const rlimit many{40000, 40000};
               ::_exit(::setrlimit(RLIMIT_NOFILE, &many) == 0 ? 0 : 2);
           }) == 0;
}

[[maybe_unused]] int loadAddress(dl_phdr_info *info, size_t, void *address) {
    *static_cast<size_t *>(address) = info->dlpi_addr;
    return 1;  // the program itself comes first
}

[[maybe_unused]] void expectEverySiteReached() {
    size_t base = 0;
    (void)::dl_iterate_phdr(loadAddress, &base);
    std::set<size_t> reached;
    for (size_t i = 0; i < fault->siteCount; ++i)
        reached.insert(reinterpret_cast<size_t>(fault->sites[i]) - base);
    std::set<std::string> unwrapped;
    const auto sites = callSites(&unwrapped);
    for (const std::string &call : unwrapped)
        EXPECT_TRUE(lists(kNeverFailing, call)) << call << " is not in calls.h";
    EXPECT_GT(sites.size(), 50u) << "objdump shows no calls";
    for (const auto &[address, place] : sites) {
        // Where the system allows no more descriptors than the loop takes, there is nothing to
        // lower.
        if (place.starts_with("setrlimit") && !canRaiseDescriptors()) continue;
        EXPECT_TRUE(reached.count(address) != 0) << "no scenario reaches " << place;
    }
    std::printf("%zu call sites\n", sites.size());
}

TEST(EveryCall, MayFailOnceOrForEverWithoutHarm) {
    while ((fd = ::open("/dev/null", O_RDWR)) <
           STDERR_FILENO) {  // started with some of them closed
    }
    void *memory = ::mmap(nullptr, sizeof(Fault) + sizeof(Books), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    fault = static_cast<Fault *>(memory);
    reference = reinterpret_cast<Books *>(fault + 1);
    fault->driver = ::getpid();
    const ScratchDir dir;
    scratch = dir / "arena";
    long points = 0;
    std::string complaints;  // collected: a failure here would count as one of every later child
    const auto run = [&complaints](const Scenario &scenario, long countdown, bool forever) {
        fault->name[0] = '\0';
        const int status = inChild([&] { runWithFault(scenario, countdown, forever); }, 20000);
        if (status != 0)
            complaints += std::string(scenario.name) + ": call " + std::to_string(countdown + 1) +
                          ", " + fault->name + (forever ? ", for ever\n" : ", once\n");
        return fault->name[0] != '\0';
    };
    for (const Scenario &scenario : kScenarios) {
        (void)run(scenario, kNever, false);
        for (const bool forever : {false, true}) {
            if (forever && scenario.but.onlyOnce) continue;
            for (long countdown = 0; run(scenario, countdown, forever); ++countdown)
                ++points;
        }
    }
    EXPECT_EQ(complaints, "");
    std::printf("%zu scenarios, %ld points\n", kScenarios.size(), points);
#if defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_ADDRESS__)
    expectEverySiteReached();  // other builds copy code to places that no scenario has in mind
#endif
}

}  // namespace
