// The program as its users meet it: what it prints, its exit status, what it does about mutexes.
#include "sample_arena.h"

#include "shared/shared_internal.h"

#include <poll.h>
#include <sys/stat.h>

namespace {

using Words = std::vector<std::string>;

const std::string kSelf = "process " + std::to_string(::getpid());

// Whose process id a holder leaves in the mutex: a child of plain fork() leaves its parent's.
enum class Recorded { kNobody, kItself, kParent };

// A child that runs the function and then waits to be killed.
class Child {
public:
    template <class Function>
    explicit Child(Function function) {
        int ready[2];
        EXPECT_EQ(::pipe(ready), 0);
        pid_ = ::fork();
        if (pid_ == 0) {
            function();
            (void)!::write(ready[1], "", 1);
            for (;;)
                (void)::poll(nullptr, 0, -1);
        }
        char byte;
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        (void)::close(ready[0]);
        (void)::close(ready[1]);
    }
    ~Child() { end(); }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    std::string number() const { return std::to_string(pid_); }
    std::string name() const { return "process " + number(); }

    // Kills it and lets it stay a zombie until end().
    void killOnly() const {
        (void)::kill(pid_, SIGKILL);
        siginfo_t info;
        (void)::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    }
    void end() {
        if (isThere_) (void)::kill(pid_, SIGKILL), (void)waitForChild(pid_);
        isThere_ = false;
    }

private:
    pid_t pid_;
    bool isThere_ = true;
};

Child holderOf(SharedMutex *mutex, Recorded recorded) {
    if (recorded == Recorded::kParent) (void)initMutexes();
    return Child([=] {
        if (recorded == Recorded::kItself) (void)initMutexes();
        (void)AquireSharedMutex(mutex);
    });
}

}  // namespace

TEST(Arenactl, AnswersInWordsAndInJson) {
    const SampleArena sample;
    const ScratchDir dir;
    Child ghost([&] { (void)Opener{sample.table, 3, 3}.open(sample.kReport, SHARED_FILE_READ); });
    ghost.end();
    const std::string report = R"("report \"1\".txt"  key 0x801:0x1267, 3 opens (limit 5), )"
                               "combined mode read, write, deny-delete\n";
    const std::string ledger = R"("\x80ledger"  key 0x801:0x1268, 1 open, )";
    const struct {
        Words words;
        Words present, absent;
    } rows[] = {
        {{"locks"},
         {"table \"locks\": 2 of 4 file entries, 6 of 10 records in use", report, ledger,
          "open  " + kSelf + "  alive  owner 7  handle 1  read, deny-delete\n",
          "handle 2  exclusive, bytes 0 to 99\n", "handle 1  shared, bytes from 500\n",
          "dead   owner 3"},
         {"stops"}},
        {{"locks", "--file", "\".txt"}, {report}, {ledger}},
        {{"locks", "--file=0x801:0x1268"}, {ledger}, {report}},
        {{"locks", "--pid=" + ghost.number()}, {report, "owner 3"}, {ledger, kSelf}},
        {{"locks", "--blocking"},
         {kSelf +
              " owner 7 handle 2 stops reading these bytes, writing these bytes, bytes 0 to 99 "
              "by " +
              kSelf + " owner 7 handle 1, " + ghost.name() + " owner 3 handle 3\n",
          "owner 9 handle 1 stops opens that deny reading, opens that heed oplocks\n"},
         {}},
        {{"chunks"},
         {"0x48  ", "64           1  \"tally\"\n", "\"locks\", a lock table\n",
          "400           1  anonymous\n", R"("spare\x0a")", " in 2 blocks, the largest "},
         {}},
        {{"info"},
         {"16384 bytes (16.0 KiB)", "arena header: free", kSelf + "  ",
          "shared lock  has it open\n"},
         {}},
        {{"check"}, {"sound: 6 blocks, 1 lock table\n"}, {}},
        {{"top", "-n1"},
         {"heap: free ", "\"locks\": files 2 of 4, records 6 of 10, opens 4, ranges 2, holders 2\n",
          "table \"locks\" mutex: held in 0 of "},
         {"\x1b"}},
        {{"repair"}, {"arena header: free\ntable \"locks\": free\nnothing to do\n"}, {}},
        {{"clean", "--json"}, {"1 record of process " + ghost.number() + " removed"}, {}},
        {{"clean"}, {"nothing to do\n"}, {}},
    };
    for (const auto &row : rows) {
        Words words = row.words;
        words.insert(words.begin() + 1, sample.path());
        const Answer answer = arenactl(words);
        EXPECT_EQ(answer.status, 0) << answer.text;
        for (const std::string &text : row.present)
            EXPECT_TRUE(answer.has(text));
        for (const std::string &text : row.absent)
            EXPECT_FALSE(answer.has(text)) << text << " in " << answer.text;
        if (words[0] == "top") continue;
        words.emplace_back("--json");
        writeFile(dir / (std::to_string(&row - rows) + ".json"), arenactl(words).text);
    }
    expectJson(dir);
}

