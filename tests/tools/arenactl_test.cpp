// The program as its users meet it: what it prints, its exit status, what it says about mutexes.
#include "sample_arena.h"

#include "shared/shared_internal.h"

#include <utility>

namespace {

testing::AssertionResult has(const Answer &answer, const std::string &words) {
    if (answer.text.find(words) != std::string::npos) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "no \"" << words << "\" in:\n"
                                       << answer.text << answer.errors;
}

std::string self() {
    return "process " + std::to_string(::getpid());
}

// A child that locks a mutex and keeps it until it is told to end.
class MutexHolder {
public:
    MutexHolder(SharedMutex *mutex, bool recordsItself) {
        int ready[2];
        EXPECT_EQ(::pipe(ready), 0);
        pid_ = ::fork();
        if (pid_ == 0) {
            if (recordsItself) (void)initMutexes();
            (void)AquireSharedMutex(mutex);
            (void)!::write(ready[1], "", 1);
            for (;;)
                (void)::poll(nullptr, 0, -1);
        }
        char byte;
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        (void)::close(ready[0]);
        (void)::close(ready[1]);
    }
    ~MutexHolder() {
        if (pid_ > 0) end();
    }
    MutexHolder(const MutexHolder &) = delete;
    MutexHolder &operator=(const MutexHolder &) = delete;

    std::string name() const { return "process " + std::to_string(pid_); }

    // Kills it and lets it stay a zombie until end().
    void killOnly() {
        (void)::kill(pid_, SIGKILL);
        siginfo_t info;
        (void)::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    }
    void end() {
        (void)::kill(pid_, SIGKILL);
        (void)waitForChild(pid_);
        pid_ = -1;
    }

private:
    pid_t pid_;
};

}  // namespace

TEST(Arenactl, LocksShowsEveryRecordInWords) {
    SampleArena sample;
    const Answer answer = arenactl({"locks", sample.path()});
    EXPECT_EQ(answer.status, 0);
    EXPECT_TRUE(has(answer, "table \"locks\": 2 of 16 file entries, 5 of 24 records in use"));
    EXPECT_TRUE(has(answer, R"("report \"1\".txt"  key 0x801:0x1267, 2 opens (limit 5), )"
                            "combined mode read, write, deny-delete"));
    EXPECT_TRUE(has(answer, "open  " + self() + "  alive  owner 7  handle 1  read, deny-delete\n"));
    EXPECT_TRUE(has(answer, "handle 2  exclusive, bytes 0 to 99\n"));
    EXPECT_TRUE(has(answer, "handle 1  shared, bytes from 500\n"));
    EXPECT_TRUE(has(answer, R"("\x80ledger"  key 0x801:0x1268, 1 open, )"));
}

TEST(Arenactl, RecordsOfAnEndedProcessAreShownAsSuch) {
    SampleArena sample;
    EXPECT_CHILD_OK([&] {
        uint32_t combined;
        EXPECT_EQ(OpenSharedFile(sample.table, 3, 3, &SampleArena::kReport, SHARED_FILE_READ, 0,
                                 nullptr, &combined),
                  0);
    });
    const Answer answer = arenactl({"locks", sample.path()});
    EXPECT_EQ(answer.status, 0);
    EXPECT_TRUE(has(answer, "dead   owner 3"));
}

TEST(Arenactl, ChunksShowsPlacesSizesAndNames) {
    SampleArena sample;
    const Answer answer = arenactl({"chunks", sample.path()});
    EXPECT_EQ(answer.status, 0);
    EXPECT_TRUE(has(answer, "0x48  "));
    EXPECT_TRUE(has(answer, "64           1  \"tally\"\n"));
    EXPECT_TRUE(has(answer, "\"locks\", a lock table\n"));
    EXPECT_TRUE(has(answer, "400           1  anonymous\n"));
    EXPECT_TRUE(has(answer, R"("spare\x0a")"));
    EXPECT_TRUE(has(answer, " in 2 blocks, the largest "));
}

TEST(Arenactl, InfoNamesTheUsersOfTheFile) {
    SampleArena sample;
    const Answer answer = arenactl({"info", sample.path()});
    EXPECT_EQ(answer.status, 0);
    EXPECT_TRUE(has(answer, "16384 bytes (16.0 KiB)"));
    EXPECT_TRUE(has(answer, "arena header: free"));
    EXPECT_TRUE(has(answer, self() + "  "));
    EXPECT_TRUE(has(answer, "shared lock  has it open\n"));
    sample.abandonTable();
    (void)CloseSharedArena(std::exchange(sample.arena, nullptr));
    EXPECT_TRUE(has(arenactl({"info", sample.path()}), "users: none"));
}

TEST(Arenactl, EveryCommandSpeaksJson) {
    SampleArena sample;
    std::vector<std::string> files;
    for (const char *command : {"info", "chunks", "locks", "check"}) {
        const Answer answer = arenactl({command, sample.path(), "--json"});
        EXPECT_EQ(answer.status, 0);
        EXPECT_EQ(answer.errors, "");
        EXPECT_TRUE(has(answer, "\"copy\": \"exact\""));
        files.push_back(sample.dir().file(command));
        writeFile(files.back(), std::as_bytes(std::span(answer.text)));
    }
    expectJson(files);
}

