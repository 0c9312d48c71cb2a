// The link-time warning for `system`, in an object of its own that every other object of the
// library asks for (support/needs_system_warning.h). It defines no `system`: calls go to libc's.

#include "support/link_warning.h"

namespace iosched_lib {

// What the other objects refer to. Hidden: two libraries of one process never share it.
extern const char systemWarning;
const char systemWarning = 0;

}  // namespace iosched_lib

IOSCHED_LINK_WARNING(system);
