// What the fuzz targets share: taking small values out of the input, and an arena in memory.
#pragma once

#include "iosched/shared.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

// Hands out the input piece by piece; zeros when it is used up.
class FuzzInput {
public:
    FuzzInput(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool empty() const { return size_ == 0; }

    template <class T>
    T take() {
        T value{};
        const size_t bytes = size_ < sizeof value ? size_ : sizeof value;
        std::memcpy(&value, data_, bytes);
        data_ += bytes;
        size_ -= bytes;
        return value;
    }
    uint32_t below(uint32_t limit) { return take<uint8_t>() % limit; }

private:
    const uint8_t *data_;
    size_t size_;
};

// Ends the run with a message: a rule that the target holds the library to is broken.
inline void require(bool holds, const char *rule) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", rule);
    std::abort();
}

// A directory of this process's own for servers to work in; gone at its end.
class FuzzDirectory {
public:
    FuzzDirectory() { require(::mkdtemp(path_) != nullptr, "there is a directory"); }
    ~FuzzDirectory() { std::filesystem::remove_all(path_); }
    FuzzDirectory(const FuzzDirectory &) = delete;
    FuzzDirectory &operator=(const FuzzDirectory &) = delete;

    int open() const { return ::open(path_, O_PATH | O_DIRECTORY | O_CLOEXEC); }
    void empty() const {
        for (const auto &entry : std::filesystem::directory_iterator(path_))
            std::filesystem::remove_all(entry);
        require(::chmod(path_, 0700) == 0, "the directory is as it was");
    }

private:
    char path_[32] = "/tmp/iosched-fuzz.XXXXXX";
};

// An arena in a memory file that every input starts over from nothing.
class FuzzArena {
public:
    explicit FuzzArena(uint64_t size) {
        const uint32_t result =
            OpenSharedArena(path().c_str(), SHARED_ARENA_CREATE, 0600, size, &arena_);
        require(result == 0, "an arena can be made");
    }
    ~FuzzArena() { require(CloseSharedArena(arena_) == 0, "an arena can be closed"); }
    FuzzArena(const FuzzArena &) = delete;
    FuzzArena &operator=(const FuzzArena &) = delete;

    SharedArena *get() const { return arena_; }
    uint64_t length() const { return arena_->mapLength; }
    std::byte *bytes() const { return static_cast<std::byte *>(arena_->base); }
    SharedMutex *mutex() const { return static_cast<SharedMutex *>(arena_->base); }

    static const std::string &path() {
        static const std::string name = [] {
            const int fd = ::memfd_create("fuzz", MFD_CLOEXEC);
            return "/proc/self/fd/" + std::to_string(fd);
        }();
        return name;
    }

private:
    SharedArena *arena_ = nullptr;
};
