#include "processes.h"

#include "text.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <signal.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

class Directory {
public:
    explicit Directory(const std::string &path) : dir_(::opendir(path.c_str())) {}
    ~Directory() {
        if (dir_) (void)::closedir(dir_);
    }
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

    bool isOpen() const { return dir_ != nullptr; }

    // The next entry whose name is a number, or null.
    const char *nextNumber() {
        while (const dirent *entry = ::readdir(dir_)) {
            if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') return entry->d_name;
        }
        return nullptr;
    }

private:
    DIR *dir_;
};

// A file of /proc as a whole; empty if it cannot be read.
std::string readText(const std::string &path) {
    const FdGuard fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    if (fd.get() < 0) return text;
    char buffer[16384];
    ssize_t got;
    while ((got = ::read(fd.get(), buffer, sizeof(buffer))) > 0)
        text.append(buffer, static_cast<size_t>(got));
    return text;
}

// Calls visit(line) with every line, without its newline.
template <class Visit>
void eachLine(std::string_view text, Visit visit) {
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        visit(std::string(text.substr(0, end)));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

std::string procPath(uint32_t pid, const char *name) {
    return printed("/proc/%" PRIu32 "/%s", pid, name);
}

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

void addLockHolders(const ArenaFile &file, UserMap *users) {
    eachLine(readText("/proc/locks"), [&](const std::string &text) {
        const FlockLine line(text);
        if (!line.isFlock || line.pid == 0 || line.inode != file.inode() ||
            line.major != ::major(file.device()) || line.minor != ::minor(file.device()))
            return;
        userOf(users, line.pid).lock = line.lock;
    });
}

// Some file systems go by another device number in the kernel's list than in stat; what a
// descriptor itself says of its lock does not depend on it.
void addOpeners(const ArenaFile &file, UserMap *users) {
    Directory processes("/proc");
    if (!processes.isOpen()) return;
    while (const char *name = processes.nextNumber()) {
        const auto pid = static_cast<uint32_t>(std::strtoul(name, nullptr, 10));
        if (pid == static_cast<uint32_t>(::getpid())) continue;
        Directory descriptors(procPath(pid, "fd"));
        if (!descriptors.isOpen()) continue;
        while (const char *fd = descriptors.nextNumber()) {
            if (!isThisFile(procPath(pid, "fd/") + fd, file)) continue;
            ArenaUser &user = userOf(users, pid);
            user.hasOpen = true;
            if (!user.lock.empty()) continue;
            eachLine(readText(procPath(pid, "fdinfo/") + fd), [&](const std::string &text) {
                const FlockLine line(text);
                if (line.isFlock) user.lock = line.lock;
            });
        }
    }
}

std::string commandOf(uint32_t pid) {
    std::string name = readText(procPath(pid, "comm"));
    if (!name.empty() && name.back() == '\n') name.pop_back();
    return name;
}

bool isZombie(uint32_t pid) {
    const std::string stat = readText(procPath(pid, "stat"));
    const size_t end = stat.rfind(')');  // the command's name may hold anything
    if (end == stat.npos || end + 2 >= stat.size()) return false;
    return stat[end + 2] == 'Z' || stat[end + 2] == 'X';
}

}  // namespace

const char *lifeWords(Life life) {
    switch (life) {
    case Life::kAlive:
        return "alive";
    case Life::kStranger:
        return "not a user of this arena (its id was used again)";
    case Life::kZombie:
        return "ended, not reaped";
    case Life::kDead:
        break;
    }
    return "dead";
}

const char *lifeName(Life life) {
    switch (life) {
    case Life::kAlive:
        return "alive";
    case Life::kStranger:
        return "stranger";
    case Life::kZombie:
        return "zombie";
    case Life::kDead:
        break;
    }
    return "dead";
}

Life Processes::lifeOf(uint32_t pid) {
    const auto [known, isNew] = known_.emplace(pid, Life::kDead);
    if (isNew) known->second = look(pid);
    return known->second;
}

Life Processes::look(uint32_t pid) const {
    // kill() gives 0 and negative numbers a meaning of their own.
    if (pid == 0 || pid > INT32_MAX) return Life::kDead;
    if (::kill(static_cast<pid_t>(pid), 0) < 0 && errno == ESRCH) return Life::kDead;
    if (isZombie(pid)) return Life::kZombie;
    return usesArena(pid) ? Life::kAlive : Life::kStranger;
}

// True also when this process may not look.
bool Processes::usesArena(uint32_t pid) const {
    Directory descriptors(procPath(pid, "fd"));
    if (!descriptors.isOpen()) return true;
    while (const char *fd = descriptors.nextNumber()) {
        if (isThisFile(procPath(pid, "fd/") + fd, file_)) return true;
    }
    // Closing the descriptor leaves the mapping. The inode's number has to do here: the device
    // stands in this file as the file system's own, which need not be the one that stat gives.
    const std::string maps = readText(procPath(pid, "maps"));
    if (maps.empty()) return true;
    bool mapped = false;
    eachLine(maps, [&](const std::string &line) {
        // The fifth word; of a line with fewer of them nothing is compared.
        std::istringstream words(line);
        std::string skipped;
        uint64_t inode = 0;
        if (words >> skipped >> skipped >> skipped >> skipped >> inode)
            mapped = mapped || inode == file_.inode();
    });
    return mapped;
}

std::vector<ArenaUser> arenaUsers(const ArenaFile &file) {
    UserMap users;
    addLockHolders(file, &users);
    addOpeners(file, &users);
    std::vector<ArenaUser> list;
    for (auto &[pid, user] : users) {
        user.command = commandOf(pid);
        list.push_back(std::move(user));
    }
    return list;
}
