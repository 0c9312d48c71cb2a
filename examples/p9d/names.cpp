// Names that come, move and go.

#include "session.h"

#include "p9d.h"

#include <cerrno>
#include <climits>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

// Where a fid's file is now. Two requests name a file by its fid and mean its name, which a
// descriptor does not have: the kernel tells where it is, and that way is gone again below the
// tree's root, through no link, to the very same file.
class Place {
public:
    explicit Place(const Fid &it) {
        char link[PATH_MAX], root[PATH_MAX];
        const ssize_t length = ::readlink(procPath(it.fd).c_str(), link, sizeof link);
        const ssize_t above = ::readlink(procPath(rootFd).c_str(), root, sizeof root);
        if (length < 0 || above < 0) return;
        const std::string path(link, static_cast<size_t>(length));
        const std::string tree(root, above == 1 ? 0 : static_cast<size_t>(above));  // "/" is ""
        const size_t slash = path.rfind('/');
        if (path.size() <= tree.size() || path.compare(0, tree.size(), tree) != 0) return;
        name_ = path.substr(slash + 1);
        const std::string way = slash > tree.size()
                                    ? path.substr(tree.size() + 1, slash - tree.size())
                                    : std::string(".");
        open_how how{};
        how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
        dir_ = static_cast<int>(syscall(SYS_openat2, rootFd, way.c_str(), &how, sizeof how));
        struct stat there, here;
        isRight_ = dir_ >= 0 && fstat(it.fd, &here) == 0 &&
                   fstatat(dir_, name_.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
                   there.st_dev == here.st_dev && there.st_ino == here.st_ino;
    }
    ~Place() {
        if (dir_ >= 0) (void)close(dir_);
    }
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;

    bool isRight() const { return isRight_; }
    int dir() const { return dir_; }
    const char *name() const { return name_.c_str(); }

private:
    int dir_ = -1;
    std::string name_;
    bool isRight_ = false;
};

}  // namespace

int Session::symlink(Reader &in, Writer &out) {
    const uint32_t number = in.u32();
    const std::string name = in.string(), target = in.string();
    const Fid *dir = fid(number, in.u32());
    if (!dir) return errno;
    if (const int error = checkName(name)) return error;
    if (symlinkat(target.c_str(), dir->fd, name.c_str()) != 0) return errno;
    return appendQid(dir->fd, name, out);
}

int Session::mknod(Reader &in, Writer &out) {
    const uint32_t number = in.u32();
    const std::string name = in.string();
    const mode_t mode = in.u32();
    const uint32_t majorNumber = in.u32(), minorNumber = in.u32();
    const Fid *dir = fid(number, in.u32());
    if (!dir) return errno;
    if (const int error = checkName(name)) return error;
    if (mknodat(dir->fd, name.c_str(), mode, makedev(majorNumber, minorNumber)) != 0) return errno;
    return appendQid(dir->fd, name, out);
}

int Session::mkdir(Reader &in, Writer &out) {
    const uint32_t number = in.u32();
    const std::string name = in.string();
    const mode_t mode = in.u32();
    const Fid *dir = fid(number, in.u32());
    if (!dir) return errno;
    if (const int error = checkName(name)) return error;
    if (mkdirat(dir->fd, name.c_str(), mode) != 0) return errno;
    return appendQid(dir->fd, name, out);
}

int Session::link(Reader &in, Writer &) {
    const Fid *dir = fid(in.u32());
    const Fid *file = fid(in.u32());
    const std::string name = in.string();
    if (!dir || !file) return EBADF;
    if (const int error = checkName(name)) return error;
    return linkat(AT_FDCWD, procPath(file->fd).c_str(), dir->fd, name.c_str(), AT_SYMLINK_FOLLOW) ==
                   0
               ? 0
               : errno;
}

int Session::readlink(Reader &in, Writer &out) {
    const Fid *it = fid(in.u32());
    char target[PATH_MAX];
    const ssize_t length = it ? readlinkat(it->fd, "", target, sizeof target) : -1;
    if (length < 0) return errno;
    out.string({target, static_cast<size_t>(length)});
    return 0;
}

int Session::rename(Reader &in, Writer &) {
    const Fid *it = fid(in.u32());
    const Fid *dir = fid(in.u32());
    const std::string name = in.string();
    if (!it || !dir) return EBADF;
    if (const int error = checkName(name)) return error;
    const Place place(*it);
    if (!place.isRight()) return ENOENT;
    return ::renameat(place.dir(), place.name(), dir->fd, name.c_str()) == 0 ? 0 : errno;
}

int Session::renameat(Reader &in, Writer &) {
    const Fid *from = fid(in.u32());
    const std::string oldName = in.string();
    const Fid *to = fid(in.u32());
    const std::string newName = in.string();
    if (!from || !to) return EBADF;
    if (const int error = checkName(oldName)) return error;
    if (const int error = checkName(newName)) return error;
    return ::renameat(from->fd, oldName.c_str(), to->fd, newName.c_str()) == 0 ? 0 : errno;
}

int Session::unlinkat(Reader &in, Writer &) {
    const Fid *dir = fid(in.u32());
    const std::string name = in.string();
    const int flags = static_cast<int>(in.u32()) & AT_REMOVEDIR;
    if (!dir) return errno;
    if (const int error = checkName(name)) return error;
    return ::unlinkat(dir->fd, name.c_str(), flags) == 0 ? 0 : errno;
}

// The fid goes whether or not its file does.
int Session::remove(Reader &in, Writer &) {
    const uint32_t number = in.u32();
    const Fid *it = fid(number);
    if (!it) return errno;
    int error = ENOENT;
    struct stat info;
    const Place place(*it);
    if (place.isRight() && fstat(it->fd, &info) == 0) {
        const int flags = S_ISDIR(info.st_mode) ? AT_REMOVEDIR : 0;
        error = ::unlinkat(place.dir(), place.name(), flags) == 0 ? 0 : errno;
    }
    (void)dropFid(number);
    return error;
}
