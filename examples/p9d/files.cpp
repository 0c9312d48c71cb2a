// Opening, reading and writing, directories, locks.

#include "session.h"

#include "identity.h"
#include "p9d.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <dirent.h>
#include <iosched/util.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr uint32_t kFileSystemType = 0x01021997;
// What a client's open may ask of the server's; O_APPEND is the client's business, which sends
// offsets.
constexpr int kOpenFlags = O_ACCMODE | O_TRUNC | O_DIRECTORY | O_SYNC | O_DSYNC;

// Of locks on the wire.
enum LockType : uint8_t { kRead = 0, kWrite = 1, kUnlock = 2 };
enum LockStatus : uint8_t { kSuccess = 0, kBlocked = 1, kError = 2 };

// A length of 0 stands for all from the start on.
bool rangeOf(uint64_t start, uint64_t length, LockRange *range) {
    if (start > INT64_MAX || (length != 0 && length - 1 > INT64_MAX - start)) return false;
    range->start = static_cast<int64_t>(start);
    range->end = length == 0 ? INT64_MAX : static_cast<int64_t>(start + length - 1);
    return true;
}

}  // namespace

int Session::statfs(Reader &in, Writer &out) {
    const Fid *it = fid(in.u32());
    struct statfs info;
    FSInfo room;
    // The lookup of a quota would stat every mount point of the machine. One of them may be of this
    // export, and this worker the one to answer.
    if (!it || fstatfs(it->fd, &info) != 0 ||
        GetFSInfo(it->fd, nullptr, FSINFO_NO_QUOTA, &room) != 0)
        return errno;
    uint64_t fileSystem = 0;
    std::memcpy(&fileSystem, &info.f_fsid, sizeof fileSystem);
    out.u32(kFileSystemType).u32(static_cast<uint32_t>(room.blockSize)).u64(room.totalBlocks);
    out.u64(room.fsFreeBlocks).u64(room.freeBlocks).u64(room.totalFiles).u64(room.freeFiles);
    out.u64(fileSystem).u32(static_cast<uint32_t>(info.f_namelen));
    return 0;
}

// Through its link in /proc the descriptor's own inode is opened, whatever has its name by now.
// Only files and directories: a pipe could keep the worker waiting, and clients open those by
// themselves.
int Session::lopen(Reader &in, Writer &out) {
    const uint32_t number = in.u32();
    const int flags = static_cast<int>(in.u32()) & kOpenFlags;
    Fid *it = unopenedFid(number);
    struct stat info;
    if (!it || fstat(it->fd, &info) != 0) return errno;
    if (S_ISLNK(info.st_mode)) return ELOOP;
    if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode)) return EOPNOTSUPP;
    const int fd = open(procPath(it->fd).c_str(), flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) return errno;
    if (const int error = recordOpen(number, it, fd, flags)) return error;
    out.qid(qidOf(info)).u32(0);  // no size of transfers is better than another
    return 0;
}

int Session::lcreate(Reader &in, Writer &out) {
    const uint32_t number = in.u32();
    const std::string name = in.string();
    const int flags = static_cast<int>(in.u32()) & (kOpenFlags | O_EXCL);
    const mode_t mode = in.u32();
    Fid *it = unopenedFid(number, in.u32());
    if (!it) return errno;
    if (const int error = checkName(name)) return error;
    // Not through a link, and no pipe that lies there already.
    const int fd = openat(it->fd, name.c_str(),
                          flags | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) return errno;
    if (const int error = recordOpen(number, it, fd, flags)) return error;
    out.qid(qidOf(info)).u32(0);
    return 0;
}

int Session::read(Reader &in, Writer &out) {
    const Fid *it = fid(in.u32());
    const uint64_t offset = in.u64();
    const uint32_t count = std::min(in.u32(), messageSize_ - kIoHeaderBytes);
    if (!it) return EBADF;
    if (it->attribute == Fid::Attribute::kRead) {
        const size_t from = std::min<uint64_t>(offset, it->value.size());
        const size_t size = std::min<size_t>(count, it->value.size() - from);
        out.u32(static_cast<uint32_t>(size));
        std::memcpy(out.room(size), it->value.data() + from, size);
        return 0;
    }
    if (!it->isOpen()) return EBADF;
    out.u32(0);
    const ssize_t got = pread(it->fd, out.room(count), count, static_cast<off_t>(offset));
    if (got < 0) return errno;
    out.giveBack(count - static_cast<size_t>(got));
    out.patch(kHeaderBytes, static_cast<uint32_t>(got));
    return 0;
}

