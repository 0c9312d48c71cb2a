// Random damage: whatever the bytes are, every command ends with an answer and leaves no trace.
#include "commands.h"
#include "sample_arena.h"

#include <cstdlib>
#include <random>

namespace {

constexpr int kDeadlineMs = 20000;
constexpr uint32_t kParsed = 30;  // of so many the JSON is parsed as well

uint32_t numberFrom(const char *variable, uint32_t otherwise) {
    const char *const text = std::getenv(variable);
    return text == nullptr ? otherwise : static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
}

std::vector<std::string> outputsOf(const std::string &path, bool asJson) {
    std::vector<std::string> outputs;
    for (const Command command :
         {Command::kInfo, Command::kChunks, Command::kLocks, Command::kCheck}) {
        Examination exam;
        std::string output;
        EXPECT_TRUE(examineArena(path.c_str(), 0, &exam, &output)) << output;
        const int status = runCommand(command, asJson, exam, &output);
        EXPECT_EQ(status, exam.damaged() ? 2 : 0);
        EXPECT_FALSE(output.empty());
        outputs.push_back(std::move(output));
    }
    return outputs;
}

// Fields are where damage matters: half of the changes go to places that hold a value.
size_t placeToHit(const Bytes &bytes, std::mt19937 *random) {
    size_t place = (*random)() % bytes.size();
    for (int i = 0; i < 64 && (*random)() % 2 == 0 && bytes[place] == std::byte{0}; i++)
        place = (*random)() % bytes.size();
    return place;
}

}  // namespace

// IOSCHED_DAMAGES sets the number of damaged arenas; any failure names its number, the seed.
TEST(Damage, NoRandomChangeMakesACommandCrashHangOrWrite) {
    SampleArena sample;
    const Bytes sound = sample.bytes();
    const uint32_t count = numberFrom("IOSCHED_DAMAGES", 60);
    const std::string path = sample.dir().file("damaged");
    std::vector<std::string> jsonFiles;
    for (uint32_t seed = 1; seed <= count && !testing::Test::HasFailure(); seed++) {
        std::mt19937 random(seed);
        Bytes bytes = sound;
        for (uint32_t changes = 1 + random() % 4; changes > 0; changes--)
            bytes[placeToHit(bytes, &random)] = static_cast<std::byte>(random());
        writeFile(path, bytes);
        std::vector<std::string> answerFiles;
        for (int i = 0; i < 4 && seed <= kParsed; i++)
            answerFiles.push_back(
                sample.dir().file(std::to_string(seed) + "." + std::to_string(i)));
        const auto runAll = [&] {
            (void)outputsOf(path, false);
            const std::vector<std::string> answers = outputsOf(path, true);
            for (size_t i = 0; i < answerFiles.size(); i++)
                writeFile(answerFiles[i], std::as_bytes(std::span(answers[i])));
        };
        EXPECT_EQ(inChild(runAll, kDeadlineMs), 0) << "damage number " << seed;
        EXPECT_TRUE(readFile(path) == bytes) << "damage number " << seed << " was written to";
        jsonFiles.insert(jsonFiles.end(), answerFiles.begin(), answerFiles.end());
    }
    expectJson(jsonFiles);
}

TEST(Damage, AFileThatShrinksAndGrowsUnderTheReaderIsNoTrap) {
    SampleArena sample(1 << 18);
    const Bytes sound = sample.bytes();
    const std::string path = sample.dir().file("restless");
    writeFile(path, sound);
    const pid_t pid = ::fork();
    if (pid == 0) {
        std::mt19937 random(1);
        for (;;)
            (void)!::truncate(path.c_str(), static_cast<off_t>(random() % sound.size()));
    }
    EXPECT_CHILD_OK([&] {
        for (int i = 0; i < 50; i++)
            (void)outputsOf(path, i % 2 == 0);
    });
    (void)::kill(pid, SIGKILL);
    (void)waitForChild(pid);
}
