/* Calls every stub once and looks at results and errno; the calls to libc's would block or differ. */
#include <errno.h>
#include <iosched/sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char **argv) {
    FILE *stream = stdin;
    int ok;
    (void)argv;
    if (argc > 1) return system("true"); /* only to be warned of: it is never the library's */
    errno = 77;
    ok = pause() == -1 && sleep(1000) == 0 && usleep(4000000000u) == 0;
    ok = ok && popen("true", "r") == NULL && pclose(stream) == -1 && fileno(stream) == 0;
    return ok && errno == 77 && iosched_version[0] == '@' ? 0 : 1;
}
