/* The calls that a C program may make; that they compile is half of the test. */
#include "iosched/util.h"

int callGetUTF8ArgsFromC(void);

int callGetUTF8ArgsFromC(void) {
    int argc = 0;
    char **argv = NULL;
    return GetUTF8Args() | GetUTF8Args(&argc, &argv, 1.5);
}
