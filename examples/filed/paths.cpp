#include "paths.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int kAttempts = 16;

int closeKeepingErrno(int fd) {
    const int saved = errno;
    (void)close(fd);
    errno = saved;
    return -1;
}

// What stands in on a kernel without openat2().
int openByWalking(int rootFd, const char *path, int flags, mode_t mode) {
    std::string rest = path;
    if (rest.starts_with('/')) {
        errno = EXDEV;
        return -1;
    }
    int directory = fcntl(rootFd, F_DUPFD_CLOEXEC, 0);
    // Each directory is opened by its own name in the one before, so nothing that happens to the
    // tree meanwhile can lead elsewhere.
    while (directory >= 0) {
        const size_t slash = rest.find('/');
        const std::string name = rest.substr(0, slash);
        if (name == "..") {
            errno = EXDEV;
            return closeKeepingErrno(directory);
        }
        const bool last = slash == std::string::npos;
        const int how = last ? flags | O_NOFOLLOW : O_PATH | O_DIRECTORY | O_NOFOLLOW;
        // An empty name comes of "a//b"; the directory stands for itself.
        const int next =
            openat(directory, name.empty() && !last ? "." : name.c_str(), how | O_CLOEXEC, mode);
        (void)closeKeepingErrno(directory);
        if (last) return next;
        directory = next;
        rest.erase(0, slash + 1);
    }
    return -1;
}

}  // namespace

int openBeneath(int rootFd, const char *path, int flags, mode_t mode) {
    open_how how{};
    how.flags = static_cast<__u64>(flags | O_CLOEXEC);
    how.mode = flags & O_CREAT ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    for (int attempt = 0; attempt < kAttempts; attempt++) {
        const long fd = syscall(SYS_openat2, rootFd, path, &how, sizeof how);
        if (fd >= 0) return static_cast<int>(fd);
        if (errno == ENOSYS) return openByWalking(rootFd, path, flags, mode);
        if (errno != EAGAIN) return -1;  // EAGAIN: a rename raced with ".." in the path
    }
    return -1;
}
