// The calling process's id without a system call.
#pragma once

#include <cstdint>
#include <sys/types.h>
#include <unistd.h>

namespace iosched_lib {

// Where this process's id stands, or 0 for "not known". Never null: it points to a zero until
// preparePid() has found something better.
extern const uint32_t *ownPidWord;

// Makes ownPid() fast in this process and in what it forks. Free to fail: ownPid() is right anyway.
void preparePid();

// getpid(), from memory where that is known to be right.
inline uint32_t ownPid() {
    const uint32_t known = *ownPidWord;
    return known != 0 ? known : static_cast<uint32_t>(::getpid());
}

}  // namespace iosched_lib

using namespace iosched_lib;
