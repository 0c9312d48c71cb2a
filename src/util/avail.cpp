// The number of processors.

#include "iosched/util.h"

#include <sys/sysinfo.h>

int availableProcessors(void) {
    const int configured = ::get_nprocs_conf();
    return configured > 0 ? configured : 1;
}
