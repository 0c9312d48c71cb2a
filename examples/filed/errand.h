// An errand: a short-lived child that does one thing with the lock table in the master's stead.
//
// The table's mutex is not robust: if a worker dies holding it, whoever asks for it next waits for
// ever. The master must not be that one, so it asks for it in a child that has a deadline.
#pragma once

#include <sys/types.h>

enum class Errand {
    Clean,  // remove the records of a worker that has ended and was reaped
    Kill,   // SIGKILL a running worker at a moment when it holds no mutex
};
enum class ErrandEnd { Done, Failed, Stuck };

// Called from the loop; may start the next errand.
using ErrandDone = void (*)(Errand what, pid_t worker, ErrandEnd end);

// Starts an errand; there must be none under way. The worker of Kill must be a child of this process
// that has not been reaped. Returns false, with errno, if no child could be made.
bool startErrand(Errand what, pid_t worker, ErrandDone done);

bool errandUnderWay();
