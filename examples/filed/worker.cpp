#include "worker.h"
#include "connection.h"
#include "filed.h"
#include "prefork/accepting.h"

Settings settings;

namespace worker {
int listenSocket = -1;
int rootFd = -1;
}  // namespace worker

namespace {

constexpr int kAcceptsPerPass = 32;  // then the connections that there are have their turns

}  // namespace

void worker::connectionEnded() {
    if (worker::leaving && connectionCount() == 0) worker::end();
}

void beginAccepting() {
    worker::acceptFrom(worker::listenSocket, kAcceptsPerPass, 1, startConnection);
}

void stopAccepting() {
    worker::acceptNoMore();
    worker::connectionEnded();
}

void sayGoodbye() {
    closeAllConnections("ERR RESTART this server process ends; connect again");
}