TEST(Arenactl, TellsWhoHoldsAMutexAndWhetherItLives) {
    struct {
        bool ofTable, recordsItself;
        const char *source;
    } const cases[] = {
        {false, true, ""}, {true, true, ""}, {true, false, ", as the mutex itself records"}};
    for (const auto &c : cases) {
        SampleArena sample;
        const std::string place = c.ofTable ? "table \"locks\"" : "arena header";
        MutexHolder holder(c.ofTable ? sample.tableMutex() : sample.headerMutex(), c.recordsItself);
        const auto check = [&] { return arenactl({"check", sample.path(), "-w10"}); };
        const std::string held = "mutex of " + place + ": held by " + holder.name();
        Answer answer = check();
        EXPECT_EQ(answer.status, 0) << "a living holder is nothing wrong";
        EXPECT_TRUE(has(answer, held + " (alive" + c.source + ")\n"));
        EXPECT_TRUE(has(answer, "best-effort copy"));
        holder.killOnly();
        answer = check();
        EXPECT_EQ(answer.status, 2);
        EXPECT_TRUE(has(answer, held + " (ended, not reaped" + c.source + ")\n"));
        holder.end();
        answer = check();
        EXPECT_EQ(answer.status, 2);
        EXPECT_TRUE(has(answer, held + " (dead" + c.source + ")\n"));
        EXPECT_TRUE(has(answer, "1 thing is wrong\n"));
        sample.abandonTable();
    }
}

// The id of a dead holder, used again by a process that has nothing to do with the arena.
TEST(Arenactl, AProcessThatDoesNotUseTheArenaIsNoHolder) {
    const pid_t stranger = ::fork();
    if (stranger == 0) {
        for (;;)
            (void)::poll(nullptr, 0, -1);
    }
    SampleArena sample;
    Bytes bytes = sample.bytes();
    const uint32_t words[] = {1, 0, static_cast<uint32_t>(stranger)};
    std::memcpy(bytes.data(), words, sizeof(words));
    const std::string path = sample.dir().file("abandoned");
    writeFile(path, bytes);
    const Answer answer = arenactl({"check", path, "-w0"});
    EXPECT_EQ(answer.status, 2);
    EXPECT_TRUE(has(answer, "process " + std::to_string(stranger) + " (not a user of this arena"));
    (void)::kill(stranger, SIGKILL);
    (void)waitForChild(stranger);
}

// What a living holder is doing right now may look wrong; nobody is to be alarmed by it.
TEST(Arenactl, AChangeUnderALivingHoldersMutexIsNotCalledDamage) {
    SampleArena sample;
    const ArenaModel model = readArena(sample.bytes());
    char *const base = static_cast<char *>(sample.arena->base);
    base[model.tables.at(0).files.at(0).offset + 40] ^= 1;
    Answer answer = arenactl({"check", sample.path()});
    EXPECT_EQ(answer.status, 2);
    EXPECT_TRUE(has(answer, "open count"));
    MutexHolder holder(sample.tableMutex(), true);
    answer = arenactl({"check", sample.path(), "-w10"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_TRUE(has(answer, "perhaps only a change half made"));
    EXPECT_TRUE(has(answer, "open count"));
    sample.abandonTable();
}

TEST(Arenactl, FilesThatAreNoArenasAreCalledSo) {
    ScratchDir dir;
    const std::string path = dir.file("foreign");
    for (const size_t size : {size_t{0}, size_t{1}, size_t{72}, size_t{8192}}) {
        writeFile(path, Bytes(size, std::byte{'x'}));
        for (const char *command : {"info", "chunks", "locks", "check"}) {
            const Answer answer = arenactl({command, path});
            EXPECT_EQ(answer.status, 2) << command << " of " << size << " bytes";
            EXPECT_TRUE(has(answer, "not an arena"));
        }
    }
}

TEST(Arenactl, WhatCannotBeReadIsAUsageError) {
    ScratchDir dir;
    const std::string fifo = dir.file("fifo"), missing = dir.file("missing");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string &path : {fifo, missing, testing::TempDir()}) {
        const Answer answer = arenactl({"check", path});
        EXPECT_EQ(answer.status, 1) << path;
        EXPECT_EQ(answer.text, "");
        EXPECT_NE(answer.errors.find(path), std::string::npos);
    }
}

TEST(Arenactl, OptionsStandAnywhereAndMistakesAreExplained) {
    SampleArena sample;
    const std::string &path = sample.path();
    for (const std::vector<std::string> &words :
         std::vector<std::vector<std::string>>{{"--json", "info", path},
                                               {"-j", "-w", "5", "info", path},
                                               {"info", "-jw5", path},
                                               {"info", path, "--json"},
                                               {"--json", "--", "info", path}}) {
        const Answer answer = arenactl(words);
        EXPECT_EQ(answer.status, 0) << answer.errors;
        EXPECT_EQ(answer.text[0], '{') << answer.text;
    }
    for (const std::vector<std::string> &words :
         std::vector<std::vector<std::string>>{{},
                                               {"info"},
                                               {"info", path, path},
                                               {"shout", path},
                                               {"-x", "info", path},
                                               {"--jsno", "info", path},
                                               {"info", path, "-w"},
                                               {"-wx", "info", path}}) {
        const Answer answer = arenactl(words);
        EXPECT_EQ(answer.status, 1);
        EXPECT_EQ(answer.text, "");
        EXPECT_NE(answer.errors.find("arenactl --help"), std::string::npos);
    }
    EXPECT_EQ(arenactl({"--help"}).status, 0);
    EXPECT_NE(arenactl({"-V"}).text.find("7.1"), std::string::npos);
}
