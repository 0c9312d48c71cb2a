// A lock table's repair. The forward chains are the truth: an element is filled in before a next
// leads to it, and is in no chain from the store that takes it out until the one that puts it back.
// So at most one entry and one record are in no chain, and only prevs, counts and modes can be
// wrong.
#include "repair.h"

#include "edit.h"
#include "table.h"

#include <algorithm>
#include <cinttypes>
#include <map>
#include <string_view>

namespace {

constexpr uint64_t kFreeEntries = offsetof(SharedFileLockHeader, freeEntries);
constexpr uint64_t kFreeRecords = offsetof(SharedFileLockHeader, freeRecords);
constexpr uint64_t kPrev = offsetof(SharedLink, prev);

bool isOneOf(std::string_view code, std::initializer_list<std::string_view> codes) {
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

// What a death inside an operation can leave, beside slots that are in no chain.
bool canBeMended(const Finding &finding, const LockTable &table) {
    if (isOneOf(finding.code, {"back-link", "combined-mode", "open-count", "slot-lost"}))
        return true;
    // An open that finds no room takes back its new entry and wipes the name first.
    return isOneOf(finding.code, {"file-name"}) &&
           std::any_of(table.files.begin(), table.files.end(), [&](const TableFile &file) {
               return finding.offset == file.offset + offsetof(SharedFileEntry, name) &&
                      file.records.empty();
           });
}

std::string reasonToRefuse(const LockTable &table, const Findings &findings) {
    for (const Finding &finding : findings.list()) {
        if (!canBeMended(finding, table)) return finding.place + ": " + finding.problem;
    }
    if (table.lostFiles.size() > 1 || table.lostRecords.size() > 1) {
        return counted(table.lostFiles.size(), "file entry", "file entries") + " and " +
               counted(table.lostRecords.size(), "lock record", "lock records") +
               " are on no list, where a death leaves one of each at most";
    }
    if (findings.unlisted() > 0) return "more is wrong than a death can leave";
    return {};
}

class TableMender {
public:
    TableMender(std::span<std::byte> bytes, const LockTable &table, const HasEnded &hasEnded)
        : arena_(bytes), table_(table), hasEnded_(hasEnded) {}

    std::vector<std::string> mend() {
        mendBackLinks();
        putBack(table_.lostFiles, kFreeEntries, "file entry");
        putBack(table_.lostRecords, kFreeRecords, "lock record");
        for (const TableFile &file : table_.files)
            mendFile(file);
        tell(links_, "backward link mended", "backward links mended");
        tell(sums_, "open count or mode counted anew", "open counts and modes counted anew");
        for (const auto &[pid, count] : removed_) {
            done_.push_back(counted(count, "record", "records") +
                            printed(" of process %" PRIu32 " removed, which has ended", pid));
        }
        tell(emptied_, "file entry without records given back",
             "file entries without records given back");
        return std::move(done_);
    }

private:
    void tell(uint64_t count, const char *one, const char *many) {
        if (count != 0) done_.push_back(counted(count, one, many));
    }

    template <class T>
    void storeIfOther(uint64_t offset, T value, uint64_t *count) {
        if (arena_.load<T>(offset) == value) return;
        arena_.store<T>(offset, value);
        ++*count;
    }

    void mendChain(uint64_t head) {
        uint64_t at = head;
        do {
            const uint64_t next = arena_.load<uint64_t>(at);
            storeIfOther<uint64_t>(next + kPrev, at, &links_);
            at = next;
        } while (at != head);
    }

    void mendBackLinks() {
        mendChain(table_.offset + kFreeEntries);
        mendChain(table_.offset + kFreeRecords);
        for (uint64_t i = 0; i < table_.buckets; i++)
            mendChain(table_.offset + sizeof(SharedFileLockHeader) + i * sizeof(SharedLink));
        for (const TableFile &file : table_.files)
            mendChain(file.offset + offsetof(SharedFileEntry, records));
    }

    void unlink(uint64_t at) {
        const auto link = arena_.load<SharedLink>(at);
        arena_.store<uint64_t>(link.prev, link.next);
        arena_.store<uint64_t>(link.next + kPrev, link.prev);
    }

    // Into the chain it comes with the third store.
    void pushFront(uint64_t head, uint64_t at) {
        const uint64_t first = arena_.load<uint64_t>(head);
        arena_.store<uint64_t>(at, first);
        arena_.store<uint64_t>(at + kPrev, head);
        arena_.store<uint64_t>(head, at);
        arena_.store<uint64_t>(first + kPrev, at);
    }

    void putBack(const std::vector<uint64_t> &lost, uint64_t freeList, const char *noun) {
        for (const uint64_t at : lost) {
            pushFront(table_.offset + freeList, at);
            done_.push_back(std::string(noun) + " that was on no list put back on the free list");
        }
    }

    void mendFile(const TableFile &file) {
        uint32_t modes = 0;
        uint32_t opens = 0;
        bool isEmpty = true;
        for (const TableRecord &record : file.records) {
            if (hasEnded_(record.pid)) {
                unlink(record.offset);
                pushFront(table_.offset + kFreeRecords, record.offset);
                removed_[record.pid]++;
                continue;
            }
            isEmpty = false;
            if (!record.isOpen) continue;
            modes |= record.mode;
            opens++;
        }
        storeIfOther(file.offset + offsetof(SharedFileEntry, combinedMode), modes, &sums_);
        storeIfOther(file.offset + offsetof(SharedFileEntry, openCount), opens, &sums_);
        if (!isEmpty) return;
        unlink(file.offset);
        pushFront(table_.offset + kFreeEntries, file.offset);
        emptied_++;
    }

    ArenaEditor arena_;
    const LockTable &table_;
    const HasEnded &hasEnded_;
    std::vector<std::string> done_;
    std::map<uint32_t, uint64_t> removed_;  // records, by process
    uint64_t links_ = 0;
    uint64_t sums_ = 0;
    uint64_t emptied_ = 0;
};

}  // namespace

Repair repairTable(std::span<std::byte> bytes, const HeapBlock &chunk, const HasEnded &hasEnded) {
    Findings findings;
    const LockTable table = readTable(ArenaView(bytes), chunk, findings);
    Repair repair;
    repair.refusal = reasonToRefuse(table, findings);
    if (repair.refusal.empty()) repair.done = TableMender(bytes, table, hasEnded).mend();
    return repair;
}
