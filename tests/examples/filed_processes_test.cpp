// Master and workers: ends in order, restarts, kills, and a mutex that dies with its holder.
#include "filed_server.h"

#include "iosched/shared.h"

#include <set>
#include <thread>
#include <utility>

namespace {

// The server's arena and the mutex of its lock table, in this process.
struct Onlooker {
    explicit Onlooker(const FiledServer &server) {
        EXPECT_EQ(OpenSharedArena(server.arena().c_str(), 0, 0, 0, &arena), 0u);
        EXPECT_EQ(AllocateSharedFileLockTable(arena, "filed.locks", 0, 0, 0, &table), 0);
        mutex = static_cast<SharedMutex *>(table->header);
    }
    ~Onlooker() {
        EXPECT_EQ(FreeSharedFileLockTable(table), 0);
        EXPECT_EQ(CloseSharedArena(arena), 0u);
    }
    Onlooker(const Onlooker &) = delete;
    Onlooker &operator=(const Onlooker &) = delete;

    SharedArena *arena = nullptr;
    SharedFileLockTable *table = nullptr;
    SharedMutex *mutex;
};

std::set<pid_t> workersOf(const FiledServer &server) {
    std::set<pid_t> pids;
    FiledClient client(server);
    client.send("STATS\n");
    for (int pid = 0; std::sscanf(client.line().c_str(), "- worker %d ", &pid) == 1;)
        pids.insert(pid);
    return pids;
}

// Leaves the table's mutex locked, as somebody does who stops or dies inside it: the process named,
// or with 0 one that had not yet left its name, or with -1 one that is no worker.
void leaveLocked(const FiledServer &server, pid_t owner) {
    EXPECT_CHILD_OK([&] {
        const Onlooker onlooker(server);
        ASSERT_EQ(AquireSharedMutex(onlooker.mutex), 0u);
        if (owner != -1) onlooker.mutex->mutex.__data.__owner = owner;
    });
}

void waitForLog(const FiledServer &server, const std::string &text) {
    for (int ms = 0; server.log().find(text) == std::string::npos && ms < kDeadlineMs; ms++)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_NE(server.log().find(text), std::string::npos) << text;
}

TEST(FiledProcesses, TerminatingLeavesNoProcessAndNoLock) {
    FiledServer server({"-w", "3", "-R", "-k"});
    const std::set<pid_t> workers = workersOf(server);
    EXPECT_EQ(workers.size(), 3u);
    Transcript talk(server);
    talk.play("1> SLEEP 9000\n2> RUN echo $$; while :; do sleep 1000; done");
    const pid_t program = std::stoi(talk['2'].data());
    EXPECT_EQ(server.stop(SIGTERM), 0);
    talk.play("1< ERR RESTART *\n1.");
    for (const pid_t pid : workers)
        EXPECT_EQ(::kill(pid, 0), -1);
    EXPECT_TRUE(waitUntilGone(program));
    EXPECT_EQ(DeleteSharedArena(server.arena().c_str()), 0u);  // nobody's lock is left on it
    EXPECT_EQ(server.log().find("with status"), std::string::npos);
}

TEST(FiledProcesses, AHangupReplacesEveryWorkerAndRefusesNobody) {
    FiledServer server({"-w", "3", "-g", "1"});
    const std::set<pid_t> before = workersOf(server);
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

// What a program says on either output, and its exit status.
struct Outcome {
    std::string said;
    int status;
};

Outcome outcomeOf(const std::vector<std::string> &words) {
    int out[2];
    EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
    const pid_t pid = startProgram(words, out[1], [] { ::dup2(STDOUT_FILENO, STDERR_FILENO); });
    ::close(out[1]);
    Outcome outcome{"", 0};
    char bytes[4096];
    for (ssize_t got; (got = ::read(out[0], bytes, sizeof bytes)) > 0;)
        outcome.said.append(bytes, static_cast<size_t>(got));
    ::close(out[0]);
    outcome.status = waitForChild(pid, kDeadlineMs);
    return outcome;
}

TEST(FiledStart, WhatCannotServeSaysWhyAndNeverThatItServes) {
    ScratchDir dir;
    writeFile(dir / "text", "not an arena");
    const struct {
        std::vector<std::string> options;
        const char *says;
    } kRows[] = {{{"-p", "70000"}, "-p 70000: give a number from 0 to 65535"},
                 {{"-w", "four"}, "-w four: give a number from 1 to 32"},
                 {{"--nonsense"}, "no such option: --nonsense"},
                 {{"-r", dir / "none"}, "cannot open the directory"},
                 {{"-u", "no-such-user"}, "there is no user no-such-user"},
                 {{"-D", "-l", dir / "none/log"}, "cannot open the log"},
                 {{"-D", "-a", dir / "none/arena"}, "cannot open the arena"},
                 {{"-a", dir / "text"}, "no arena and is left alone"},
                 {{"-P", dir / "none/pid"}, "cannot start: "},
                 {{"-R"}, "-R as root needs -u USER"}};
    giveAway(dir.path());
    giveAway(dir / "text");
    for (const auto &row : kRows) {
        if (row.options[0] == "-R" && ::geteuid() != 0) continue;
        std::vector<std::string> words = {FILED_PROGRAM, "-p", "0",          "-r",
                                          dir.path(),    "-a", dir / "arena"};
        words.insert(words.end(), row.options.begin(), row.options.end());
        const Outcome outcome = outcomeOf(words);
        EXPECT_TRUE(WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == 1) << row.says;
        EXPECT_NE(outcome.said.find(row.says), std::string::npos) << outcome.said;
        EXPECT_EQ(outcome.said.find("serving"), std::string::npos) << outcome.said;
        EXPECT_NE(::access((dir / "arena").c_str(), F_OK), 0) << row.says;
    }
    EXPECT_EQ(fileSize(dir / "text"), 12);
    EXPECT_NE(outcomeOf({FILED_LOAD_PROGRAM, "-p", "1"}).said.find("no server at 127.0.0.1:1"),
              std::string::npos);
    for (const char *program : {FILED_PROGRAM, FILED_LOAD_PROGRAM}) {
        EXPECT_EQ(outcomeOf({program, "--version"}).status, 0);
        EXPECT_TRUE(outcomeOf({program, "--help"}).said.starts_with("usage: "));
    }
}

TEST(FiledStart, RootServesAsSomebodyElse) {
    if (::geteuid() != 0) GTEST_SKIP() << "for root";
    FiledServer server({"-w", "1", "-R"});  // which adds -u nobody
    play(server, R"(
        1> RUN echo $(id -un; id -G | wc -w) => DATA 9
        1< nobody 1
        1<
        1< OK exit 0)");
}

TEST(FiledHeals, WhoeverDiesTheOthersGoOn) {
    for (const char *who : {"outside", "worker", "nobody on record", "stranger"}) {
        SCOPED_TRACE(who);
        FiledServer server({"-w", "2"});
        Transcript talk(server);
        talk.play("2! 1\n1> OPEN read,create,deny-read,oplock-batch f => OK *\n"
                  "1> LOCK 1 exclusive 0 -1 => OK\n2> OPEN read f => ERR OPLOCK *");
        const bool workerDies = *who == 'w' || *who == 'o';
        if (*who != 'o') leaveLocked(server, *who == 'w' ? talk['1'].worker : *who == 'n' ? 0 : -1);
        talk.play("2> OPEN write,create g");
        const auto before = std::chrono::steady_clock::now();
        if (workerDies) ::kill(talk['1'].worker, SIGKILL);
        talk.play("2< OK 1 write");
        EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
        talk.play(*who == 'o' ? "2? STATS => OK workers 2 *cleaned 1 repaired 0"
                              : "2? STATS => OK workers 2 *repaired 1");
        if (workerDies) talk.play("2? OPEN read f => OK *");
        EXPECT_EQ(server.stop(), 0);
    }
}

TEST(FiledHeals, AWorkerThatStandsStillInTheMutexIsNamedAndKilledIfTold) {
    for (const bool told : {false, true}) {
        FiledServer server({"-w", "2", told ? "--stop-stalled" : "-k"});
        Transcript talk(server);
        talk.play("2! 1");
        const pid_t victim = talk['1'].worker;
        leaveLocked(server, victim);
        ::kill(victim, SIGSTOP);
        talk.play("2> OPEN write,create f");
        waitForLog(server, "worker " + std::to_string(victim) +
                               " (stopped) has kept the lock table's mutex");
        if (!told) {
            talk.play("2~");
            ::kill(victim, SIGKILL);
        }
        talk.play("2< OK 1 write");
        EXPECT_EQ(server.log().find("killing worker") != std::string::npos, told);
    }
}

TEST(FiledHeals, AStrangerThatKeepsTheMutexIsNamedAndLeftAlone) {
    FiledServer server({"-w", "1", "--stop-stalled"});
    const Onlooker onlooker(server);
    Transcript talk(server);
    ASSERT_EQ(AquireSharedMutex(onlooker.mutex), 0u);
    talk.play("1> OPEN write,create f");
    waitForLog(server, "process " + std::to_string(::getpid()) + " (");
    waitForLog(server, "held by process");  // the repairer's answer
    talk.play("1~");
    (void)ReleaseSharedMutex(onlooker.mutex);
    talk.play("1< OK 1 write");
    EXPECT_EQ(server.stop(), 0);
}

TEST(FiledHeals, WhereTheRepairRefusesTheServiceEndsWithAReport) {
    FiledServer server({"-w", "2", "-A", "/bin/false"});
    Transcript talk(server);
    talk.play("2! 1");
    leaveLocked(server, talk['1'].worker);
    talk.play("2> OPEN read,create f");  // waits for the mutex and will hear no SIGTERM
    ::kill(talk['1'].worker, SIGKILL);
    const int status = server.waitForEnd();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    EXPECT_NE(server.log().find("is not repaired"), std::string::npos);
    EXPECT_TRUE(waitUntilGone(talk['2'].worker));
}

TEST(FiledProcesses, ASecondServerOnTheArenaEndsAndLeavesTheFirstItsFiles) {
    FiledServer server({"-w", "1"});
    const Outcome second = outcomeOf({FILED_PROGRAM, "-p", "0", "-r", server.root(), "-a",
                                      server.arena(), "-P", server.pidFile()});
    EXPECT_EQ(WEXITSTATUS(second.status), 1);
    EXPECT_NE(second.said.find("is another server's"), std::string::npos) << second.said;
    EXPECT_EQ(::access(server.pidFile().c_str(), F_OK), 0);
    play(server, "1> OPEN read,create f => OK *");
    EXPECT_EQ(server.stop(), 0);
}

TEST(FiledProcesses, InTheBackgroundItServesAndEndsLikeAnyOther) {
    FiledServer server({"-w", "2", "-D"});
    EXPECT_EQ(server.waitForEnd(), 0);  // the process that was started has handed over
    FiledClient client(server);
    const pid_t master = client.master;
    ASSERT_GT(master, 0);
    EXPECT_EQ(::getsid(master), ::getsid(client.worker));
    EXPECT_NE(::getsid(master), ::getsid(0));
    ASSERT_EQ(::kill(master, SIGTERM), 0);
    EXPECT_TRUE(waitUntilGone(master));
    EXPECT_NE(::access(server.pidFile().c_str(), F_OK), 0);
    EXPECT_NE(::access(server.arena().c_str(), F_OK), 0);
}

TEST(FiledHeals, UnderLoadAndKillsNoTwoGrantsConflictAndNothingIsLeftOver) {
    FiledServer server({"-w", "3"});
    const Outcome load = outcomeOf({FILED_LOAD_PROGRAM, "-p", std::to_string(server.port()), "-t",
                                    "20", "-f", "3", "-n", "8", "--kill9", "-a", server.arena()});
    EXPECT_EQ(load.status, 0) << load.said;
    Transcript talk(server);
    talk.play("1? STATS => OK workers 3 * killed 8 *");
    const auto recordsLeft = [&] {
        return outcomeOf({ARENACTL_PROGRAM, "locks", server.arena()}).said.find(", 0 of ") ==
               std::string::npos;
    };
    while (recordsLeft() && !HasFailure()) {  // what the last one held is cleaned a moment later
    }
    EXPECT_EQ(outcomeOf({ARENACTL_PROGRAM, "check", server.arena()}).status, 0);
    EXPECT_EQ(server.stop(), 0);
}

}  // namespace
