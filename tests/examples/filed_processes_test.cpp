// Master and workers: ends in order, restarts, kills, and a mutex that dies with its holder.
#include "filed_server.h"

#include "iosched/shared.h"

#include <set>
#include <utility>

namespace {

// The server's arena and lock table, seen from outside.
class Onlooker {
public:
    explicit Onlooker(const FiledServer &server) : path_(server.arena()) {
        const FiledClient greeted(server);  // the arena is there when a worker answers
        EXPECT_EQ(OpenSharedArena(path_.c_str(), 0, 0, 0, &arena), 0u);
        EXPECT_EQ(AllocateSharedFileLockTable(arena, "filed.locks", 0, 0, 0, &table), 0);
    }
    ~Onlooker() {
        if (arena != nullptr) (void)leave();
    }
    Onlooker(const Onlooker &) = delete;
    Onlooker &operator=(const Onlooker &) = delete;

    bool leave() {
        const bool good = FreeSharedFileLockTable(table) == 0;
        return CloseSharedArena(std::exchange(arena, nullptr)) == 0 && good;
    }
    bool isOpen(const std::string &path) const {
        struct stat info;
        EXPECT_EQ(::stat(path.c_str(), &info), 0);
        const SharedFileKey key{info.st_dev, info.st_ino};
        return SharedFileIsOpen(table, &key) == 1;
    }
    SharedMutex *tableMutex() const { return static_cast<SharedMutex *>(table->header); }

