#include "files.h"
#include "paths.h"
#include "prefork/share.h"
#include "worker.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

int openServedFile(const std::string &path, int flags, SharedFileKey *key) {
    // Without O_NONBLOCK the open of a FIFO would stop the whole worker.
    const int fd = openBeneath(worker::rootFd, path.c_str(), flags | O_NONBLOCK | O_NOCTTY, 0644);
    if (fd < 0) return -1;
    struct stat info;
    const bool isFile = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    const bool isArena = isFile && info.st_dev == share.device && info.st_ino == share.inode;
    if (!isFile || isArena) {
        (void)close(fd);
        errno = isArena ? EACCES : EMEDIUMTYPE;
        return -1;
    }
    *key = {info.st_dev, info.st_ino};
    return fd;
}

namespace {

int accessFlags(const ModeWords &words) {
    const bool reads = words.mode & SHARED_FILE_READ, writes = words.mode & SHARED_FILE_WRITE;
    const int access = writes ? (reads ? O_RDWR : O_WRONLY) : O_RDONLY;
    return access | (words.create ? O_CREAT : 0);
}

}  // namespace

uint32_t FileSet::open(const std::string &path, const ModeWords &words, uint32_t *combinedMode,
                       OpenRefusal *refusal) {
    OpenFile file{};
    file.fd = openServedFile(path, accessFlags(words), &file.key);
    if (file.fd < 0) return 0;
    uint32_t handle = lastHandle_ + 1;
    while (handle == 0 || files_.count(handle) != 0)  // the numbers have come round
        handle++;
    refusal->key = file.key;
    refusal->code = OpenSharedFile(share.table, owner_, handle, &file.key, words.mode,
                                   words.maxOpens, path.c_str(), &refusal->inUse);
    if (refusal->code != 0) {
        (void)::close(file.fd);
        return 0;
    }
    file.mode = words.mode & ~SHARED_FILE_IGNORE_OPLOCKS;
    *combinedMode = refusal->inUse;
    files_[handle] = file;
    lastHandle_ = handle;
    return handle;
}

OpenFile *FileSet::find(uint32_t handle) {
    const auto found = files_.find(handle);
    return found == files_.end() ? nullptr : &found->second;
}

int FileSet::close(uint32_t handle) {
    const OpenFile file = *find(handle);
    files_.erase(handle);
    (void)::close(file.fd);
    return CloseSharedFile(share.table, owner_, handle, &file.key);
}

void FileSet::closeAll() {
    while (!files_.empty())
        (void)close(files_.begin()->first);
}
