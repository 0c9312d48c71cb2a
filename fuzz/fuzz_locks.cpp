// Lock table calls in any order, beside the model that the tests use: every result and every output
// is the model's, and the checker finds nothing wrong with the bytes.

#include "check.h"
#include "fuzz_input.h"
#include "support/lock_table_calls.h"

#include <syslog.h>

namespace {

constexpr int32_t kFiles = 3, kRecords = 8;  // few, so that both run out

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    (void)::setlogmask(LOG_UPTO(LOG_EMERG));  // full tables are the rule here
    FuzzInput input(data, size);
    FuzzArena arena(8192);
    SharedFileLockTable *table = nullptr;
    require(AllocateSharedFileLockTable(arena.get(), "locks", 1, kFiles, kRecords, &table) == 0,
            "a table can be made");
    LockTableModel model(kFiles, kRecords);
    for (int step = 0; step < 200 && !input.empty(); ++step) {
        const auto below = [&input](uint32_t n) { return input.below(n); };
        const auto self = static_cast<uint32_t>(::getpid());
        const TableCall call = anyTableCall(below, self + below(2));
        const TableAnswer answer = callTable(table, call);
        require(answer == model.run(self, call), "the table answers as the model does");
        const std::string findings = checkArena({arena.bytes(), arena.length()});
        require(findings.empty(), findings.c_str());
    }
    require(FreeSharedFileLockTable(table) == 0, "the table can be given back");
    return 0;
}
