// A lock table in an arena of its own.
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