int Session::write(Reader &in, Writer &out) {
    Fid *it = fid(in.u32());
    const uint64_t offset = in.u64();
    const std::string_view data = in.bytes(in.u32());
    if (!it) return EBADF;
    if (it->attribute == Fid::Attribute::kWrite) {
        if (offset != it->written || data.size() > it->value.size() - it->written) return EINVAL;
        it->value.replace(it->written, data.size(), data);
        it->written += data.size();
        out.u32(static_cast<uint32_t>(data.size()));
        return 0;
    }
    if (!it->isOpen()) return EBADF;
    const ssize_t put = pwrite(it->fd, data.data(), data.size(), static_cast<off_t>(offset));
    if (put < 0) return errno;
    out.u32(static_cast<uint32_t>(put));
    return 0;
}

// A client's offsets are the kernel's own, so entries that come and go between two reads do no
// harm.
int Session::readdir(Reader &in, Writer &out) {
    constexpr size_t kEntryBytes = 24;  // qid, offset, type, length of the name
    const Fid *it = openFid(in.u32());
    const auto offset = static_cast<off_t>(in.u64());
    const uint32_t count = std::min(in.u32(), messageSize_ - kIoHeaderBytes);
    if (!it || lseek(it->fd, offset, SEEK_SET) < 0) return errno;
    alignas(dirent64) char entries[32768];
    const size_t room = std::min<size_t>(count, sizeof entries);
    const long got = syscall(SYS_getdents64, it->fd, entries, room);
    if (got < 0) return errno;
    out.u32(0);
    for (long at = 0; at < got;) {
        const auto *entry = reinterpret_cast<const dirent64 *>(entries + at);
        const std::string_view name = entry->d_name;
        if (out.size() - kHeaderBytes - sizeof count + kEntryBytes + name.size() > count) break;
        struct stat info {};
        info.st_mode = static_cast<mode_t>(DTTOIF(entry->d_type));
        info.st_ino = entry->d_ino;
        out.qid(qidOf(info)).u64(static_cast<uint64_t>(entry->d_off));
        out.u8(entry->d_type).string(name);
        at += entry->d_reclen;
    }
    out.patch(kHeaderBytes, static_cast<uint32_t>(out.size() - kHeaderBytes - sizeof count));
    return 0;
}

int Session::fsync(Reader &in, Writer &) {
    const Fid *it = openFid(in.u32());
    const bool dataOnly = in.u32() != 0;
    return it && (dataOnly ? fdatasync(it->fd) : ::fsync(it->fd)) == 0 ? 0 : errno;
}

// Never waits: a client that may wait is told that it is blocked, and asks again.
int Session::lock(Reader &in, Writer &out) {
    const Fid *it = openFid(in.u32());
    const uint8_t type = in.u8();
    (void)in.u32();  // whether the client would wait
    const uint64_t start = in.u64(), length = in.u64();
    const uint32_t process = in.u32();
    const std::string client = in.string();
    LockRange range{0, 0, type == kWrite};
    struct stat info;
    if (!rangeOf(start, length, &range) || type > kUnlock) return EINVAL;
    if (!it || fstat(it->fd, &info) != 0) return errno;
    const LockHolderKey key{info.st_dev, info.st_ino, process};
    const LockSet::Result result =
        type == kUnlock ? locks_.unlock(key, range) : locks_.lock(key, range, client);
    const LockStatus refusal = result == LockSet::Result::kBlocked ? kBlocked : kError;
    out.u8(result == LockSet::Result::kGranted ? kSuccess : refusal);
    return 0;
}

int Session::getlock(Reader &in, Writer &out) {
    const Fid *it = openFid(in.u32());
    const uint8_t type = in.u8();
    const uint64_t start = in.u64(), length = in.u64();
    const uint32_t process = in.u32();
    const std::string client = in.string();
    LockRange range{0, 0, type == kWrite};
    struct stat info;
    if (!rangeOf(start, length, &range)) return EINVAL;
    if (!it || fstat(it->fd, &info) != 0) return errno;
    LedgerEntry other;
    if (locks_.isFree({info.st_dev, info.st_ino, process}, range, &other)) {
        out.u8(kUnlock).u64(start).u64(length).u32(process).string(client);
        return 0;
    }
    const uint64_t bytes =
        static_cast<uint64_t>(other.end) - static_cast<uint64_t>(other.start) + 1;
    out.u8(other.exclusive ? kWrite : kRead).u64(static_cast<uint64_t>(other.start));
    out.u64(other.end == INT64_MAX ? 0 : bytes).u32(other.process).string(other.client);
    return 0;
}
