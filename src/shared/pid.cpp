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

#include "support/wiped_page.h"

#include <pthread.h>

namespace {

constexpr uint32_t kNotKnown = 0;

// The wiped page; null while there is none.
uint32_t *wipedPage = nullptr;

void rememberPidInChild() {
    *wipedPage = static_cast<uint32_t>(::getpid());
}

}  // namespace

constinit const uint32_t *iosched_lib::ownPidWord = &kNotKnown;

void iosched_lib::preparePid() {
    if (wipedPage != nullptr) return;
    wipedPage = newWipedPage();
    if (wipedPage == nullptr) return;  // every call asks the kernel
    *wipedPage = static_cast<uint32_t>(::getpid());
    ownPidWord = wipedPage;
    // Without the hook the children read 0 for ever, which is slow and right.
    (void)::pthread_atfork(nullptr, nullptr, rememberPidInChild);
}
