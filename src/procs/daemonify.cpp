// Leaving the terminal.

#include "iosched/procs.h"

#include <cstdlib>
#include <unistd.h>

int daemonify(void) {
    const pid_t pid = ::fork();
    if (pid == -1) return -1;
    if (pid > 0) std::exit(0);
    (void)disassociate();  // cannot fail: a new child leads no process group
    return 0;
}

int disassociate(void) {
    return ::setsid();
}
