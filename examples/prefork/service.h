// A pre-forked service: a master, workers that serve, and the arena with a lock table that they
// share.
//
// What every such server needs is in this directory; a server brings the calls below, and what its
// workers do with their clients. Reading order: start.cpp, identity.cpp and background.cpp (from a
// command line to a service), share.cpp (what the processes have in common), accepting.cpp (where
// clients come from), manager.cpp (sockets from a service manager), master.cpp (who starts and replaces the workers), care.cpp and errand.cpp
// (who looks after the lock table), life.cpp (a worker's side). ../filed is a server made of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class Options;

constexpr int kMaxWorkers = 32;

// Filled in by main(), constant from runService() on.
struct Service {
    const char *name = "";  // of the program: in the log, and in the names of the shared chunks
    std::string offer;      // "serving ... on ...": said when it is true
    int port = 0;           // for the pid file
    int32_t filesPerWorker = 256, locksPerWorker = 1024;  // room in the lock table
    uint64_t chunkBytes = 0;                              // and for chunks of the server's own

    // In the process that starts, as the user who serves: false, with errno, if it is no use to go
    // on.
    bool (*mayServe)() = nullptr;
    // In each worker. begin() registers with the loop; from leave() on there are no new clients;
    // end() takes leave of the clients that there are, and the process ends when it returns.
    void (*begin)() = nullptr, (*leave)() = nullptr, (*end)() = nullptr;

    // By options.
    const char *arenaPath = nullptr;      // the file that the processes share
    const char *pidFile = nullptr;        // receives "<pid> <port>\n" once the service is ready
    const char *logFile = nullptr;        // instead of standard error
    const char *user = nullptr;           // to become when started as root
    const char *repairTool = "arenactl";  // the program that repairs the arena
    int workers = 4;
    int64_t drainMs = 5'000;  // how long a worker that is being replaced serves its clients
    bool background = false;
    bool keepArena = false;
    bool stopStalled = false;  // kill a worker that keeps a mutex too long
};
extern Service service;

// The options that all services have: their letters for the parser, and their lines of a usage
// text.
constexpr char kServiceLetters[] = "u:w:a:kg:l:P:DA:-:";
constexpr char kServiceUsage[] =
    "  -u USER  started as root, serve as USER (nobody): who needs access to what is served\n"
    "           and to the places of FILEs below, the log excepted\n"
    "  -w N     worker processes (4)\n"
    "  -a FILE  the arena that the workers share; removed at the end\n"
    "  -k       keep the arena\n"
    "  -g SEC   at a restart, how long the old worker serves its clients (5)\n"
    "  -l FILE  log there instead of standard error\n"
    "  -P FILE  write \"<pid> <port>\" there when ready\n"
    "  -D       go into the background once it serves\n"
    "  -A FILE  the program that repairs the arena (arenactl, as PATH finds it)\n"
    "  --stop-stalled  kill a worker that has kept a mutex for 2 s\n"
    "  --help, --version\n"
    "Signals: TERM and INT end the server, HUP opens the log anew and replaces the\n"
    "workers one at a time, USR2 kills one worker (for trials).\n";

// Takes one of them. Ends the program at a bad value, and at a letter that is none of them.
void takeServiceOption(const Options &options, int letter, const char *value);

// Becomes the user, goes into the background if it is to, and runs the service until it is told to
// end. Returns the process's exit status: 0 after an orderly end, 1 when it could not start, 3 when
// it had to give up because the lock table can be used no more.
int runService();

// Ends the program with status 1 and errno's reason in the log: "cannot open the directory /srv:
// ...".
[[noreturn]] void giveUp(const char *what, const std::string &which);

// Opens the log file again by its name, since somebody may have moved it. Where that fails, the old
// one goes on and says so. The workers that there are keep theirs.
void reopenLog();

// Writes one line with time and process id.
__attribute__((format(printf, 1, 2))) void logLine(const char *format, ...);
