// Lock table calls in any order, beside the model that the tests use: every result and every output
// is the model's, and the checker finds nothing wrong with the bytes.

#include "check.h"
#include "fuzz_input.h"
#include "support/lock_table_calls.h"

#include <cstring>
#include <syslog.h>

namespace {

constexpr int32_t kFiles = 3, kRecords = 8;  // few, so that both run out

TableCall takeCall(FuzzInput &input) {
    static constexpr uint32_t kBits[] = {0x1,        0x2,        0x8,   0x10,  0x20,
                                         0x40,       0x100,      0x200, 0x400, 0x100000,
                                         0x20000000, 0x40000000, 0x8000};
    TableCall call{};
    call.kind = static_cast<TableCall::Kind>(input.below(TableCall::Clean + 1));
    call.owner = input.below(2);
    call.handle = input.below(2);
    call.key = {input.below(5), 0};
    if (call.kind == TableCall::Open || call.kind == TableCall::SetMode) {
        for (uint32_t bits = input.take<uint16_t>(), i = 0; i < 13; ++i)
            if (bits >> i & 1) call.mode |= kBits[i];
    } else if (call.kind == TableCall::Test) {
        call.mode = 1 + input.below(3);
    } else if (call.kind == TableCall::Clean) {
        call.mode = static_cast<uint32_t>(::getpid()) + input.below(2);
    } else {
        call.mode = input.below(4);
    }
    call.maxOpens = input.below(4);
    call.offset = static_cast<int64_t>(input.below(12));
    call.length = static_cast<int64_t>(input.below(12)) - 1;
    call.nameSize = input.below(40);
    if (call.kind == TableCall::Open) std::memset(call.name, 'n', input.below(40));
    return call;
}

bool same(const TableAnswer &a, const TableAnswer &b) {
    return a.code == b.code && a.combined == b.combined && a.count == b.count &&
           a.length == b.length && std::memcmp(a.pids, b.pids, sizeof a.pids) == 0 &&
           std::memcmp(a.name, b.name, sizeof a.name) == 0;
}

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
        const TableCall call = takeCall(input);
        const TableAnswer answer = callTable(table, call);
        require(same(answer, model.run(static_cast<uint32_t>(::getpid()), call)),
                "the table answers as the model does");
        const std::string findings = checkArena({arena.bytes(), arena.length()});
        require(findings.empty(), findings.c_str());
    }
    require(FreeSharedFileLockTable(table) == 0, "the table can be given back");
    return 0;
}