    SharedArena *arena = nullptr;
    SharedFileLockTable *table = nullptr;

private:
    std::string path_;
};

std::set<pid_t> workersOf(const FiledServer &server) {
    std::set<pid_t> pids;
    for (const std::string &line : FiledClient(server).askAll("STATS").info) {
        int pid = 0;
        if (std::sscanf(line.c_str(), "worker %d ", &pid) == 1) pids.insert(pid);
    }
    return pids;
}

// Waits until a process waits for a mutex; gives up where the system does not tell.
void waitForFutex(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/syscall";
    for (std::string call;
         call != std::to_string(SYS_futex) && ::access(path.c_str(), R_OK) == 0;) {
        std::ifstream file(path);
        if (!(file >> call)) return;
    }
}

TEST(FiledProcesses, TerminatingLeavesNoRecordNoProcessAndNoLock) {
    FiledServer server({"-w", "3", "-R", "-k"});
    writeFile(server.path("f"), "content");
    Onlooker onlooker(server);
    std::set<pid_t> workers;
    while (workers.size() < 3 &&
           !HasFailure())  // the first ones serve before the last one is there
        workers = workersOf(server);
    FiledClient holder(server), runner(server), sleeper(server);
    EXPECT_TRUE(holder.ask("OPEN read,write,oplock-exclusive f").starts_with("OK"));
    EXPECT_EQ(holder.ask("LOCK 1 exclusive 0 10"), "OK");
    EXPECT_TRUE(onlooker.isOpen(server.path("f")));
    runner.send("RUN echo $$; while :; do sleep 1000; done\n");
    const pid_t program = std::stoi(runner.data());
    sleeper.send("SLEEP 9000\n");

    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_TRUE(holder.line().starts_with("ERR RESTART"));
    EXPECT_TRUE(holder.atEnd());
    EXPECT_FALSE(onlooker.isOpen(server.path("f")));
    for (const pid_t pid : workers)
        EXPECT_EQ(::kill(pid, 0), -1);
    EXPECT_TRUE(waitUntilGone(program));
    EXPECT_TRUE(onlooker.leave());
    EXPECT_EQ(DeleteSharedArena(server.arena().c_str()), 0u);  // nobody's lock is left on it
    EXPECT_EQ(server.log().find("with status"), std::string::npos);
}

TEST(FiledProcesses, AHangupReplacesEveryWorkerAndRefusesNobody) {
    FiledServer server({"-w", "3", "-g", "1"});
    std::set<pid_t> before;
    while (before.size() < 3 && !HasFailure())
        before = workersOf(server);
    FiledClient holder(server);
    EXPECT_TRUE(holder.ask("OPEN read,create,deny-read f").starts_with("OK"));
    ASSERT_EQ(::kill(server.pid(), SIGHUP), 0);
    for (bool old = true; old && !HasFailure();) {
        FiledClient client(server);
        EXPECT_TRUE(client.greeting.starts_with("OK filed ready")) << client.greeting;
        old = false;
        for (const pid_t pid : workersOf(server))
            old = old || before.count(pid) != 0;
    }
    EXPECT_TRUE(holder.line().starts_with("ERR RESTART"));  // it had its second of grace
    EXPECT_TRUE(FiledClient(server).ask("OPEN read f").starts_with("OK"));
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(server.log().find("with status"), std::string::npos);
}

TEST(FiledProcesses, AKilledWorkerIsReplacedAndItsRecordsAreRemoved) {
    FiledServer server({"-w", "2"});
    FiledClient victim(server);
    FiledClient other = clientOfAnotherWorker(server, victim.worker);
    EXPECT_TRUE(victim.ask("OPEN read,create,deny-read,oplock-batch f").starts_with("OK"));
    EXPECT_EQ(victim.ask("LOCK 1 exclusive 0 -1"), "OK");
    EXPECT_TRUE(other.ask("OPEN read f").starts_with("ERR OPLOCK"));
    ASSERT_EQ(::kill(victim.worker, SIGKILL), 0);
    EXPECT_TRUE(victim.atEnd());
    while (other.ask("STATS").find(" cleaned 1") == std::string::npos && !HasFailure()) {
    }
    EXPECT_TRUE(other.ask("OPEN read f").starts_with("OK"));
    EXPECT_NE(clientOfAnotherWorker(server, other.worker).worker, victim.worker);
    EXPECT_EQ(server.stop(), 0);
}

TEST(FiledProcesses, AWorkerThatDiesHoldingTheTablesMutexEndsTheServiceWithAReport) {
    FiledServer server({"-w", "2"});
    Onlooker onlooker(server);
    FiledClient victim(server);
    // Held by us, in the victim's name: what a death between two instructions of it would leave.
    ASSERT_EQ(AquireSharedMutex(onlooker.tableMutex()), 0u);
    onlooker.tableMutex()->holder = static_cast<uint32_t>(victim.worker);
    FiledClient waiter = clientOfAnotherWorker(server, victim.worker);
    waiter.send("OPEN read,create f\n");  // waits for the mutex and will hear no SIGTERM
    waitForFutex(waiter.worker);
    ASSERT_EQ(::kill(victim.worker, SIGKILL), 0);
    const int status = server.waitForEnd();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    EXPECT_NE(server.log().find("died holding the lock table's mutex"), std::string::npos);
    EXPECT_TRUE(waitUntilGone(waiter.worker));
}

TEST(FiledProcesses, AMutexLockedByNobodyOnRecordEndsTheServiceTooRatherThanHang) {
    FiledServer server({"-w", "1"});
    Onlooker onlooker(server);
    FiledClient victim(server);
    ASSERT_EQ(AquireSharedMutex(onlooker.tableMutex()), 0u);
    onlooker.tableMutex()->holder = 0;
    ASSERT_EQ(::kill(victim.worker, SIGKILL), 0);
    const int status = server.waitForEnd();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    EXPECT_NE(server.log().find("no holder on record"), std::string::npos);
}

TEST(FiledProcesses, ASecondServerOnTheArenaEndsAndLeavesTheFirstItsFiles) {
    FiledServer server({"-w", "1"});
    FiledClient client(server);
    while (::access(server.pidFile().c_str(), F_OK) != 0 && ::kill(server.pid(), 0) == 0) {
    }
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t second =
        startProgram({FILED_PROGRAM, "-p", "0", "-r", server.root(), "-a", server.arena(), "-P",
                      server.pidFile(), "-l", server.path("log")},
                     null);
    ::close(null);
    const int status = waitForChild(second, kDeadlineMs);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_EQ(::access(server.pidFile().c_str(), F_OK), 0);
    EXPECT_EQ(::access(server.arena().c_str(), F_OK), 0);
    EXPECT_TRUE(client.ask("OPEN read,create f").starts_with("OK"));
    EXPECT_EQ(server.stop(), 0);
}

TEST(FiledProcesses, InTheBackgroundItServesAndEndsLikeAnyOther) {
    FiledServer server({"-w", "2", "-D"});
    EXPECT_EQ(server.waitForEnd(), 0);  // the process that was started has handed over
    FiledClient client(server);
    pid_t master = 0;
    ASSERT_EQ(std::sscanf(client.greeting.c_str(), "OK filed ready, worker=%*d master=%d", &master),
              1);
    EXPECT_EQ(::getsid(master), ::getsid(client.worker));
    EXPECT_NE(::getsid(master), ::getsid(0));
    ASSERT_EQ(::kill(master, SIGTERM), 0);
    EXPECT_TRUE(waitUntilGone(master));
    EXPECT_NE(::access(server.pidFile().c_str(), F_OK), 0);
    EXPECT_NE(::access(server.arena().c_str(), F_OK), 0);
}

TEST(FiledProcesses, UnderLoadAndKillsNoTwoGrantsConflictAndNothingIsLeftOver) {
    FiledServer server({"-w", "3", "-k"});
    Onlooker onlooker(server);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t load = startProgram(
        {FILED_LOAD_PROGRAM, "-p", std::to_string(server.port()), "-t", "3", "-f", "3", "--kill"},
        null);
    ::close(null);
    EXPECT_EQ(waitForChild(load, kDeadlineMs), 0);
    EXPECT_EQ(server.stop(), 0);
    EXPECT_NE(server.log().find("was killed by signal 9"), std::string::npos);
    for (int file = 0; file < 3; file++)
        EXPECT_FALSE(onlooker.isOpen(server.path("load-" + std::to_string(file))));
}

}  // namespace
