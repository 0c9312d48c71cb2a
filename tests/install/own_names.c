/* A server that has names of its own where the library's internals have theirs. */
#include <iosched/sched.h>
#include <stddef.h>

static int calls;
int initMutexes(void) {
    return ++calls, -1;
}
int initSignals(void) {
    return ++calls, -1;
}
int reserveChild(void) {
    return ++calls;
}
int emptymask = 7, inIOSched = 7, ownPidWord = 7, systemWarning = 7;

int main(void) {
    return InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0 || iosched(0) != 0 ||
           calls != 0 || emptymask + inIOSched + ownPidWord + systemWarning != 28;
}
