// A `pclose` that waits for nothing and leaves the stream open. ZORpclose() is the replacement.
// Leaves errno alone.

#include "support/link_warning.h"

#include <stdio.h>

extern "C" int pclose(FILE *) {
    return -1;
}

IOSCHED_LINK_WARNING(pclose);
