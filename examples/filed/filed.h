// filed: a small file server that shows every part of iosched at work.
//
// Reading order: main.cpp (start), share.cpp (what the processes have in common), master.cpp and
// errand.cpp (the process that looks after the workers), worker.cpp (accepting), connection.cpp
// (lines in, lines out), request.cpp (the verbs), and what the verbs need: files.cpp, paths.cpp,
// run.cpp. The protocol is told in PROTOCOL.md.
//
// This header holds what every file needs: the settings and the log.
#pragma once

#include <cstddef>
#include <cstdint>

// Set by main() before anything else runs, constant from then on.
struct Settings {
    const char *root = ".";                 // the directory that is served
    const char *arenaPath = "filed.arena";  // the file that the processes share
    const char *pidFile = nullptr;          // receives "<pid> <port>\n" once the server is ready
    const char *logFile = nullptr;          // instead of standard error
    int port = 7070;                        // on 127.0.0.1; 0 takes a free one
    int workers = 4;
    int64_t idleMs = 60'000;   // a connection that is silent for so long is closed
    int64_t drainMs = 5'000;   // how long a worker that is being replaced serves its connections
    int maxConnections = 200;  // of each worker
    bool background = false;
    bool allowRun = false;  // the RUN verb executes whatever a client asks for: off unless wanted
    bool keepArena = false;
};
extern Settings settings;

constexpr int kMaxWorkers = 32;
constexpr size_t kMaxLineBytes = 4096;
constexpr uint32_t kMaxOpenFiles = 16;   // of each connection
constexpr int kMaxPrograms = 8;          // RUNs of each worker at a time
constexpr int kMaxSleepers = 32;         // waits of each worker at a time: they nest on the stack
constexpr int64_t kMaxSleepMs = 10'000;  // a nested sleep holds up the ones around it
constexpr int64_t kRunLimitMs = 60'000;

// Writes one line with time and process id.
__attribute__((format(printf, 1, 2))) void logLine(const char *format, ...);
