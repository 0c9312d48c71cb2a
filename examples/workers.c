/* Children and workers: each is registered, and its end arrives as a callback. */
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

static int running;

static void onEnd(void *name, const ChildStatus *status) {
    int word = buildStatus(status); /* as wait() would have given it */
    if (WIFSIGNALED(word))
        printf("%s: signal %d\n", (const char *)name, WTERMSIG(word));
    else
        printf("%s: exit %d\n", (const char *)name, WEXITSTATUS(word));
    --running;
}

static void onFork(void *arg, int phase, int value) {
    (void)arg;
    (void)value;
    if (phase == FORK_CHILD) puts("hook: the child has a loop of its own"), fflush(stdout);
}

static void waitForAll(void) {
    while (running > 0)
        iosched(-1);
}

int main(void) {
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0) return 1;
    registerFork(onFork, NULL);
    fflush(stdout); /* or the child has what is buffered, too */
    pid_t worker = ioFork();
    if (worker == 0) {
        msleep(10); /* passes of its own; its parent's children are not its own */
        exit(ExitSched() + 3);
    }
    running += registerChild(worker, onEnd, "worker") == 0; /* before the next pass */
    waitForAll();
    unRegisterFork(onFork, NULL);

    SpawnOptions options = {.flags = SPAWN_EXTFLAGS | SPAWN_CHDIR,
                            .directory = "/",
                            .extFlags = SPAWN_EXT_SETSID | SPAWN_EXT_DEVNULL};
    pid_t program = spawnProcess(&options, "test \"$PWD\" = / && exec sleep 60");
    running += registerChild(program, onEnd, "program") == 0;
    msleep(50);
    kill(program, SIGTERM);
    waitForAll();
    return ExitSched();
}
