// Memory that the kernel hands to every child as zeros, whatever kind of fork made it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

namespace iosched_lib {

// A page of zeros that reads zero again in every new address space; null where the system has none
// (before Linux 4.14). It is never given back.
inline uint32_t *newWipedPage() {
    const size_t bytes = static_cast<size_t>(::getpagesize());
    void *page = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return nullptr;
    if (::madvise(page, bytes, MADV_WIPEONFORK) == 0) return static_cast<uint32_t *>(page);
    (void)::munmap(page, bytes);
    return nullptr;
}

}  // namespace iosched_lib

using namespace iosched_lib;
