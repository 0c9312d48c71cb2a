// The verbs: one function each, which ends its command with Connection::reply() or starts a Job.
#pragma once

#include "connection.h"
#include "words.h"

#include <string_view>

// Serves one line. The connection may be closed when this returns.
void runRequest(Connection &connection, std::string_view line);

// verbs_file.cpp
void doOpen(Connection &connection, Words &words);
void doClose(Connection &connection, Words &words);
void doRead(Connection &connection, Words &words);
void doWrite(Connection &connection, Words &words);
void doLock(Connection &connection, Words &words);
void doUnlock(Connection &connection, Words &words);
void doTest(Connection &connection, Words &words);
void doMode(Connection &connection, Words &words);
void doInfo(Connection &connection, Words &words);
void doHolders(Connection &connection, Words &words);

// verbs_server.cpp
void doDf(Connection &connection, Words &words);
void doSleep(Connection &connection, Words &words);
void doNap(Connection &connection, Words &words);
void doStats(Connection &connection, Words &words);

// programs.cpp
void doRun(Connection &connection, Words &words);
void doSystem(Connection &connection, Words &words);
