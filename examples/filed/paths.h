// Opening files that lie beneath the served directory, and no others.
#pragma once

#include <sys/types.h>

// Opens path relative to rootFd. Absolute paths, "..", and symbolic links that lead out of the root
// are refused, also when somebody changes the tree meanwhile. Returns a close-on-exec descriptor,
// or -1 with errno: EXDEV or ELOOP for a path that would leave the root. On a kernel without
// openat2() no symbolic link is followed at all.
int openBeneath(int rootFd, const char *path, int flags, mode_t mode);
