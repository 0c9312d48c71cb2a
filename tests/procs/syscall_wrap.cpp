#include "procs/syscall_wrap.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sys/wait.h>
#include <utility>

bool failNextFork = false;
bool forksAwaitTheEnd = false;

namespace {

FakeDevices *fakeDevices = nullptr;

}  // namespace

FakeDevices::FakeDevices(std::string path) : present(std::move(path)) {
    fakeDevices = this;
}

FakeDevices::~FakeDevices() {
    fakeDevices = nullptr;
}

extern "C" {
pid_t __real_fork(void);
int __real_open(const char *path, int flags, ...);
pid_t __wrap_fork(void);
int __wrap_open(const char *path, int flags, ...);

pid_t __wrap_fork(void) {
    if (std::exchange(failNextFork, false)) {
        errno = EAGAIN;
        return -1;
    }
    const pid_t pid = __real_fork();
    siginfo_t info;
    if (pid > 0 && forksAwaitTheEnd)
        (void)::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    return pid;
}

int __wrap_open(const char *path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (fakeDevices == nullptr) return __real_open(path, flags, mode);
    fakeDevices->tried.emplace_back(path);
    if (fakeDevices->present == path) return __real_open("/dev/null", flags, mode);
    errno = ENOENT;
    return -1;
}
}
