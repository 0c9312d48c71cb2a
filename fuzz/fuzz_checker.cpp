// arenactl's checker and its repair on any bytes: they end, read nothing that is not there, and a
// repair puts all right or changes nothing.

#include "fuzz_input.h"
#include "tools/repair_rules.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // An allocation of exactly this size lets the sanitizer see a read behind its end.
    std::vector<std::byte> bytes(size);
    if (size != 0) std::memcpy(bytes.data(), data, size);
    (void)readArena(bytes);
    if (size < 0x48) return 0;
    const uint32_t start[2] = {0x51317093, 1};  // let it in
    std::memcpy(bytes.data() + 0x30, start, sizeof start);
    const std::string broken = brokenPromise(bytes);
    require(broken.empty(), broken.c_str());
    return 0;
}
