/* The program's own sleep is the stub, its library's sleep is libc's. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <iosched/util.h>
#include <string.h>
#include <unistd.h>

void *thirdPartySleep(void);

int main(void) {
    Dl_info found;
    if (availableProcessors() < 1 || sleep(1000) != 0) return 1;
    if (dladdr(thirdPartySleep(), &found) == 0) return 2;
    return strstr(found.dli_fname, "/libc.so") != NULL ? 0 : 3;
}
