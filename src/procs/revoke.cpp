// Taking a terminal away from everybody who has it open: not to be had on this system.
//
// The C library's function of that purpose would fail in the same way, and its linker warning would
// reach every program linked with the library.

#include "procs/procs_internal.h"

#include <cerrno>

int revokeTerminal(const char * /*name*/) {
    errno = ENOSYS;
    return -1;
}
