// The process id in memory that the kernel wipes at every fork.
//
// A lock table records who holds what, so a child that took itself for its parent would give away
// its parent's locks. Hooks alone cannot keep a remembered id right: clone() by number, _Fork() and
// the like run none. Here the memory itself forgets: the page reads 0 in every new address space,
// and a 0 sends the reader to getpid(). A hook then only makes the children of fork() fast again.
//
// Nobody writes the page when a reader finds 0. That reader may be a child of vfork(), which runs
// in its parent's memory, and what it wrote would name it in the parent's records ever after.

#include "shared/pid_internal.h"

#include <pthread.h>
#include <sys/mman.h>

namespace {

constexpr uint32_t kNotKnown = 0;

// The wiped page; null while there is none.
uint32_t *wipedPage = nullptr;

void rememberPidInChild() {
    *wipedPage = static_cast<uint32_t>(::getpid());
}

}  // namespace

constinit const uint32_t *ownPidWord = &kNotKnown;

void preparePid() {
    if (wipedPage != nullptr) return;
    const size_t bytes = static_cast<size_t>(::getpagesize());
    void *page = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return;
    if (::madvise(page, bytes, MADV_WIPEONFORK) != 0) {
        (void)::munmap(page, bytes);  // older than Linux 4.14: every call asks the kernel
        return;
    }
    wipedPage = static_cast<uint32_t *>(page);
    *wipedPage = static_cast<uint32_t>(::getpid());
    ownPidWord = wipedPage;
    // Without the hook the children read 0 for ever, which is slow and right.
    (void)::pthread_atfork(nullptr, nullptr, rememberPidInChild);
}
