#include "session.h"

#include "result_words.h"
#include "text.h"
#include "users.h"
#include "waiting.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>

namespace {

// No arena is so long, so the byte is nobody's.
constexpr off_t kClaimOffset = off_t{1} << 62;

std::string openFailure(uint32_t result) {
    const ResultWords *const words = wordsOfResult(result);
    if (result == SCHED_ERR_SYSTEM || words == nullptr)
        return std::string(std::strerror(errno)) + "; arenactl explain tells more about an errno";
    return std::string(words->meaning) + "; " + words->remedy;
}

}  // namespace

Session::~Session() {
    if (arena_ != nullptr) (void)CloseSharedArena(arena_);
}

bool Session::open(const char *path, std::string *error) {
    if (!file_.open(path, error)) return false;
    {
        const FdGuard probe(::open(path, O_RDWR | O_CLOEXEC | O_NOCTTY));
        if (probe.get() < 0) {
            *error = printed("%s: opening it for writing: %s; run as the servers' user or as root",
                             path, std::strerror(errno));
            return false;
        }
        hadUsers_ = ::flock(probe.get(), LOCK_EX | LOCK_NB) < 0;
    }
    const uint32_t result = OpenSharedArena(path, 0, 0, 0, &arena_);
    if (result == 0) return true;
    arena_ = nullptr;
    *error = printed("%s: %s", path, openFailure(result).c_str());
    return false;
}

bool Session::claim(int waitMs, std::string *why) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = kClaimOffset;
    lock.l_len = 1;
    const int64_t deadline = nowMs() + waitMs;
    while (::fcntl(arena_->descriptor, F_OFD_SETLK, &lock) < 0) {
        const bool isTaken = errno == EAGAIN || errno == EACCES;
        if (isTaken && nowMs() < deadline) {
            restOneMs();
            continue;
        }
        *why = isTaken ? "another process is repairing or cleaning this arena"
                       : printed("locking the file: %s", std::strerror(errno));
        return false;
    }
    return knowsItsUsers(why);
}

// Whether a process is dead is told by its id, which means nothing outside its namespace.
bool Session::knowsItsUsers(std::string *why) const {
    std::vector<uint32_t> pids;
    (void)findMappers(file_, &pids);
    for (const ArenaUser &user : arenaUsers(file_))
        pids.push_back(user.pid);
    for (const uint32_t pid : pids) {
        const Seen shared = sharesPidNamespace(pid);
        if (shared == Seen::kYes || !hasEnded(Processes::bareLife(pid))) continue;
        *why =
            shared == Seen::kNo
                ? printed("process %" PRIu32 ", which uses the arena, lives in another namespace "
                          "of process ids: run there",
                          pid)
                : printed("it cannot be seen in which namespace of process ids %" PRIu32
                          " lives, which uses the arena: run as root",
                          pid);
        return false;
    }
    if (!hadUsers_ || !pids.empty()) return true;
    *why = "the arena is in use by processes that cannot be seen from here: they may live in "
           "another namespace of process ids; run there, as root";
    return false;
}
