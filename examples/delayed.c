/* Long work in pieces: one piece for each pass, with everything else served in between. */
#include <iosched/sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

typedef struct {
    DelayedCall call;
    int left;
} Work; /* the record first: the callback gets it */

static void onReady(void *arg, int fd) {
    (void)arg, (void)fd;
    puts("not called");
}

static void onPiece(DelayedCall *call) {
    Work *work = (Work *)call;
    printf("piece, %d left\n", --work->left);
    if (work->left > 0)
        registerDelayedCall(call); /* runs in the next pass, not in this batch */
    else
        free(work);
}

int main(void) {
    struct rlimit limit;
    int ends[2];
    DelayedCall never = {.func = NULL};
    Work *work = malloc(sizeof *work);
    *work = (Work){.call = {.func = onPiece}, .left = 3};
    registerDelayedCall(&work->call); /* usable before InitSched */
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0) return 1;
    printf("one batch by hand: %d\n", runDelayedCallQueue());
    registerDelayedCall(&never);
    printf("withdrawn: %d\n", unRegisterDelayedCall(&never));
    iosched(60); /* does not wait: there is a piece to run */
    ioschedFd(0, 60);
    printf("nothing left to do: %d\n", iopeek() == 0 && iosched(0) == 0);

    getrlimit(RLIMIT_NOFILE, &limit); /* a program that raises its limit tells the library */
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    printf("the table has grown: %d\n", ResizeSchedTable() == 0);
    if (pipe(ends) != 0 || write(ends[1], "x", 1) != 1) return 1;
    registerInput(ends[0], onReady, NULL);
    disableSched(ends[0]); /* still polled and counted, but nobody is called */
    printf("suspended but ready: %d\n", iosched(0));
    enableSched(ends[0]);
    registerInput(ends[0], NULL, NULL);
    ioYield();
    return ExitSched();
}
