#pragma once

// Runs the server on the listening socket, serving the directory, until it is told to end. Returns
// the process's exit status: 0 after an orderly end, 1 when it could not start, 3 when it had to
// give the service up because the lock table can be used no more.
int runMaster(int listenFd, int rootFd);
