// What is known of a file, and its extended attributes.

#include "session.h"

#include <cerrno>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

constexpr uint64_t kBasicFields = 0x7ff;  // of getattr: all that stat tells
constexpr size_t kLargestAttribute = 65536;

// Of setattr.
enum Valid : uint32_t {
    kMode = 0x1,
    kUid = 0x2,
    kGid = 0x4,
    kSize = 0x8,
    kAccessTime = 0x10,
    kChangeTime = 0x20,
    kAccessTimeGiven = 0x80,
    kChangeTimeGiven = 0x100,
};

struct Attributes {
    uint32_t valid, mode, uid, gid;
    uint64_t size;
    timespec times[2];
};

// In this order: a change of owner takes set-id bits away that a mode may give, and a change of
// size moves the time that may be set.
int apply(const Fid &it, Attributes &wanted) {
    const std::string path = procPath(it.fd);
    const uint32_t valid = wanted.valid;
    if (valid & (kUid | kGid) &&
        fchownat(it.fd, "", valid & kUid ? wanted.uid : kNoNumber,
                 valid & kGid ? wanted.gid : kNoNumber, AT_EMPTY_PATH) != 0)
        return errno;
    if (valid & kMode && chmod(path.c_str(), wanted.mode) != 0) return errno;
    if (valid & kSize) {
        // Who has it open for writing may cut it, whatever its mode says by now.
        const bool isWritable = it.isOpen() && (it.flags & O_ACCMODE) != O_RDONLY;
        const auto size = static_cast<off_t>(wanted.size);
        if ((isWritable ? ftruncate(it.fd, size) : truncate(path.c_str(), size)) != 0) return errno;
    }
    if (valid & (kAccessTime | kChangeTime)) {
        if (!(valid & kAccessTimeGiven))
            wanted.times[0].tv_nsec = valid & kAccessTime ? UTIME_NOW : UTIME_OMIT;
        if (!(valid & kChangeTimeGiven))
            wanted.times[1].tv_nsec = valid & kChangeTime ? UTIME_NOW : UTIME_OMIT;
        if (utimensat(it.fd, "", wanted.times, AT_EMPTY_PATH) != 0) return errno;
    }
    return 0;
}

// A device's number as the client's kernel has it.
uint64_t deviceNumber(dev_t device) {
    return uint64_t{major(device)} << 8 | (minor(device) & 0xff) |
           (uint64_t{minor(device)} & ~0xffu) << 12;
}

}  // namespace

int Session::getattr(Reader &in, Writer &out) {
    const Fid *it = fid(in.u32());
    (void)in.u64();  // which fields: all of them cost the same
    struct stat info;
    if (!it || fstat(it->fd, &info) != 0) return errno;
    out.u64(kBasicFields).qid(qidOf(info));
    out.u32(info.st_mode).u32(info.st_uid).u32(info.st_gid).u64(info.st_nlink);
    out.u64(deviceNumber(info.st_rdev)).u64(static_cast<uint64_t>(info.st_size));
    out.u64(static_cast<uint64_t>(info.st_blksize)).u64(static_cast<uint64_t>(info.st_blocks));
    for (const timespec &time : {info.st_atim, info.st_mtim, info.st_ctim, timespec{}})
        out.u64(static_cast<uint64_t>(time.tv_sec)).u64(static_cast<uint64_t>(time.tv_nsec));
    out.u64(0).u64(0);  // generation, version of the data
    return 0;
}

int Session::setattr(Reader &in, Writer &) {
    const Fid *it = fid(in.u32());
    Attributes wanted{};
    wanted.valid = in.u32();
    wanted.mode = in.u32();
    wanted.uid = in.u32();
    wanted.gid = in.u32();
    wanted.size = in.u64();
    for (timespec &time : wanted.times) {
        time.tv_sec = static_cast<time_t>(in.u64());
        time.tv_nsec = static_cast<long>(in.u64());
    }
    if (!it) return EBADF;
    return apply(*it, wanted);
}

int Session::xattrwalk(Reader &in, Writer &out) {
    const Fid *it = fid(in.u32());
    const uint32_t number = in.u32();
    const std::string name = in.string();
    if (!it || it->attribute != Fid::Attribute::kNone) return EBADF;
    const std::string path = procPath(it->fd);
    std::string value(kLargestAttribute, '\0');
    const ssize_t size = name.empty()
                             ? listxattr(path.c_str(), value.data(), value.size())
                             : getxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (size < 0) return errno;
    Fid *made = addFid(number, -1, it->uid);
    if (!made) return errno;
    value.resize(static_cast<size_t>(size));
    made->attribute = Fid::Attribute::kRead;
    made->value = std::move(value);
    out.u64(static_cast<uint64_t>(size));
    return 0;
}

// The fid becomes the attribute's; what is written to it counts when it is clunked.
int Session::xattrcreate(Reader &in, Writer &) {
    Fid *it = unopenedFid(in.u32());
    const std::string name = in.string();
    const uint64_t size = in.u64();
    const auto flags = static_cast<int>(in.u32());
    if (!it) return EBADF;
    if (size > kLargestAttribute) return E2BIG;
    it->attribute = Fid::Attribute::kWrite;
    it->attributeName = name;
    it->attributeFlags = flags;
    it->value.assign(size, '\0');
    return 0;
}
