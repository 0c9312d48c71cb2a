/* Uses next to nothing of the library, and libc's system. */
#include <iosched/util.h>
#include <stdlib.h>

int main(void) {
    return availableProcessors() > 0 && system("exit 3") == 3 << 8 ? 0 : 1;
}
