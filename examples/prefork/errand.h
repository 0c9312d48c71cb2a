// An errand: a short-lived child that does one thing with the lock table in the master's stead.
//
// The arena's mutexes are not robust: if a worker dies holding one, whoever asks for it next waits.
// The master must not be that one, so it asks in a child that has a deadline.
#pragma once

#include <sys/types.h>

enum class Errand {
    Clean,   // remove the records of a worker that has ended and was reaped
    Kill,    // SIGKILL a running worker at a moment when it holds no mutex
    Repair,  // have every mutex that died with its holder repaired, by a program of its own
};
// Refused: by the repairer, with the reason in the log. Stuck: a mutex was not to be had in time.
enum class ErrandEnd { Done, Failed, Refused, Stuck };

const char *errandName(Errand what);

// Called from the loop; may start the next errand.
using ErrandDone = void (*)(Errand what, pid_t worker, ErrandEnd end);

// Starts an errand; there must be none under way. The worker of Kill must be a child of this
// process that has not been reaped. Returns false, with errno, if no child could be made.
bool startErrand(Errand what, pid_t worker, ErrandDone done);

bool errandUnderWay();

// Looks for the program that repairs, while the process may still be somebody who can reach it.
// Without it a mutex that dies with its holder ends the service.
void findRepairTool();
