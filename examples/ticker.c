/* Ticks once a second and says what arrives on standard input, until its end or an interrupt. */
#include <errno.h>
#include <iosched/sched.h>
#include <iosched/util.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

static int stopping;
static void onInterrupt(int sig) {
    (void)sig;
    stopping = 1;
}
static void onTick(SchedTimer *timer) {
    puts("tick");
    startTimer(timer);
}

static void onInput(void *arg, int fd) {
    char bytes[512];
    (void)arg;
    /* read, not getchar: what stdio has in its buffer does not make the descriptor ready */
    ssize_t count = read(fd, bytes, sizeof bytes);
    if (count > 0)
        printf("%zd bytes\n", count);
    else if (count == 0 || errno != EAGAIN)
        stopping = 1; /* end of file stays readable for ever: leave, or unregister the descriptor */
}

int main(void) {
    char message[128];
    SchedTimer timer = {.func = onTick, .interval = 1000};
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, message, sizeof message) != 0)
        return fprintf(stderr, "%s\n", message), 1;
    catchSignal(SIGINT, onInterrupt);
    SetBlockingMode(0, 0);
    registerInput(0, onInput, NULL);
    startTimer(&timer);
    while (!stopping)
        iosched(-1);
    SetBlockingMode(0, 1); /* the terminal is the shell's again */
    return ExitSched();
}
