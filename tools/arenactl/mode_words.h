// The bits of an open's mode word as they are spelled wherever people read or write them: by
// arenactl, and in the protocol of the example server.
#pragma once

#include "iosched/shared.h"

#include <cstdint>

struct BitWord {
    uint32_t bit;
    const char *word;
};

constexpr BitWord kModeWords[] = {
    {SHARED_FILE_READ, "read"},
    {SHARED_FILE_WRITE, "write"},
    {SHARED_FILE_DELETE, "delete"},
    {SHARED_FILE_DENY_READ, "deny-read"},
    {SHARED_FILE_DENY_WRITE, "deny-write"},
    {SHARED_FILE_DENY_DELETE, "deny-delete"},
    {SHARED_FILE_OPLOCK_EXCLUSIVE, "oplock-exclusive"},
    {SHARED_FILE_OPLOCK_SHARED, "oplock-shared"},
    {SHARED_FILE_OPLOCK_BATCH, "oplock-batch"},
    {SHARED_FILE_IGNORE_OPLOCKS, "ignore-oplocks"},
    {SHARED_FILE_OWNER_COMPAT, "owner-compat"},
    {SHARED_FILE_OWNER_OVERRIDE, "owner-override"},
};
