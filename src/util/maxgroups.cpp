// The limit on supplementary groups.

#include "iosched/util.h"

#include <unistd.h>

long maxGroups(void) {
    return ::sysconf(_SC_NGROUPS_MAX);
}
