#include "users.h"

#include "proc.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <map>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

bool isThisFile(const std::string &path, const ArenaFile &file) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && status.st_dev == file.device() &&
           status.st_ino == file.inode();
}

// One line of the kernel's lock list, or of a descriptor's information, about a flock lock.
struct FlockLine {
    bool isFlock = false;
    uint32_t pid = 0;
    std::string lock;
    unsigned major = 0;
    unsigned minor = 0;
    uint64_t inode = 0;

    // "1: FLOCK  ADVISORY  READ 4711 08:01:12345 0 EOF"; "1: -> FLOCK ..." waits behind it.
    explicit FlockLine(const std::string &line) {
        const size_t begin = line.find("FLOCK");
        if (begin == line.npos) return;
        std::istringstream words(line.substr(begin));
        std::string skipped, kind;
        int64_t owner = 0;
        char colon = 0;
        if (!(words >> skipped >> skipped >> kind >> owner >> std::hex >> major >> colon >> minor >>
              colon >> std::dec >> inode))
            return;
        isFlock = true;
        pid = owner > 0 ? static_cast<uint32_t>(owner) : 0;
        lock = kind == "WRITE" ? "exclusive" : "shared";
        if (line.find("->") < begin) lock = "waits for " + lock;
    }
};

using UserMap = std::map<uint32_t, ArenaUser>;

ArenaUser &userOf(UserMap *users, uint32_t pid) {
    return users->try_emplace(pid, ArenaUser{pid, {}, {}, false}).first->second;
}

// Calls visit(line) with every flock lock on the file, and with those that wait for one.
template <class Visit>
void eachLock(const ArenaFile &file, Visit visit) {
    eachLine(readText("/proc/locks"), [&](const std::string &text) {
        const FlockLine line(text);
        if (line.isFlock && line.inode == file.inode() && line.major == ::major(file.device()) &&
            line.minor == ::minor(file.device()))
            visit(line);
    });
}

void addLockHolders(const ArenaFile &file, UserMap *users) {
    eachLock(file, [&](const FlockLine &line) {
        if (line.pid != 0) userOf(users, line.pid).lock = line.lock;
    });
}

// Calls visit(pid) with every process but this one.
template <class Visit>
void eachProcess(Visit visit) {
    NumberedEntries processes("/proc");
    uint32_t pid = 0;
    while (processes.isOpen() && processes.next(&pid)) {
        if (pid != static_cast<uint32_t>(::getpid())) visit(pid);
    }
}

// Some file systems go by another device number in the kernel's list than in stat; what a
// descriptor itself says of its lock does not depend on it.
void addOpeners(const ArenaFile &file, UserMap *users) {
    eachProcess([&](uint32_t pid) {
        NumberedEntries descriptors(procPath(pid, "fd"));
        uint32_t fd = 0;
        while (descriptors.isOpen() && descriptors.next(&fd)) {
            const std::string number = std::to_string(fd);
            if (!isThisFile(procPath(pid, "fd/") + number, file)) continue;
            ArenaUser &user = userOf(users, pid);
            user.hasOpen = true;
            if (!user.lock.empty()) continue;
            eachLine(readText(procPath(pid, "fdinfo/") + number), [&](const std::string &text) {
                const FlockLine line(text);
                if (line.isFlock) user.lock = line.lock;
            });
        }
    });
}

std::string commandOf(uint32_t pid) {
    std::string name = readText(procPath(pid, "comm"));
    if (!name.empty() && name.back() == '\n') name.pop_back();
    return name;
}

}  // namespace

std::vector<ArenaUser> arenaUsers(const ArenaFile &file) {
    UserMap users;
    addLockHolders(file, &users);
    addOpeners(file, &users);
    users.erase(static_cast<uint32_t>(::getpid()));
    std::vector<ArenaUser> list;
    for (auto &[pid, user] : users) {
        user.command = commandOf(pid);
        list.push_back(std::move(user));
    }
    return list;
}

Seen hasArenaOpen(uint32_t pid, const ArenaFile &file) {
    NumberedEntries descriptors(procPath(pid, "fd"));
    if (!descriptors.isOpen()) return Seen::kHidden;
    uint32_t fd = 0;
    while (descriptors.next(&fd)) {
        if (isThisFile(procPath(pid, "fd/") + std::to_string(fd), file)) return Seen::kYes;
    }
    return Seen::kNo;
}

Seen mapsArena(uint32_t pid, const ArenaFile &file) {
    const std::string maps = readText(procPath(pid, "maps"));
    if (maps.empty()) return Seen::kHidden;
    if (file.mapsName().empty()) return Seen::kHidden;  // nothing to compare with
    Seen seen = Seen::kNo;
    eachLine(maps, [&](const std::string &line) {
        if (mappedFile(line) == file.mapsName()) seen = Seen::kYes;
    });
    return seen;
}

namespace {

// Whether the process runs as another user. Not the owner of its directory in /proc, which is root
// for a process that has made itself undumpable.
bool isOfAnotherUser(uint32_t pid) {
    std::istringstream status(readText(procPath(pid, "status")));
    for (std::string word; status >> word;) {
        unsigned real = 0, effective = 0;
        if (word != "Uid:" || !(status >> real >> effective)) continue;
        return real != ::geteuid() && effective != ::geteuid();
    }
    return false;
}

// Whoever opens an arena holds the file's lock, or is a child of who does; and a child of an
// ordinary user's process cannot have become another user without losing the mapping. So where
// there are locks, and all that hold them may be looked at, processes of other users are none of
// the arena's.
bool lockHoldersMayBeSeen(const ArenaFile &file) {
    bool any = false, all = true;
    eachLock(file, [&](const FlockLine &line) {
        if (line.pid == static_cast<uint32_t>(::getpid())) return;
        any = true;
        all = all && line.pid != 0 && mapsArena(line.pid, file) != Seen::kHidden;
    });
    return any && all;
}

}  // namespace

bool findMappers(const ArenaFile &file, std::vector<uint32_t> *pids) {
    UserMap lockHolders;
    addLockHolders(file, &lockHolders);
    bool sawAll = true, sawOtherUsers = true;
    eachProcess([&](uint32_t pid) {
        const Seen seen = mapsArena(pid, file);
        if (seen == Seen::kYes) pids->push_back(pid);
        // Kernel threads and those that are ending have no mappings, and no error.
        if (seen != Seen::kHidden || (errno != EACCES && errno != EPERM)) return;
        if (::geteuid() != 0 && isOfAnotherUser(pid))
            sawOtherUsers = false;
        else if (::geteuid() != 0 || lockHolders.contains(pid))
            sawAll = false;
    });
    return sawAll && (sawOtherUsers || lockHoldersMayBeSeen(file));
}

Seen sharesPidNamespace(uint32_t pid) {
    struct stat own, other;
    if (::stat("/proc/self/ns/pid", &own) < 0 ||
        ::stat(procPath(pid, "ns/pid").c_str(), &other) < 0)
        return Seen::kHidden;
    return own.st_dev == other.st_dev && own.st_ino == other.st_ino ? Seen::kYes : Seen::kNo;
}
