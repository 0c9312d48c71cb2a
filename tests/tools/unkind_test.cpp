// Arenas in an unkind state: random damage, files that change their size, servers in a hurry. Every
// command ends with a whole answer and leaves no trace; a repair keeps its promise.
#include "commands.h"
#include "repair_rules.h"
#include "sample_arena.h"

#include <ctime>
#include <random>

namespace {

constexpr Command kCommands[] = {Command::kInfo, Command::kChunks, Command::kLocks,
                                 Command::kCheck};

int numberFrom(const char *variable, int otherwise) {
    const char *const text = std::getenv(variable);
    return text == nullptr ? otherwise : std::atoi(text);
}

// All answers about the arena; those in JSON go to files in the directory. Returns whether any of
// them said that it is damaged.
bool askEverything(const std::string &path, const std::string &jsonFiles) {
    bool isDamaged = false;
    for (const Command command : kCommands) {
        for (const bool asJson : {false, true}) {
            Examination exam;
            std::string output;
            EXPECT_TRUE(examineArena(path.c_str(), asJson ? 10 : 0, &exam, &output)) << output;
            const LockFilter filter{"", 0, asJson};
            const int status = runCommand(command, asJson, exam, &output, filter);
            EXPECT_EQ(status, exam.damaged() ? 2 : 0);
            EXPECT_FALSE(output.empty());
            isDamaged = isDamaged || status != 0;
            if (asJson)
                writeFile(jsonFiles + std::to_string(static_cast<int>(command)) + ".json", output);
        }
    }
    return isDamaged;
}

// Fields are where damage matters: half of the changes go to places that hold a value.
size_t placeToHit(const std::string &bytes, std::mt19937 *random) {
    size_t place = (*random)() % bytes.size();
    for (int i = 0; i < 64 && (*random)() % 2 == 0 && bytes[place] == 0; i++)
        place = (*random)() % bytes.size();
    return place;
}

// Opens, locks, unlocks and closes files without end, as servers in a hurry would.
[[noreturn]] void hammer(SharedFileLockTable *table, uint32_t seed) {
    for (uint32_t i = seed, modes = 0;; i++) {
        const SharedFileKey key{0x801, i % 5};
        (void)OpenSharedFile(table, seed, 1, &key, SHARED_FILE_READ, 0, "busy", &modes);
        (void)LockSharedFileRange(table, seed, 1, &key, i % 100, 10, i % 3);
        (void)SetSharedFileMode(table, seed, 1, &key, SHARED_FILE_READ | SHARED_FILE_WRITE);
        (void)UnlockSharedFileRange(table, seed, 1, &key, i % 100, 10);
        (void)CloseSharedFile(table, seed, 1, &key);
    }
}

}  // namespace

// IOSCHED_DAMAGES sets the number of damaged arenas; any failure names its number, the seed.
TEST(Unkind, NoRandomChangeMakesACommandCrashHangOrWriteOrARepairBreakItsPromise) {
    const SampleArena sample;
    const ScratchDir dir;
    const std::string sound = sample.bytes(), path = dir / "damaged";
    const int count = numberFrom("IOSCHED_DAMAGES", 60);
    for (int seed = 1; seed <= count && !testing::Test::HasFailure(); seed++) {
        std::mt19937 random(static_cast<uint32_t>(seed));
        std::string bytes = sound;
        for (uint32_t changes = 1 + random() % 4; changes > 0; changes--)
            bytes[placeToHit(bytes, &random)] = static_cast<char>(random());
        writeFile(path, bytes);
        const int status = inChild(
            [&] {
                (void)askEverything(path, dir / std::to_string(seed));
                EXPECT_EQ(brokenPromise(bytesOf(bytes)), "");
            },
            20000);
        EXPECT_EQ(status, 0) << "damage number " << seed;
        EXPECT_TRUE(readFile(path) == bytes) << "damage number " << seed << " was written to";
    }
    expectJson(dir);
}

TEST(Unkind, AFileThatShrinksAndGrowsUnderTheReaderIsNoTrap) {
    const SampleArena sample(1 << 18);
    const ScratchDir dir;
    const std::string path = dir / "restless";
    writeFile(path, sample.bytes());
    const pid_t pid = ::fork();
    if (pid == 0) {
        for (std::mt19937 random(1);;)
            (void)!::truncate(path.c_str(), static_cast<off_t>(random() % (1 << 18)));
    }
    EXPECT_CHILD_OK([&] {
        for (int i = 0; i < 12; i++)
            (void)askEverything(path, dir / "answer");
    });
    (void)::kill(pid, SIGKILL);
    (void)waitForChild(pid);
}

// IOSCHED_BUSY_SECONDS sets how long it looks.
TEST(Unkind, NoAnswerAboutATableUnderFireFindsAnythingWrong) {
    const SampleArena sample;
    const ScratchDir dir;
    std::vector<pid_t> workers(8);
    for (size_t i = 0; i < workers.size(); i++) {
        workers[i] = ::fork();
        if (workers[i] == 0) hammer(sample.table, static_cast<uint32_t>(i));
    }
    const time_t end = ::time(nullptr) + numberFrom("IOSCHED_BUSY_SECONDS", 3);
    for (int i = 0; ::time(nullptr) < end && !testing::Test::HasFailure(); i++)
        EXPECT_FALSE(askEverything(sample.path(), dir / std::to_string(i)));
    for (const pid_t pid : workers) {
        (void)::kill(pid, SIGKILL);
        (void)waitForChild(pid);
    }
    expectJson(dir);
}