TEST(Arenactl, TellsWhoHoldsAMutexAndRepairsItOnceTheHolderIsDead) {
    struct {
        bool ofTable;
        Recorded recorded;
    } const cases[] = {{false, Recorded::kItself},
                       {true, Recorded::kItself},
                       {true, Recorded::kNobody},
                       {true, Recorded::kParent}};
    for (const auto &c : cases) {
        const SampleArena sample;
        SharedMutex *const mutex = c.ofTable ? sample.tableMutex() : sample.headerMutex();
        const std::string place = c.ofTable ? "table \"locks\"" : "arena header";
        Child holder = holderOf(mutex, c.recorded);
        const std::string other =
            c.recorded == Recorded::kParent ? ", recorded as " + std::to_string(::getpid()) : "";
        const auto expect = [&](const Words &words, int status, const std::string &text) {
            Words all{words[0], sample.path(), "-w10"};
            all.insert(all.end(), words.begin() + 1, words.end());
            const Answer answer = arenactl(all);
            EXPECT_EQ(answer.status, status) << answer.text;
            EXPECT_TRUE(answer.has(text));
        };
        const auto expectHeld = [&](int status, const char *life) {
            expect({"check"}, status,
                   "mutex of " + place + ": held by " + holder.name() + " (" + life + other +
                       ")\n");
        };
        expectHeld(0, "alive");
        // Nobody gets past the arena's own mutex while it is held.
        expect({"repair"}, c.ofTable ? 0 : 2,
               place + ": held by " + holder.name() + ", which lives");
        holder.killOnly();
        expectHeld(2, "ended, not reaped");
        holder.end();
        expectHeld(2, "dead");
        expect({"clean"}, 2, "arenactl repair has to free it first");
        expect({"repair", "--dry-run"}, 0, "would be done\n");
        expectHeld(2, "dead");
        expect({"repair"}, 0, place + ": held by " + holder.name() + ", which is dead\n");
        expect({"check"}, 0, "sound");
        EXPECT_EQ(::pthread_mutex_trylock(&mutex->mutex), 0);
    }
}

