#include "session.h"

#include "identity.h"
#include "p9d.h"

#include <cerrno>
#include <climits>
#include <sys/xattr.h>
#include <unistd.h>

Fid::~Fid() {
    if (fd >= 0) (void)close(fd);
}

Session::~Session() {
    while (!fids_.empty())
        (void)dropFid(fids_.begin()->first);
}

struct Session::Row {
    uint8_t type;
    const char *shape;  // of the fields behind the tag
    Handler handler;
};

const Session::Row *Session::rowFor(uint8_t type) {
    static constexpr Row kRows[] = {
        {Tread, "wqw", &Session::read},
        {Twrite, "wqd", &Session::write},
        {Tgetattr, "wq", &Session::getattr},
        {Twalk, "wwn", &Session::walk},
        {Tclunk, "w", &Session::clunk},
        {Tlopen, "ww", &Session::lopen},
        {Treaddir, "wqw", &Session::readdir},
        {Tlcreate, "wswww", &Session::lcreate},
        {Tsetattr, "wwwwwqqqqq", &Session::setattr},
        {Tlock, "wbwqqws", &Session::lock},
        {Tgetlock, "wbqqws", &Session::getlock},
        {Tunlinkat, "wsw", &Session::unlinkat},
        {Tmkdir, "wsww", &Session::mkdir},
        {Trenameat, "wsws", &Session::renameat},
        {Txattrwalk, "wws", &Session::xattrwalk},
        {Txattrcreate, "wsqw", &Session::xattrcreate},
        {Tsymlink, "wssw", &Session::symlink},
        {Treadlink, "w", &Session::readlink},
        {Tlink, "wws", &Session::link},
        {Tmknod, "wswwww", &Session::mknod},
        {Trename, "wws", &Session::rename},
        {Tremove, "w", &Session::remove},
        {Tfsync, "ww", &Session::fsync},
        {Tstatfs, "w", &Session::statfs},
        {Tflush, "h", &Session::flush},
        {Tattach, "wwssw", &Session::attach},
        {Tauth, "wssw", &Session::auth},
        {Tversion, "ws", &Session::version},
    };
    for (const Row &row : kRows)
        if (row.type == type) return &row;
    return nullptr;
}

bool Session::answer(std::string_view request, Outbox *outbox) {
    Reader in(request);
    const uint8_t type = in.u8();
    const uint16_t tag = in.u16();
    const Row *row = rowFor(type);
    if (!in.good() || (row && !in.hasShape(row->shape))) return false;
    Writer out(outbox, static_cast<uint8_t>(type + 1), tag);
    int error = row ? (this->*row->handler)(in, out) : EOPNOTSUPP;
    if (error == 0 && out.size() > messageSize_) error = EMSGSIZE;
    if (error != 0) out.fail(error);
    out.finish();
    return true;
}

// ---- fids ----

Fid *Session::fid(uint32_t number, uint32_t group) {
    const auto found = fids_.find(number);
    if (found == fids_.end()) return errno = EBADF, nullptr;
    actAs(found->second->uid, group);
    return found->second.get();
}

Fid *Session::openFid(uint32_t number) {
    Fid *it = fid(number);
    return it && it->isOpen() ? it : (errno = EBADF, nullptr);
}

Fid *Session::unopenedFid(uint32_t number, uint32_t group) {
    Fid *it = fid(number, group);
    return it && !it->isOpen() && it->attribute == Fid::Attribute::kNone ? it
                                                                         : (errno = EBADF, nullptr);
}

// The descriptor is the fid's from here on, or closed.
Fid *Session::addFid(uint32_t number, int fd, uint32_t uid) {
    if (number == kNoNumber || fids_.contains(number)) {
        if (fd >= 0) (void)close(fd);
        return errno = EBADF, nullptr;
    }
    auto made = std::make_unique<Fid>();
    made->fd = fd;
    made->uid = uid;
    return (fids_[number] = std::move(made)).get();
}

int Session::dropFid(uint32_t number) {
    const auto found = fids_.find(number);
    if (found == fids_.end()) return EBADF;
    const std::unique_ptr<Fid> it = std::move(found->second);
    fids_.erase(found);
    if (it->attribute == Fid::Attribute::kWrite) return finishAttribute(*it);
    struct stat info;
    if (it->isOpen() && fstat(it->fd, &info) == 0 && S_ISREG(info.st_mode)) {
        const SharedFileKey key{info.st_ino, info.st_dev};
        (void)CloseSharedFile(share.table, 2 * id_, number, &key);
    }
    return 0;
}

// What was written to an attribute becomes its value when its fid goes; nothing written removes it.
int Session::finishAttribute(const Fid &it) {
    if (it.written != it.value.size()) return EINVAL;
    actAs(it.uid);
    const std::string path = procPath(it.fd);
    const int result = it.value.empty()
                           ? removexattr(path.c_str(), it.attributeName.c_str())
                           : setxattr(path.c_str(), it.attributeName.c_str(), it.value.data(),
                                      it.value.size(), it.attributeFlags);
    return result == 0 ? 0 : errno;
}

// The fid takes the opened descriptor over. Opens of files are recorded in the table: locks need
// that, and servers that share the arena see them.
int Session::recordOpen(uint32_t number, Fid *it, int fd, int flags) {
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        const int access = flags & O_ACCMODE;
        const uint32_t mode = (access != O_WRONLY ? SHARED_FILE_READ : 0) |
                              (access != O_RDONLY ? SHARED_FILE_WRITE : 0);
        const SharedFileKey key{info.st_ino, info.st_dev};
        uint32_t combined = 0;
        const int code =
            OpenSharedFile(share.table, 2 * id_, number, &key, mode, 0, nullptr, &combined);
        if (code != 0) {
            (void)close(fd);
            return code == SHARED_ERR_NOLOCKS ? ENFILE : code == SCHED_ERR_SYSTEM ? EIO : EACCES;
        }
    }
    (void)close(it->fd);
    it->fd = fd;
    it->flags = flags;
    return 0;
}

// ---- what the request files share ----

Qid qidOf(const struct stat &info) {
    const int type = S_ISDIR(info.st_mode) ? 0x80 : S_ISLNK(info.st_mode) ? 0x02 : 0;
    return {static_cast<uint8_t>(type), 0, info.st_ino};
}

std::string procPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

int checkName(const std::string &name) {
    if (name.size() > NAME_MAX) return ENAMETOOLONG;
    const bool isOne =
        !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
    return isOne ? 0 : EINVAL;
}

int appendQid(int dir, const std::string &name, Writer &out) {
    struct stat info;
    if (fstatat(dir, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    out.qid(qidOf(info));
    return 0;
}
