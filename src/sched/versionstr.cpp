// The identification string that what-style tools find in a compiled file by its "@(#)" marker.
// Nothing in the library reads it.

#include "iosched/sched.h"

const char iosched_version[] =
    "@(#)ZorbexVersion 7.1.0 iosched, one event loop for server processes (MIT License)";
