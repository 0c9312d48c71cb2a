// The link-time warning for `system`, in an object of its own that every other object of the library
// asks for (support/needs_system_warning.h). It defines no `system`: calls go to libc's.

#include "support/link_warning.h"

extern "C" {
// What the other objects refer to. Hidden: two libraries of one process never share it.
extern const char ioschedSystemWarning;
const char ioschedSystemWarning = 0;
}

IOSCHED_LINK_WARNING(system);
