// What a service manager such as systemd and a service tell each other: the listening socket that it
// has opened already, and when the service is ready or ends. No library is needed for it.
#pragma once

// The one listening socket that the manager passes, non-blocking and close-on-exec, or -1 when it
// passes none. *port receives its TCP port, or 0. Ends the program at a socket that is no use.
int listenSocketOfManager(int *port);

// Finds out whom to tell, before the process becomes another user, and takes that and the
// sockets' description out of the environment, which is not meant for the programs that the service
// starts.
void findManager();

// "READY=1" or "STOPPING=1". Does nothing where nobody has asked.
void tellManager(const char *state);
