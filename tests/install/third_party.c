/* A library that knows nothing of iosched. */
#include <unistd.h>

void *thirdPartySleep(void);
void *thirdPartySleep(void) {
    return (void *)&sleep;
}
