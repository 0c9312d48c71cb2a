#include "proc.h"

#include "support/guards.h"
#include "text.h"

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <unistd.h>

bool NumberedEntries::next(uint32_t *number) {
    while (const dirent *entry = ::readdir(dir_)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        *number = static_cast<uint32_t>(std::strtoul(entry->d_name, nullptr, 10));
        return true;
    }
    return false;
}

std::string procPath(uint32_t pid, const char *name) {
    return printed("/proc/%" PRIu32 "/%s", pid, name);
}

std::string readText(const std::string &path) {
    errno = 0;
    const FdGuard fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    if (fd.get() < 0) return text;
    char buffer[16384];
    ssize_t got;
    while ((got = ::read(fd.get(), buffer, sizeof(buffer))) > 0)
        text.append(buffer, static_cast<size_t>(got));
    return text;
}

std::string mappedFile(const std::string &mapsLine) {
    std::istringstream words(mapsLine);
    std::string range, access, offset, device, inode;
    words >> range >> access >> offset >> device >> inode;
    return device + ' ' + inode;
}
