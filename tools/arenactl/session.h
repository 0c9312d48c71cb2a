// An arena opened by somebody who may change it: mapped, with this process as one of its users.
#pragma once

#include "image.h"
#include "iosched/shared.h"
#include "processes.h"

#include <cstddef>
#include <span>
#include <string>

class Session {
public:
    Session() = default;
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // False with the reason if the file cannot be opened for writing or is no arena.
    bool open(const char *path, std::string *error);

    // Waits at most so long to be the only one who changes the arena from outside. False with the
    // reason if somebody else is at it, or if the ids of its users may mean something else here.
    bool claim(int waitMs, std::string *why);

    std::span<std::byte> bytes() const {
        return {static_cast<std::byte *>(arena_->base), arena_->mapLength};
    }
    const ArenaFile &file() const { return file_; }

private:
    bool knowsItsUsers(std::string *why) const;

    ArenaFile file_;
    SharedArena *arena_ = nullptr;
    bool hadUsers_ = false;  // before this process was one
};
