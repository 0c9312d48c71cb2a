/* Runs a command on a pseudo-terminal and shows what it prints there. */
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static int over;
static void onEnd(void *arg, const ChildStatus *status) {
    (void)arg, (void)status;
    over = 1;
}

static void onOutput(void *arg, int master) {
    char bytes[512];
    (void)arg;
    ssize_t count = read(master, bytes, sizeof bytes);
    if (count > 0)
        fwrite(bytes, 1, (size_t)count, stdout);
    else
        registerInput(master, NULL, NULL); /* nobody has the slave open any more: EIO */
}

int main(void) {
    char name[20];
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0) return 1;
    int master = allocPty(name);
    if (master < 0) return perror("allocPty"), 1;
    pid_t child = ioFork();
    if (child == 0) {
        disassociate(); /* leads a session without a terminal, and the slave becomes its own */
        int slave = setupSlave(name, 80, 24);
        if (slave < 0) perror(name), exit(1);
        close(master);
        dup2(slave, 0), dup2(slave, 1), dup2(slave, 2);
        enableSignals(); /* the program that follows is to have no signal blocked */
        execlp("stty", "stty", "size", NULL);
        _exit(127);
    }
    registerChild(child, onEnd, NULL);
    registerInput(master, onOutput, NULL);
    while (!over)
        iosched(-1);
    iosched(0); /* what the command printed last */
    registerInput(master, NULL, NULL);
    close(master);
    return ExitSched();
}
