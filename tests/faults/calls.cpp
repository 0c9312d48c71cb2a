#include "faults/faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <mntent.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <termios.h>
#include <unistd.h>

Fault *fault;
long liveBlocks, liveMappings;

namespace {

void noteSite(const void *site) {
    const void **end = fault->sites + fault->siteCount;
    if (std::find(fault->sites + 0, end, site) != end) return;
    if (fault->siteCount == std::size(fault->sites)) std::abort();
    fault->sites[fault->siteCount++] = site;
}

// Whether the present call is to fail.
bool failsNow(const char *name, const void *site, int error) {
    if (fault == nullptr || !fault->armed) return false;
    const pid_t self = ::getpid();
    if (self == fault->driver || (self != fault->owner) != fault->inChildren) return false;
    noteSite(site);
    if (std::strstr(fault->spared, name) != nullptr) return false;
    if (fault->instead != 0) error = fault->instead;
    if (fault->name[0] == '\0') {
        if (fault->countdown-- > 0) return false;
        if (fault->isDeadly) (void)::kill(self, SIGKILL);
        std::strcpy(fault->name, name);
        fault->error = error;
    } else if (!fault->forever || fault->repeats == kMostRepeats ||
               std::strcmp(fault->name, name) != 0) {
        return false;
    }
    errno = fault->lastError = fault->repeats++ == 0 ? error : EDOM;
    return true;
}

// What came back from a call, or failed on purpose: keeps the books.
template <class Result>
Result booked(std::string_view name, Result result) {
    if constexpr (std::is_pointer_v<Result>) {
        if (name == "mmap")
            liveMappings += reinterpret_cast<intptr_t>(result) != -1;
        else if (name == "malloc" || name == "calloc" || name == "strdup")
            liveBlocks += result != nullptr;
    } else if (name == "munmap" && result == 0) {
        --liveMappings;
    }
    return result;
}

// A null pointer to reallocate is a new block.
void *counted(void *block) {
    liveBlocks += block == nullptr;
    return block;
}

}  // namespace

// The third argument of a call that may have one.
#define argumentOf(last)                                                                           \
    ({                                                                                             \
        va_list list;                                                                              \
        va_start(list, last);                                                                      \
        const auto argument = va_arg(list, unsigned long);                                         \
        va_end(list);                                                                              \
        argument;                                                                                  \
    })
#define CALL(type, name, parameters, arguments, failure, error)                                    \
    extern "C" type __real_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters {                                                     \
        if (failsNow(#name, __builtin_return_address(0), error)) return failure;                   \
        return booked<type>(#name, __real_##name arguments);                                       \
    }
#pragma GCC diagnostic ignored "-Wpedantic"
#include "faults/calls.h"

// Counted, never failing: free() cannot, and what close() reports, the descriptor is gone.
extern "C" void __real_free(void *block);
extern "C" void __wrap_free(void *block);
extern "C" void __wrap_free(void *block) {
    liveBlocks -= block != nullptr;
    __real_free(block);
}
