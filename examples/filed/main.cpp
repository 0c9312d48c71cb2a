// Options and start: the directory and the port are taken here, as who starts the server; the rest
// is any service's.

#include "common/options.h"
#include "filed.h"
#include "prefork/accepting.h"
#include "prefork/manager.h"
#include "worker.h"

#include <cstdlib>
#include <fcntl.h>
#include <iosched/util.h>
#include <string>
#include <unistd.h>

namespace {

constexpr char kUsage[] =
    "usage: filed [options]\n"
    "  -r DIR   serve the files under DIR (.)\n"
    "  -p PORT  listen on 127.0.0.1:PORT (7070); 0 takes a free port\n"
    "  -i SEC   close connections that are silent for so long (60)\n"
    "  -c N     connections of each worker (200)\n"
    "  -R       allow RUN and SYSTEM: clients may execute any command as this user; as\n"
    "           root only with -u\n";

constexpr Options options("filed", kUsage, kServiceUsage);

void parseOptions(int argc, char **argv) {
    const std::string letters = std::string("r:p:i:c:Rh") + kServiceLetters;
    for (int option; (option = ZORgetopt(argc, argv, letters.c_str())) != -1;) {
        const char *value = ZORoptarg;
        switch (option) {
        case 'r':
            settings.root = value;
            break;
        case 'p':
            settings.port = options.number(option, value, 0, 65535);
            break;
        case 'i':
            settings.idleMs = int64_t{1000} * options.number(option, value, 1, 86400);
            break;
        case 'c':
            settings.maxConnections = options.number(option, value, 1, 10000);
            break;
        case 'R':
            settings.allowRun = true;
            break;
        case 'h':
            options.help();
        default:
            takeServiceOption(options, option, value);
        }
    }
    if (ZORoptind < argc) options.refuse("what is \"%s\"?", argv[ZORoptind]);
    if (settings.allowRun && geteuid() == 0 && !service.user)
        options.refuse("-R as root needs -u USER: clients execute what they like as that user");
}

bool mayServe() {
    return faccessat(worker::rootFd, ".", X_OK, AT_EACCESS) == 0;
}

}  // namespace

int main(int argc, char **argv) {
    service.name = "filed";
    service.arenaPath = "filed.arena";
    parseOptions(argc, argv);
    worker::rootFd = open(settings.root, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (worker::rootFd < 0) giveUp("open the directory", settings.root);
    worker::listenSocket = listenSocketOfManager(&settings.port);
    if (worker::listenSocket < 0) worker::listenSocket = listenOnLoopback(&settings.port);
    if (worker::listenSocket < 0) giveUp("listen on port", std::to_string(settings.port));
    service.port = settings.port;
    service.offer = std::string("serving ") + settings.root + " on " +
                    (service.port > 0 ? "127.0.0.1:" + std::to_string(service.port)
                                      : "the service manager's socket");
    service.mayServe = mayServe;
    service.begin = beginAccepting;
    service.leave = stopAccepting;
    service.end = sayGoodbye;
    return runService();
}
