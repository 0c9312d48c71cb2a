// Start-up: the version handshake and the modules' initialisers, in their fixed order.

#include "sched/sched_internal.h"

#include "aio/aio_internal.h"
#include "procs/procs_internal.h"
#include "sched/ready_internal.h"
#include "shared/shared_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Successful InitSched calls not yet matched by ExitSched.
int schedInitCount = 0;

// Later modules build on earlier ones: signals need the descriptor table, children and timers need
// signals, and a failed start runs the whole table again.
constexpr struct {
    const char *name;
    int (*init)(void);
} kModules[] = {
    {"initIosched", initIosched},     {"initSignals", initSignals},
    {"initProcesses", initProcesses}, {"initDelayedCalls", initDelayedCalls},
    {"initTimers", initTimers},       {"initAsyncIO", initAsyncIO},
    {"initMutexes", initMutexes},
};

// The text behind the prefix of InitSched's message, cut to what room there is.
struct MessageRest {
    char *text;
    size_t room;
};

MessageRest writePrefix(char *msg, int msgSize, int major, int minor) {
    if (msgSize < 1) return {nullptr, 0};
    const auto size = static_cast<size_t>(msgSize);
    const int written = std::snprintf(msg, size, "iosched(%d.%d,%d.%d):", SCHED_VERSION_MAJOR,
                                      SCHED_VERSION_MINOR, major, minor);
    const auto length = static_cast<size_t>(written);
    if (written < 0 || length >= size) return {nullptr, 0};
    return {msg + length, size - length};
}

// What is wrong with the caller's version, or null.
const char *versionVerdict(int major, int minor) {
    if (major > SCHED_VERSION_MAJOR) return "library too old";
    if (major < SCHED_VERSION_MAJOR) return "library too new";
    if (minor > SCHED_VERSION_MINOR) return "library too old";
    return nullptr;
}

int startModules(MessageRest rest) {
    for (const auto &module : kModules) {
        if (module.init() == 0) continue;
        const int error = errno;
        (void)std::snprintf(rest.text, rest.room, "%s: %s", module.name, std::strerror(error));
        errno = error;
        return SCHED_ERR_SYSTEM;
    }
    return 0;
}

}  // namespace

int InitSched(int major, int minor, char *msg, int msgSize) {
    const MessageRest rest = writePrefix(msg, msgSize, major, minor);
    if (const char *verdict = versionVerdict(major, minor)) {
        (void)std::snprintf(rest.text, rest.room, "%s", verdict);
        return SCHED_ERR_VERSION;
    }
    if (schedInitCount == 0) {
        // At a second start, catching SIGCHLD lets in whatever other signals have been waiting
        // since the first; their callbacks belong into a pass.
        holdSignalCallbacks(true);
        const int result = startModules(rest);
        holdSignalCallbacks(false);
        if (result != 0) return result;
        openReadySets();
    }
    ++schedInitCount;
    return 0;
}

int ExitSched(void) {
    --schedInitCount;
    if (schedInitCount < 0) std::abort();
    if (schedInitCount == 0) {
        exitSignals();
        exitIosched();
    }
    return schedInitCount;
}
