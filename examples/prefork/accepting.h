// Where the clients come from: one listening socket, which all workers poll.
#pragma once

// A listening, non-blocking TCP socket on loopback, and nowhere else: whoever connects is trusted.
// A *port of 0 takes a free one and receives its number. -1 with errno.
int listenOnLoopback(int *port);

// The same for an address of any kind; size is that of the address.
struct sockaddr;
int listenOn(int domain, const sockaddr *address, unsigned int size);

namespace worker {

// From now on each new connection goes to start(), non-blocking and close-on-exec, at most so many
// in a pass. A worker with more than `spare` connections above another's leaves that one the next.
void acceptFrom(int listener, int perPass, unsigned int spare, void (*start)(int client));

// No new connections: the queue lives on in the master's descriptor of the socket.
void acceptNoMore();

}  // namespace worker
