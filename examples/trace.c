/* What the loop and the chunks do, told by the library itself. */
#include <iosched/sched.h>
#include <stdarg.h>
#include <stdio.h>

static void onTrace(const char *file, int line, const char *function, int category,
                    const char *format, ...) {
    va_list arguments;
    (void)file;
    (void)line;
    printf("%s[%d]: ", function, category);
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
}

static void onTurn(DelayedCall *call) {
    (void)call;
    iosched(0);
} /* a pass inside the pass */

int main(void) {
    DelayedCall turn = {.func = onTurn};
    char message[128];
    int result = InitSched(SCHED_VERSION_MAJOR + 1, 0, message, sizeof message);
    printf("%d, %s\n", result, message);
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, message, sizeof message) != 0) return 1;
    printf("%s, then %s\n", message, iosched_version + 4); /* behind the mark of what-style tools */
    SetSchedTraceCallback(onTrace, SCHED_TRACE_LOOP | SCHED_TRACE_CHUNKS);
    registerDelayedCall(&turn);
    iosched(0);
    SetSchedTraceCallback(NULL, 0);
    return ExitSched();
}
