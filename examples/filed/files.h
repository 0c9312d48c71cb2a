// The files that one connection has open, in this process and in the lock table.
#pragma once

#include "filed.h"
#include "modes.h"

#include <iosched/shared.h>
#include <map>
#include <string>

struct OpenFile {
    int fd;
    SharedFileKey key;  // device and inode: the same for every process and every name of the file
    uint32_t mode;
};

// What stood in an open's way.
struct OpenRefusal {
    int code = 0;        // SHARED_ERR_ code; 0 when a system call failed, then errno counts
    uint32_t inUse = 0;  // combined mode of the opens that there are
    SharedFileKey key{};
};

class FileSet {
public:
    explicit FileSet(uint32_t owner) : owner_(owner) {}
    ~FileSet() { closeAll(); }
    FileSet(const FileSet &) = delete;
    FileSet &operator=(const FileSet &) = delete;

    size_t size() const { return files_.size(); }

    // Records the open in the lock table, and only then grants it. Returns the new handle and the
    // file's combined mode, or 0 with what refused it.
    uint32_t open(const std::string &path, const ModeWords &words, uint32_t *combinedMode,
                  OpenRefusal *refusal);
    OpenFile *find(uint32_t handle);
    int close(uint32_t handle);
    void closeAll();

private:
    const uint32_t owner_;
    uint32_t lastHandle_ = 0;
    std::map<uint32_t, OpenFile> files_;
};

// Opens a file beneath the served directory and tells its key. Only regular files are served, and
// not the arena. Returns -1 with errno.
int openServedFile(const std::string &path, int flags, SharedFileKey *key);
