// p9d: serves a directory by 9P2000.L, the protocol of the Linux kernel's own network file system.
//
// Started as root it stays root, and acts as the user of each request (identity.cpp): whoever
// connects is believed to be who he says. Hence loopback, Unix sockets and nothing else.

#include "common/options.h"
#include "connection.h"
#include "ledger.h"
#include "p9d.h"
#include "prefork/accepting.h"
#include "prefork/life.h"
#include "prefork/manager.h"

#include <cerrno>
#include <cstring>
#include <iosched/sched.h>
#include <iosched/util.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int rootFd = -1;

namespace {

constexpr char kUsage[] =
    "usage: p9d [options] DIRECTORY\n"
    "serves DIRECTORY to clients of the 9P2000.L protocol, such as mount -t 9p\n"
    "  -l PORT    listen on 127.0.0.1:PORT (5640); 0 takes a free port\n"
    "  -u SOCKET  listen on a Unix socket instead\n"
    "  -w N       worker processes (4)\n"
    "  -a FILE    the arena that the workers share (p9d.arena); removed at the end\n"
    "  -A FILE    the program that repairs the arena (arenactl, as PATH finds it)\n"
    "  -P FILE    write \"<pid> <port>\" there when ready\n"
    "  -D         go into the background once it serves\n"
    "  --help, --version\n";
constexpr Options options("p9d", kUsage);

const char *socketPath;
int port = 5640;
int listener = -1;
Ledger *ledger;

// ---- a worker ----

// Connections of this protocol last: one at a time, so that the workers get as many each.
void serve(int client) {
    static uint32_t lastId;
    const int on = 1;
    if (!socketPath) (void)setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    Connection::start(client, ++lastId);
    worker::counters->accepted++;
    worker::counters->connections = Connection::count();
    logLine("serves a connection");
}

void begin() {
    uint64_t bytes = sizeof(Ledger);
    void *chunk = nullptr;
    uint32_t created = 0;
    if (AllocateSharedChunk(share.arena, "p9d.ledger", &bytes, &chunk, &created) == 0) {
        if (created) (void)ReleaseSharedMutex(static_cast<SharedMutex *>(share.arena->base));
        ledger = static_cast<Ledger *>(chunk);
        useLedger(ledger, static_cast<size_t>(worker::counters - share.board->slots));
    }
    (void)umask(0);  // clients send modes with their own applied
    worker::acceptFrom(listener, 1, 0, serve);
}

void stopAccepting() {
    worker::acceptNoMore();
    connectionEnded();
}

// The master has the worker's opens and locks removed like those of one that was killed.
void leaveClients() {
    if (ledger) (void)FreeSharedChunk(share.arena, ledger);
}

// ---- starting ----

int listenOnSocket() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strlcpy(address.sun_path, socketPath, sizeof address.sun_path) >= sizeof address.sun_path)
        return errno = ENAMETOOLONG, -1;
    (void)unlink(socketPath);
    return listenOn(AF_UNIX, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

const char *parseOptions(int argc, char **argv) {
    for (int option; (option = ZORgetopt(argc, argv, "l:u:w:a:A:P:Dh-:")) != -1;) {
        const char *value = ZORoptarg;
        switch (option) {
        case 'l':
            port = options.number(option, value, 0, 65535);
            break;
        case 'u':
            socketPath = value;
            break;
        case 'h':
            options.help();
        default:
            takeServiceOption(options, option, value);
        }
    }
    if (ZORoptind != argc - 1) options.refuse("name one directory to serve");
    return argv[ZORoptind];
}

}  // namespace

void connectionEnded() {
    worker::counters->connections = Connection::count();
    if (worker::leaving && Connection::count() == 0) worker::end();
}

int main(int argc, char **argv) {
    service.name = "p9d";
    service.arenaPath = "p9d.arena";
    const char *directory = parseOptions(argc, argv);
    rootFd = open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (rootFd < 0) giveUp("open the directory", directory);
    listener = listenSocketOfManager(&port);
    const bool isPassed = listener >= 0;
    if (!isPassed) listener = socketPath ? listenOnSocket() : listenOnLoopback(&port);
    const std::string where = isPassed && port == 0 ? "the service manager's socket"
                              : socketPath          ? socketPath
                                                    : "127.0.0.1:" + std::to_string(port);
    if (listener < 0) giveUp("listen on", where);
    service.offer = std::string("serving ") + directory + " on " + where;
    service.port = socketPath ? 0 : port;
    service.filesPerWorker = 4096;
    service.locksPerWorker = 16384;  // opens and locks
    service.chunkBytes = sizeof(Ledger);
    if (geteuid() == 0) service.user = "root";
    service.begin = begin;
    service.leave = stopAccepting;
    service.end = leaveClients;
    return runService();
}
