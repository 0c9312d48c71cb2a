/* Shell commands and their output, while the loop goes on. */
#include <iosched/procs.h>
#include <iosched/sched.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>

static void onTick(SchedTimer *timer) {
    ++*(int *)timer->arg;
    startTimer(timer);
}
static void onPipe(int sig) {
    (void)sig;
}

int main(void) {
    int ticks = 0;
    char line[128];
    SchedTimer tick = {.func = onTick, .arg = &ticks, .interval = 10};
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0) return 1;
    catchSignal(SIGPIPE, onPipe); /* a command that ends before it has read everything */
    startTimer(&tick);

    int status = ZORsystem("sleep 0.2; exit 3");
    printf("exit %d, ticked meanwhile: %s\n", WEXITSTATUS(status), ticks > 5 ? "yes" : "no");

    FILE *list = ZORpopen("printf 'one\\ntwo\\n'", "r");
    while (list != NULL && fgets(line, sizeof line, list) != NULL)
        printf("read %s", line);
    printf("exit %d\n", list == NULL ? -1 : WEXITSTATUS(ZORpclose(list)));

    fflush(stdout);
    FILE *sorted = ZORpopen("sort", "w");
    if (sorted == NULL) return 1;
    fputs("pear\napple\n", sorted);
    status = ZORpclose(sorted); /* the command sees the end of its input, and is waited for */
    printf("exit %d\n", WEXITSTATUS(status));
    stopTimer(&tick);
    return ExitSched();
}