TEST(Arenactl, ALockTableThatWasNeverReadyIsGivenUpOnDemand) {
    const SampleArena sample;
    const std::string before = sample.bytes();
    const uint64_t bytes = CalcSharedFileLockTableSize(1, 1, 1);
    auto *half = static_cast<SharedFileLockHeader *>(sample.allocate("half", bytes));
    (void)InitializeSharedMutex(&half->mutex);
    half->bucketCount = 16;
    half->freeEntries = half->freeRecords = {sample.mapped().size() - 8, 0};
    Answer answer = arenactl({"repair", sample.path(), "locks"});
    EXPECT_EQ(answer.status, 2);
    EXPECT_TRUE(answer.has("the chunk \"locks\" is a lock table that is ready"));
    answer = arenactl({"repair", sample.path(), "half", "gone"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_TRUE(answer.has("chunk \"half\", a lock table that was never ready, given up"));
    EXPECT_TRUE(answer.has("there is no chunk \"gone\""));
    EXPECT_EQ(checkArena(sample.mapped()), "");
    EXPECT_EQ(readArena(sample.mapped()).blocks.size(), readArena(bytesOf(before)).blocks.size());
}

// An id that is used again by a process that has nothing to do with the arena: no holder, but its
// records go on demand only.
TEST(Arenactl, AProcessThatDoesNotUseTheArenaIsAStranger) {
    const Child stranger([] {});
    const SampleArena sample;
    std::string bytes = sample.bytes();
    const auto pid = static_cast<uint32_t>(std::stoul(stranger.number()));
    const uint32_t words[] = {1, 0, pid};
    std::memcpy(bytes.data(), words, sizeof(words));
    const uint64_t record = readArena(sample.mapped()).tables[0].files[0].records[0].offset;
    std::memcpy(bytes.data() + record + offsetof(SharedLockRecord, pid), &pid, sizeof pid);
    const ScratchDir dir;
    const std::string path = dir / "abandoned";
    writeFile(path, bytes);
    EXPECT_TRUE(
        arenactl({"check", path, "-w0"}).has(stranger.name() + ", which is not a user of this"));
    EXPECT_TRUE(arenactl({"repair", path}).has(stranger.name() + ", which is dead\n"));
    EXPECT_TRUE(
        arenactl({"clean", path}).has(stranger.name() + " runs but does not use this arena"));
    EXPECT_TRUE(arenactl({"clean", path, stranger.number()}).has("1 record of " + stranger.name()));
    EXPECT_EQ(arenactl({"clean", sample.path(), std::to_string(::getpid())}).status, 2);
}

// What a living holder is doing right now may look wrong; nobody is to be alarmed by it.
TEST(Arenactl, AChangeUnderALivingHoldersMutexIsNotCalledDamage) {
    const SampleArena sample;
    const uint64_t file = readArena(sample.mapped()).tables.at(0).files.at(0).offset;
    sample.mapped()[file + 40] ^= std::byte{1};
    EXPECT_EQ(arenactl({"check", sample.path()}).status, 2);
    const Child holder = holderOf(sample.tableMutex(), Recorded::kItself);
    const Answer answer = arenactl({"check", sample.path(), "-w10"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_TRUE(answer.has("perhaps only a change half made"));
    EXPECT_TRUE(answer.has("open count"));
}

TEST(Arenactl, WhatIsNoArenaAndWhatIsNoCommandIsCalledSo) {
    const SampleArena sample;
    const ScratchDir dir;
    const std::string &path = sample.path(), foreign = dir / "foreign", fifo = dir / "fifo";
    for (const size_t size : {0ul, 1ul, 72ul, 8192ul}) {
        writeFile(foreign, std::string(size, 'x'));
        for (const char *command : {"info", "chunks", "locks", "check"}) {
            const Answer answer = arenactl({command, foreign});
            EXPECT_EQ(answer.status, 2) << command << " of " << size << " bytes";
            EXPECT_TRUE(answer.has("not an arena"));
        }
    }
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const struct {
        Words words;
        int status;
        std::string text;
    } rows[] = {
        {{"--json", "info", path}, 0, "{\n"},
        {{"-j", "-w", "5", "info", path}, 0, "{\n"},
        {{"info", "-jw5", path}, 0, "{\n"},
        {{"--json", "--", "info", path}, 0, "{\n"},
        {{"--help"}, 0, "usage: arenactl"},
        {{"-V"}, 0, "7.1"},
        {{"check", fifo}, 1, fifo},
        {{"check", dir / "missing"}, 1, "missing"},
        {{"repair", foreign}, 1, "not an arena"},
        {{"clean", dir.path()}, 1, dir.path()},
        {{}, 1, "arenactl --help"},
        {{"info"}, 1, "arenactl --help"},
        {{"info", path, path}, 1, "arenactl --help"},
        {{"shout", path}, 1, "arenactl --help"},
        {{"-x", "info", path}, 1, "arenactl --help"},
        {{"--jsno", "info", path}, 1, "arenactl --help"},
        {{"info", path, "-w"}, 1, "arenactl --help"},
        {{"locks", path, "--pid"}, 1, "--pid needs an argument"},
        {{"clean", path, "0"}, 1, "from 1 to"},
    };
    for (const auto &row : rows) {
        const Answer answer = arenactl(row.words);
        EXPECT_EQ(answer.status, row.status) << answer.text;
        EXPECT_TRUE(answer.has(row.text));
    }
}
