// What all parts of the server know.
#pragma once

#include "prefork/share.h"

extern int rootFd;  // the exported tree, O_PATH
