// A private copy of an arena file, taken without a trace in it.
//
// Locking an arena's mutex writes to the arena, and a looker that died with it would hang every
// server. So nothing is ever locked: the file is read twice, and a copy that the second reading
// finds unchanged, with all its mutexes free, is the arena as it was at a moment between the two.
// When no such moment comes in time the last copy is handed out as best effort. Everything is
// pread into memory of our own: a mapping would fault when the file shrinks.
#pragma once

#include "support/guards.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <sys/types.h>

class ArenaFile {
public:
    // Opens for reading only. False with the reason, ready to print, if that cannot be done.
    bool open(const char *path, std::string *error);

    int descriptor() const { return fd_.get(); }
    dev_t device() const { return device_; }
    ino_t inode() const { return inode_; }
    const std::string &path() const { return path_; }
    // "08:01 12345": device and inode as the kernel prints them in lists of mappings. The device
    // need not be the one of stat: some file systems have one of their own for every subvolume.
    const std::string &mapsName() const { return mapsName_; }

private:
    FdGuard fd_{-1};
    std::string mapsName_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    std::string path_;
};

class ArenaImage {
public:
    std::span<const std::byte> bytes() const { return {bytes_.get(), size_}; }

    // Reads the file again. Sets *changed if anything is different from what was there before.
    // False with the reason if the file cannot be read.
    bool refresh(const ArenaFile &file, bool *changed, std::string *error);

private:
    bool resize(uint64_t size);

    struct FreeBytes {
        void operator()(std::byte *bytes) const { std::free(bytes); }
    };

    // Not a vector: running out of memory is an answer here, not the end.
    std::unique_ptr<std::byte, FreeBytes> bytes_;
    uint64_t size_ = 0;
    uint64_t room_ = 0;
};
