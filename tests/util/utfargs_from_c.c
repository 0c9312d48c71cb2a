/* The calls that a C program may make; that they compile is half of the test. */
#include "iosched/util.h"

int callGetUTF8ArgsFromC(void);

int callGetUTF8ArgsFromC(void) {
    return GetUTF8Args() | GetUTF8Args("", 1.5);
}
