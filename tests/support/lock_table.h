// A lock table in an arena of its own, and short forms of the calls that tests make over and over.
#pragma once

#include "iosched/shared.h"
#include "support/scratch_dir.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

class ScratchArena {
public:
    explicit ScratchArena(uint64_t bytes = 1 << 20) {
        const uint32_t code =
            OpenSharedArena(path().c_str(), SHARED_ARENA_CREATE, 0600, bytes, &arena);
        if (code != 0) ADD_FAILURE() << "OpenSharedArena: " << code << " errno " << errno;
    }
    ~ScratchArena() {
        if (arena != nullptr) (void)CloseSharedArena(arena);
    }
    ScratchArena(const ScratchArena &) = delete;
    ScratchArena &operator=(const ScratchArena &) = delete;
    std::string path() const { return dir_ / "arena"; }

    SharedArena *arena = nullptr;

private:
    ScratchDir dir_;
};

class ScratchTable : public ScratchArena {
public:
    explicit ScratchTable(int32_t processes = 4, int32_t filesPerProcess = 8, int32_t locks = 0,
                          uint64_t bytes = 1 << 20)
        : ScratchArena(bytes) {
        const int code =
            AllocateSharedFileLockTable(arena, "table", processes, filesPerProcess, locks, &table);
        if (code != 0) ADD_FAILURE() << "AllocateSharedFileLockTable: " << code;
    }
    ~ScratchTable() {
        if (table != nullptr) (void)FreeSharedFileLockTable(table);
    }

    SharedFileLockTable *table = nullptr;
};

// The caller's words for one holder, and the calls that it makes.
struct Opener {
    SharedFileLockTable *table;
    uint32_t owner;
    uint32_t handle;

    int open(const SharedFileKey &key, uint32_t mode, uint32_t maxOpens = 0,
             const char *name = nullptr) const {
        uint32_t combined = 0;
        return OpenSharedFile(table, owner, handle, &key, mode, maxOpens, name, &combined);
    }
    int close(const SharedFileKey &key) const {
        return CloseSharedFile(table, owner, handle, &key);
    }
    int setMode(const SharedFileKey &key, uint32_t mode) const {
        return SetSharedFileMode(table, owner, handle, &key, mode);
    }
    int lock(const SharedFileKey &key, int64_t offset, int64_t length, uint32_t flags) const {
        return LockSharedFileRange(table, owner, handle, &key, offset, length, flags);
    }
    int unlock(const SharedFileKey &key, int64_t offset, int64_t length) const {
        return UnlockSharedFileRange(table, owner, handle, &key, offset, length);
    }
    // The bytes that may be accessed; -1000 - code when the call fails.
    int64_t reach(const SharedFileKey &key, int64_t offset, int64_t length, uint32_t flags) const {
        const int code = TestSharedFileRange(table, owner, handle, &key, offset, &length, flags);
        return code == 0 ? length : -1000 - int64_t{code};
    }
};

inline uint32_t opensOf(SharedFileLockTable *table, const SharedFileKey &key) {
    uint32_t combined = 0, opens = 0;
    (void)SharedFileInfo(table, &key, &combined, &opens, nullptr, 0);
    return opens;
}
