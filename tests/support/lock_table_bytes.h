// Reads a lock table's bytes by their places alone, without the library's structs, and checks what
// must hold of them. So a slip in the structs shows as much as a slip in the operations.
#pragma once

#include "iosched/shared.h"

#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

struct RecordBytes {
    uint32_t pid, owner, handle;
    int64_t start, end;
    uint32_t mode;
    bool operator==(const RecordBytes &) const = default;
};

struct EntryBytes {
    uint64_t offset, word0, word1;
    uint32_t combinedMode, openLimit, openCount;
    std::string name;
    std::vector<RecordBytes> records;
};

// The whole table, and what is wrong with it.
struct TableBytes {
    std::string fault;  // empty = every invariant holds
    std::vector<EntryBytes> entries;
    uint64_t freeEntries = 0, freeRecords = 0;
};

class TableBytesReader {
public:
    TableBytesReader(const SharedFileLockTable *table, uint64_t entries, uint64_t records)
        : base_(static_cast<const char *>(table->arena->base)),
          header_(static_cast<uint64_t>(static_cast<const char *>(table->header) - base_)),
          entries_(entries), records_(records) {}

    // To be called while nobody is in the table.
    TableBytes read() {
        buckets_ = word32(header_ + 88);
        firstEntry_ = header_ + 96 + 16 * buckets_;
        firstRecord_ = firstEntry_ + 96 * entries_;
        if (word32(header_ + 48) != 3) fault("state");
        if (word32(header_ + 40) != 0) fault("holder while free");
        if (word32(header_ + 44) != 0 || word32(header_ + 52) != 0 || word32(header_ + 92) != 0) {
            fault("header padding");
        }
        for (uint64_t entry : list(header_ + 56))
            claimEntry(entry);
        result_.freeEntries = seenEntries_.size();
        for (uint64_t record : list(header_ + 72))
            claimRecord(record);
        result_.freeRecords = seenRecords_.size();
        for (uint64_t i = 0; i < buckets_; ++i) {
            for (uint64_t entry : list(header_ + 96 + 16 * i))
                readEntry(entry, i);
        }
        if (seenEntries_.size() != entries_) fault("entry in no list");
        if (seenRecords_.size() != records_) fault("record in no list");
        return std::move(result_);
    }

private:
    template <class T>
    T read(uint64_t offset) const {
        T value;
        std::memcpy(&value, base_ + offset, sizeof value);
        return value;
    }
    uint32_t word32(uint64_t offset) const { return read<uint32_t>(offset); }
    uint64_t word64(uint64_t offset) const { return read<uint64_t>(offset); }
    void fault(const char *what) {
        if (result_.fault.empty()) result_.fault = what;
    }

    std::vector<uint64_t> list(uint64_t head) {
        std::vector<uint64_t> found;
        uint64_t before = head;
        for (uint64_t at = word64(head); at != head; at = word64(at)) {
            if (word64(at + 8) != before) fault("prev does not point back");
            if (found.size() > entries_ + records_) {
                fault("list does not end");
                return found;
            }
            found.push_back(at);
            before = at;
        }
        if (word64(head + 8) != before) fault("head's prev is not the last");
        return found;
    }
    void claim(uint64_t at, uint64_t first, uint64_t size, uint64_t count,
               std::set<uint64_t> &seen) {
        if (at < first || (at - first) % size != 0 || (at - first) / size >= count) {
            fault("link to no element");
        }
        if (!seen.insert(at).second) fault("element in two lists");
    }
    void claimEntry(uint64_t at) { claim(at, firstEntry_, 96, entries_, seenEntries_); }
    void claimRecord(uint64_t at) {
        claim(at, firstRecord_, 56, records_, seenRecords_);
        if (word32(at + 28) != 0 || word32(at + 52) != 0) fault("record padding");
    }

    void readEntry(uint64_t at, uint64_t bucket) {
        claimEntry(at);
        EntryBytes entry{};
        entry.offset = at;
        entry.word0 = word64(at + 16);
        entry.word1 = word64(at + 24);
        entry.combinedMode = word32(at + 32);
        entry.openLimit = word32(at + 36);
        entry.openCount = word32(at + 40);
        entry.name.assign(base_ + at + 44, ::strnlen(base_ + at + 44, 32));
        if (((entry.word0 & 0xFFFFFFFFu) ^ entry.word1) % buckets_ != bucket) fault("bucket");
        if (!keys_.insert({entry.word0, entry.word1}).second) fault("key in use twice");
        if (word32(at + 76) != 0) fault("entry padding");
        uint32_t combined = 0, opens = 0;
        for (uint64_t record : list(at + 80)) {
            claimRecord(record);
            const RecordBytes bytes{word32(record + 16),        word32(record + 20),
                                    word32(record + 24),        read<int64_t>(record + 32),
                                    read<int64_t>(record + 40), word32(record + 48)};
            if (bytes.start == 0 && bytes.end == -1) {
                combined |= bytes.mode;
                ++opens;
            }
            entry.records.push_back(bytes);
        }
        if (entry.combinedMode != combined) fault("combined mode");
        if (entry.openCount != opens) fault("open count");
        result_.entries.push_back(std::move(entry));
    }

    const char *base_;
    uint64_t header_, entries_, records_;
    uint64_t buckets_ = 0, firstEntry_ = 0, firstRecord_ = 0;
    std::set<uint64_t> seenEntries_, seenRecords_;
    std::set<std::pair<uint64_t, uint64_t>> keys_;
    TableBytes result_;
};

inline TableBytes readTableBytes(const SharedFileLockTable *table, uint64_t entries,
                                 uint64_t records) {
    return TableBytesReader(table, entries, records).read();
}
