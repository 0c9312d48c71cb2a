// An arena with something of everything in it, in a scratch directory, and ways to look at it.
#pragma once

#include "check.h"
#include "iosched/shared.h"
#include "support/in_child.h"

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <vector>

using Bytes = std::vector<std::byte>;

class ScratchDir {
public:
    ScratchDir() : path_(testing::TempDir() + "arenactl.XXXXXX") {
        if (::mkdtemp(path_.data()) == nullptr) ADD_FAILURE() << std::strerror(errno);
    }
    ~ScratchDir() {
        for (const std::string &file : files_)
            (void)::unlink(file.c_str());
        (void)::rmdir(path_.c_str());
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;

    // The path of a file that goes with the directory.
    std::string file(const std::string &name) { return files_.emplace_back(path_ + "/" + name); }

private:
    std::string path_;
    std::vector<std::string> files_;
};

inline Bytes readFile(const std::string &path) {
    Bytes bytes;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) < 0) {
        ADD_FAILURE() << path << ": " << std::strerror(errno);
        return bytes;
    }
    bytes.resize(static_cast<size_t>(status.st_size));
    EXPECT_EQ(::pread(fd, bytes.data(), bytes.size(), 0), status.st_size);
    (void)::close(fd);
    return bytes;
}

inline void writeFile(const std::string &path, std::span<const std::byte> bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << path << ": " << std::strerror(errno);
    EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    (void)::close(fd);
}

// An open arena with a lock table of 2 files with opens and locks, anonymous and named chunks, and
// free blocks between them.
class SampleArena {
public:
    static constexpr SharedFileKey kReport{0x801, 4711};
    static constexpr SharedFileKey kLedger{0x801, 4712};

    explicit SampleArena(uint64_t bytes = 16384) : path_(dir_.file("arena")) {
        expect(OpenSharedArena(path_.c_str(), SHARED_ARENA_CREATE, 0600, bytes, &arena));
        void *const hole = allocate(nullptr, 200);
        allocate("tally", 64);
        expect(AllocateSharedFileLockTable(arena, "locks", 2, 8, 24, &table));
        allocate(nullptr, 400);
        allocate("spare\n", 100);
        expect(FreeSharedChunk(arena, hole));
        fillTable();
    }
    ~SampleArena() {
        if (table) (void)FreeSharedFileLockTable(table);
        if (arena) (void)CloseSharedArena(arena);
    }
    SampleArena(const SampleArena &) = delete;
    SampleArena &operator=(const SampleArena &) = delete;

    // Lets go of the table without a word to the arena, whose mutex nobody will release.
    void abandonTable() {
        std::free(table);
        table = nullptr;
    }

    const std::string &path() const { return path_; }
    ScratchDir &dir() { return dir_; }
    Bytes bytes() const { return readFile(path_); }
    SharedMutex *headerMutex() const { return static_cast<SharedMutex *>(arena->base); }
    SharedMutex *tableMutex() const { return static_cast<SharedMutex *>(table->header); }

    SharedArena *arena = nullptr;
    SharedFileLockTable *table = nullptr;

private:
    static void expect(uint32_t code) { EXPECT_EQ(code, 0u); }
    static void expect(int code) { EXPECT_EQ(code, 0); }

    void *allocate(const char *name, uint64_t size) {
        void *chunk = nullptr;
        uint32_t created = 0;
        expect(AllocateSharedChunk(arena, name, &size, &chunk, &created));
        if (created) expect(ReleaseSharedMutex(headerMutex()));
        return chunk;
    }

    void fillTable() {
        uint32_t combined = 0;
        expect(OpenSharedFile(table, 7, 1, &kReport, SHARED_FILE_READ | SHARED_FILE_DENY_DELETE, 5,
                              "report \"1\".txt", &combined));
        expect(OpenSharedFile(table, 7, 2, &kReport, SHARED_FILE_READ | SHARED_FILE_WRITE, 0,
                              nullptr, &combined));
        expect(LockSharedFileRange(table, 7, 2, &kReport, 0, 100, SHARED_FILE_LOCK_EXCLUSIVE));
        expect(LockSharedFileRange(table, 7, 1, &kReport, 500, -1, SHARED_FILE_LOCK_SHARED));
        expect(OpenSharedFile(table, 9, 1, &kLedger, SHARED_FILE_READ | SHARED_FILE_OPLOCK_BATCH, 0,
                              "\x80ledger", &combined));
    }

    ScratchDir dir_;
    std::string path_;
};

struct Answer {
    int status;  // exit status, -1 if it did not exit
    std::string text;
    std::string errors;
};

// Runs the real program and waits for its end.
inline Answer arenactl(const std::vector<std::string> &words) {
    ScratchDir dir;
    const std::string out = dir.file("out"), err = dir.file("err");
    const int status = inChild([&] {
        std::vector<char *> arguments{const_cast<char *>("arenactl")};
        for (const std::string &word : words)
            arguments.push_back(const_cast<char *>(word.c_str()));
        arguments.push_back(nullptr);
        (void)::dup2(::open(out.c_str(), O_WRONLY | O_CREAT, 0600), 1);
        (void)::dup2(::open(err.c_str(), O_WRONLY | O_CREAT, 0600), 2);
        (void)::execv(ARENACTL, arguments.data());
        ::_exit(127);
    });
    const auto text = [](const std::string &path) {
        const Bytes bytes = readFile(path);
        return std::string(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    };
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text(out), text(err)};
}

// Does every one of these files hold one JSON value? Asked of an ordinary JSON program.
inline void expectJson(const std::vector<std::string> &files) {
    const int status = inChild([&] {
        std::vector<char *> arguments{
            const_cast<char *>("python3"), const_cast<char *>("-c"),
            const_cast<char *>("import json, sys\n"
                               "for f in sys.argv[1:]: json.loads(open(f, 'rb').read())")};
        for (const std::string &file : files)
            arguments.push_back(const_cast<char *>(file.c_str()));
        arguments.push_back(nullptr);
        (void)::execvp(arguments[0], arguments.data());
        ::_exit(127);
    });
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) GTEST_SKIP() << "there is no python3 here";
    EXPECT_EQ(status, 0);
}
