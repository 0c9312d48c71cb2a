#include "waiters.h"

#include "proc.h"
#include "users.h"

#include <sstream>
#include <sys/syscall.h>

namespace {

// The address that a process waits at with the futex call; 0 if it does anything else.
uint64_t futexOf(uint32_t pid) {
    std::istringstream words(readText(procPath(pid, "syscall")));
    long number = -1;
    uint64_t address = 0;
    if (!(words >> number >> std::hex >> address) || number != SYS_futex) return 0;
    return address;
}

// Where in the file that address lies. False if it is not mapped there.
bool offsetOf(uint32_t pid, uint64_t address, const ArenaFile &file, uint64_t *offset) {
    bool found = false;
    eachLine(readText(procPath(pid, "maps")), [&](const std::string &line) {
        std::istringstream words(line);
        uint64_t begin = 0, end = 0, start = 0;
        char dash = 0;
        std::string access;
        words >> std::hex >> begin >> dash >> end >> access >> start;
        if (address < begin || address >= end || mappedFile(line) != file.mapsName()) return;
        *offset = address - begin + start;
        found = true;
    });
    return found;
}

}  // namespace

Waiters arenaWaiters(const ArenaFile &file) {
    std::vector<uint32_t> mappers;
    (void)findMappers(file, &mappers);
    Waiters waiters;
    for (const uint32_t pid : mappers) {
        uint64_t offset = 0;
        const uint64_t address = futexOf(pid);
        if (address != 0 && offsetOf(pid, address, file, &offset)) waiters[offset].push_back(pid);
    }
    return waiters;
}
