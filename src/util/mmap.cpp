// Mapped views of files, with a record of every mapping made.
//
// The record is what lets MemUnmap() refuse an address that MemMap() did not return, instead of
// tearing a hole into somebody else's memory. Outputs other than the two addresses are written on
// success only.

#include "iosched/util.h"

#include "support/guards.h"
#include "support/list.h"

#include <sys/mman.h>
#include <sys/stat.h>

namespace {

struct MapRecord : ListLink {
    void *start;
};

constexpr uint32_t kRefusedFlags = 0x080 | 0x100 | 0x400;
constexpr struct {
    uint32_t flag;
    int protection;
    int mapping;
} kFlagTable[] = {
    {MEMMAP_READ, PROT_READ, 0},          {MEMMAP_WRITE, PROT_WRITE, 0},
    {MEMMAP_EXEC, PROT_EXEC, 0},          {MEMMAP_SHARED, 0, MAP_SHARED},
    {MEMMAP_PRIVATE, 0, MAP_PRIVATE},     {MEMMAP_FIXED, 0, MAP_FIXED},
    {MEMMAP_NORESERVE, 0, MAP_NORESERVE},
};

// The live mappings, in the order in which they were made.
ListLink s_mq{&s_mq, &s_mq};

// Bytes of a page; 0 until the first MemMap().
uint64_t page_size;

// Bytes from the offset to the end of the file, or 0 with errno EINVAL when there are none. An
// offset behind the end counts as that: the plain difference would wrap to a huge length.
uint64_t bytesToEnd(const struct stat &status, int64_t offset) {
    if (offset >= status.st_size) {
        errno = EINVAL;
        return 0;
    }
    return static_cast<uint64_t>(status.st_size) - static_cast<uint64_t>(offset);
}

// The start of the mapping, or MAP_FAILED with errno.
void *mapPages(void *wanted, uint64_t length, uint32_t flags, int fd, uint64_t offset) {
    int protection = PROT_NONE;
    int mapping = 0;
    for (const auto &entry : kFlagTable) {
        if ((flags & entry.flag) == 0) continue;
        protection |= entry.protection;
        mapping |= entry.mapping;
    }
    void *start = ::mmap(wanted, length, protection, mapping, fd, static_cast<off_t>(offset));
    if (start == MAP_FAILED || (flags & MEMMAP_DONTNEED) == 0) return start;

    const int error = ::posix_madvise(start, length, POSIX_MADV_DONTNEED);
    if (error == 0) return start;
    (void)::munmap(start, length);  // just mapped; the advice's error is the one to report
    errno = error;
    return MAP_FAILED;
}

MapRecord *findRecord(const void *start) {
    for (ListLink *link = s_mq.next; link != &s_mq; link = link->next) {
        auto *record = static_cast<MapRecord *>(link);
        if (record->start == start) return record;
    }
    return nullptr;
}

}  // namespace

int MemMap(uint64_t *length, uint32_t flags, int fd, int64_t *offset, void **mapAddress,
           void **address) {
    if (length == nullptr || offset == nullptr || mapAddress == nullptr || address == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (page_size == 0) page_size = static_cast<uint64_t>(::getpagesize());
    void *const wanted = std::exchange(*mapAddress, nullptr);
    *address = nullptr;

    struct stat status;
    if (::fstat(fd, &status) < 0) return -1;
    const uint64_t bytes = *length != 0 ? *length : bytesToEnd(status, *offset);
    if (bytes == 0) return -1;
    if ((flags & kRefusedFlags) != 0) return -1;

    HeapGuard<MapRecord> record(newRecord<MapRecord>());
    if (record.get() == nullptr) return -1;

    const uint64_t slack = static_cast<uint64_t>(*offset) % page_size;
    if (bytes > UINT64_MAX - slack) {
        errno = ENOMEM;  // what mmap says to any length beyond the address space
        return -1;
    }
    const uint64_t pageOffset = static_cast<uint64_t>(*offset) - slack;
    record->start = mapPages(wanted, bytes + slack, flags, fd, pageOffset);
    if (record->start == MAP_FAILED) return -1;

    *mapAddress = record->start;
    *address = static_cast<char *>(record->start) + slack;
    *length = bytes + slack;
    *offset = static_cast<int64_t>(pageOffset);
    appendToList(&s_mq, record.release());
    return 0;
}

int MemUnmap(void *mapAddress, uint64_t length) {
    MapRecord *record = findRecord(mapAddress);
    if (record == nullptr) return -1;
    if (::munmap(mapAddress, length) < 0) return -1;
    unlinkNode<ListLink>(record);
    std::free(record);
    return 0;
}
