// Command-line arguments are UTF-8 already where this library runs: nothing to convert.

#include "iosched/util.h"

int GetUTF8Args(...) {
    return 0;
}
