// arenactl's checker on any bytes: it ends, and reads nothing that is not there.

#include "check.h"

#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // An allocation of exactly this size lets the sanitizer see a read behind its end.
    std::vector<std::byte> bytes(size);
    if (size != 0) std::memcpy(bytes.data(), data, size);
    (void)readArena(bytes);
    if (size >= 0x48) {
        const uint32_t start[2] = {0x51317093, 1};  // let it in
        std::memcpy(bytes.data() + 0x30, start, sizeof start);
        (void)readArena(bytes);
    }
    return 0;
}
