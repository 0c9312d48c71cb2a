// filed: a small file server that shows every part of iosched at work.
//
// What any pre-forked server needs is in ../prefork. Reading order here: main.cpp (options and
// start), worker.cpp (accepting), connection.cpp (lines in, lines out), request.cpp (the verbs),
// and what the verbs need: files.cpp, paths.cpp, programs.cpp. The protocol is told in PROTOCOL.md.
//
// This header holds what every file needs.
#pragma once

#include "prefork/service.h"

#include <cstddef>
#include <cstdint>

// Set by main() before anything else runs, constant from then on.
struct Settings {
    const char *root = ".";    // the directory that is served
    int port = 7070;           // on 127.0.0.1; 0 takes a free one
    int64_t idleMs = 60'000;   // a connection that is silent for so long is closed
    int maxConnections = 200;  // of each worker
    bool allowRun = false;     // RUN executes whatever a client asks for: off unless wanted
};
extern Settings settings;

constexpr size_t kMaxLineBytes = 4096;
constexpr uint32_t kMaxOpenFiles = 16;  // of each connection
