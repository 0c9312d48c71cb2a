/* A C program on the installed library: a pipe through the loop, and one call into each other part. */
#include <iosched/aio.h>
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <iosched/shared.h>
#include <iosched/util.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

static char received[8];

static void readPipe(void *arg, int fd) {
    (void)arg;
    if (read(fd, received, sizeof received - 1) < 0) perror("read");
}

int main(void) {
    char message[128];
    int ends[2];
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, message, sizeof message) != 0) {
        fprintf(stderr, "%s\n", message);
        return 1;
    }
    if (pipe(ends) < 0 || registerInput(ends[0], readPipe, NULL) < 0) return 1;
    if (write(ends[1], "ping", 4) != 4) return 1;
    while (received[0] == 0)
        (void)iosched(-1);

    SharedMutex mutex;
    if (InitializeSharedMutex(&mutex) != 0 || availableProcessors() < 1) return 1;
    if (GetUTF8Args() != 0 || GetUTF8Args("", 1.5) != 0) return 1; /* whatever it is called with */
    printf("%s %s\n", received, iosched_version + 4);
    return ExitSched();
}
