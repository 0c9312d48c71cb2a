/* Goes into the background, says so to a file, and ends. */
#include <fcntl.h>
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <stdio.h>
#include <unistd.h>

int main(int argc, char **argv) {
    int log;
    if (argc != 2) return fprintf(stderr, "usage: daemon FILE\n"), 2;
    /* What may fail where somebody can still be told comes before going into the background. */
    log = open(argv[1], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (log < 0) return perror(argv[1]), 1;
    puts("going into the background");
    fflush(NULL); /* or what is buffered is written twice */
    /* Before InitSched: no fork hook runs, and timers and children stay behind. */
    if (daemonify() != 0) return perror("daemonify"), 1;
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0) return 1;
    msleep(10);
    dprintf(log, "session %s, terminal %s\n", getsid(0) == getpid() ? "of its own" : "inherited",
            open("/dev/tty", O_RDWR) < 0 ? "none" : "kept");
    close(log);
    return ExitSched();
}
