#pragma once

#include <string>
#include <sys/types.h>

// Runs the service until it is told to end; see runService().
int runMaster();

// For those who look after the lock table (care.h).
bool isWorker(pid_t pid);
pid_t nextVictim();  // a running worker, each in its turn; 0 if there is none
bool tableIsLost();
// A mutex is locked for ever. Every worker that asks for it waits for ever, so the honest thing is
// to say so and end the service.
void loseTable(const std::string &reason);
