// arenactl's checker and its repair on any bytes: they end, read nothing that is not there, and a
// repair puts all right or changes nothing.

#include "fuzz_input.h"
#include "tools/repair_rules.h"

#include <cstring>
#include <set>
#include <string_view>
#include <vector>

namespace {

// The broken promise, in words; empty if it was kept. The checker's complaints about mutexes,
// padding and tables that were never ready are not what a repair takes in hand.
std::string brokenPromise(std::span<const std::byte> damaged) {
    std::vector<std::byte> bytes(damaged.begin(), damaged.end()), last = bytes;
    if (!readArena(bytes).isArena) return {};
    std::string refusal;
    bool isKept = true;
    eachRepair(
        bytes, [](uint32_t) { return false; },
        [&](const Repair &repair) {
            refusal = repair.refusal;
            isKept = refusal.empty() || bytes == last;
            last = bytes;
        });
    if (!isKept) return "changed and refused: " + refusal;
    if (!refusal.empty()) return {};
    const ArenaModel after = readArena(bytes);
    std::set<uint64_t> halfMade;
    for (const LockTable &table : after.tables) {
        if (table.state != SHARED_FILE_TABLE_READY) halfMade.insert(table.offset);
    }
    for (const Finding &finding : after.findings.list()) {
        const std::string_view code = finding.code;
        const bool isOther = code.starts_with("mutex-") || code == "padding" ||
                             code == "file-size" || halfMade.contains(finding.guard);
        if (!isOther) return "repaired, but still " + describe(finding);
    }
    return {};
}

}  // namespace

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
