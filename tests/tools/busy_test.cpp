// Looking while servers work: every answer is whole, none cries wolf, nobody waits.
#include "sample_arena.h"

#include <cstdlib>
#include <ctime>

namespace {

constexpr int kWorkers = 8;

// Opens, locks, unlocks and closes files without end, as eight servers in a hurry would.
[[noreturn]] void hammer(SharedFileLockTable *table, unsigned seed) {
    for (uint32_t i = seed;; i++) {
        const SharedFileKey key{0x801, i % 5};
        const uint32_t handle = seed + 1;
        uint32_t combined;
        (void)OpenSharedFile(table, seed, handle, &key, SHARED_FILE_READ, 0, "busy", &combined);
        (void)LockSharedFileRange(table, seed, handle, &key, i % 100, 10, i % 3);
        (void)SetSharedFileMode(table, seed, handle, &key, SHARED_FILE_READ | SHARED_FILE_WRITE);
        (void)UnlockSharedFileRange(table, seed, handle, &key, i % 100, 10);
        (void)CloseSharedFile(table, seed, handle, &key);
    }
}

int secondsToLook() {
    const char *const text = std::getenv("IOSCHED_BUSY_SECONDS");
    return text == nullptr ? 3 : std::atoi(text);
}

}  // namespace

// IOSCHED_BUSY_SECONDS sets how long it looks.
TEST(Busy, EveryAnswerAboutATableUnderFireParsesAndFindsNothingWrong) {
    SampleArena sample;
    std::vector<pid_t> workers;
    for (unsigned i = 0; i < kWorkers; i++) {
        const pid_t pid = ::fork();
        if (pid == 0) hammer(sample.table, i);
        workers.push_back(pid);
    }
    std::vector<std::string> files;
    size_t exact = 0;
    const time_t end = ::time(nullptr) + secondsToLook();
    while (::time(nullptr) < end && !testing::Test::HasFailure()) {
        const bool check = files.size() % 4 == 3;
        const Answer answer =
            arenactl({check ? "check" : "locks", sample.path(), "--json", "-w20"});
        EXPECT_EQ(answer.status, 0) << answer.text << answer.errors;
        exact += answer.text.find("\"copy\": \"exact\"") != std::string::npos;
        files.push_back(sample.dir().file("answer" + std::to_string(files.size())));
        writeFile(files.back(), std::as_bytes(std::span(answer.text)));
    }
    for (const pid_t pid : workers)
        (void)::kill(pid, SIGKILL);
    for (const pid_t pid : workers)
        (void)waitForChild(pid);
    RecordProperty("answers", static_cast<int>(files.size()));
    RecordProperty("exact", static_cast<int>(exact));
    std::printf("%zu answers, %zu of them exact\n", files.size(), exact);
    EXPECT_GT(files.size(), 0u);
    expectJson(files);
}
