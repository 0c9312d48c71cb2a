/* What every server has around its loop. */
#include <iosched/sched.h>
#include <signal.h>
#include <stdio.h>

static int stopping;
static void onTerm(int sig) {
    (void)sig;
    stopping = 1;
}
/* A client that went away is a write error, not the end of the server. */
static void onPipe(int sig) {
    (void)sig;
}

int main(void) {
    char msg[128];
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, msg, sizeof msg) != 0) {
        fprintf(stderr, "%s\n", msg);
        return 1;
    }
    catchSignal(SIGTERM, onTerm);
    catchSignal(SIGPIPE, onPipe); /* not SIG_IGN, which every program started would inherit */
    while (!stopping)
        iosched(-1);
    return ExitSched();
}
