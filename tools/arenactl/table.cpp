#include "table.h"

#include "mutex_words.h"

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <map>
#include <utility>

namespace {

constexpr uint64_t kHeaderBytes = sizeof(SharedFileLockHeader);
constexpr uint64_t kHeadBytes = sizeof(SharedLink);
constexpr uint64_t kFileBytes = sizeof(SharedFileEntry);
constexpr uint64_t kRecordBytes = sizeof(SharedLockRecord);
constexpr uint32_t kLeastBuckets = 16;
constexpr uint64_t kNobody = ~uint64_t{0};

bool plausibleBuckets(uint32_t buckets, uint64_t chunkSize) {
    return buckets >= kLeastBuckets && std::has_single_bit(buckets) &&
           kHeaderBytes + buckets * kHeadBytes <= chunkSize;
}

// Where the parts of one table lie. Slots are numbered in address order.
struct Places {
    uint64_t base;
    uint32_t buckets;
    uint64_t files;
    uint64_t records;

    uint64_t bucketHead(uint64_t i) const { return base + kHeaderBytes + i * kHeadBytes; }
    uint64_t firstFile() const { return bucketHead(buckets); }
    uint64_t firstRecord() const { return firstFile() + files * kFileBytes; }
    uint64_t end() const { return firstRecord() + records * kRecordBytes; }
};

// A list in words, which are only made for a finding: tables have many lists.
struct ListName {
    const char *words;
    uint64_t number = kNobody;  // goes behind the words

    std::string text() const {
        return number == kNobody ? std::string(words) : printed("%s %" PRIu64, words, number);
    }
};

// The slots of one kind: where they lie and which of them a list has already claimed.
struct Slots {
    uint64_t first;
    uint64_t bytes;
    std::vector<bool> claimed;
    const char *noun;

    // The slot that begins at this offset, or kNobody.
    uint64_t slotAt(uint64_t offset) const {
        if (offset < first || (offset - first) % bytes != 0) return kNobody;
        const uint64_t slot = (offset - first) / bytes;
        return slot < claimed.size() ? slot : kNobody;
    }
};

// ---- how many file entries and records there are ----

// Collects what the lists reach before it is known where the entries end and the records begin:
// whatever has the right distance from the one end or the other.
class Survey {
public:
    Survey(const ArenaView &arena, const Places &places, uint64_t end)
        : arena_(arena), places_(places), end_(end), isFile_((end - places.firstFile()) / 8, false),
          isRecord_(isFile_.size(), false) {
        collectFiles(places.base + offsetof(SharedFileLockHeader, freeEntries));
        for (uint64_t i = 0; i < places.buckets; i++)
            collectFiles(places.bucketHead(i));
        collectRecords(places.base + offsetof(SharedFileLockHeader, freeRecords));
        for (const uint64_t file : std::vector<uint64_t>(files_))
            collectRecords(file + offsetof(SharedFileEntry, records));
        std::sort(files_.begin(), files_.end());
        std::sort(records_.begin(), records_.end());
    }

    // How badly a number of entries fits what the lists reach: slots that no list reaches, and
    // places that a list reaches but that would be no slot.
    uint64_t misfits(uint64_t files, uint64_t records) const {
        const uint64_t border = places_.firstFile() + files * kFileBytes;
        const auto filesInside = countBelow(files_, border);
        const auto recordsOutside = countBelow(records_, border);
        return (files - filesInside) + (files_.size() - filesInside) +
               (records - (records_.size() - recordsOutside)) + recordsOutside;
    }

private:
    static uint64_t countBelow(const std::vector<uint64_t> &offsets, uint64_t border) {
        return static_cast<uint64_t>(std::lower_bound(offsets.begin(), offsets.end(), border) -
                                     offsets.begin());
    }

    void collectFiles(uint64_t head) {
        collect(head, kFileBytes, &isFile_, &files_,
                [&](uint64_t at) { return (at - places_.firstFile()) % kFileBytes == 0; });
    }

    void collectRecords(uint64_t head) {
        collect(head, kRecordBytes, &isRecord_, &records_,
                [&](uint64_t at) { return (end_ - at) % kRecordBytes == 0; });
    }

    template <class Fits>
    void collect(uint64_t head, uint64_t bytes, std::vector<bool> *seen,
                 std::vector<uint64_t> *found, Fits fits) {
        uint64_t at = arena_.load<uint64_t>(head);
        while (at != head && at >= places_.firstFile() && at < end_ && end_ - at >= bytes &&
               fits(at) && !(*seen)[(at - places_.firstFile()) / 8]) {
            (*seen)[(at - places_.firstFile()) / 8] = true;
            found->push_back(at);
            at = arena_.load<uint64_t>(at);
        }
    }

    const ArenaView &arena_;
    const Places &places_;
    const uint64_t end_;
    std::vector<bool> isFile_;
    std::vector<bool> isRecord_;
    std::vector<uint64_t> files_;
    std::vector<uint64_t> records_;
};

// Sets the counts that fill the chunk exactly and fit the lists best. Seven entries take the room
// of twelve records, so the size alone leaves several answers. False if it leaves none.
bool countSlots(const ArenaView &arena, uint64_t chunkSize, Places *places) {
    const uint64_t room = chunkSize - (kHeaderBytes + places->buckets * kHeadBytes);
    const uint64_t least = places->buckets == kLeastBuckets ? 0 : uint64_t{places->buckets} + 1;
    const uint64_t most = std::min(uint64_t{places->buckets} * 2, room / kFileBytes);
    const Survey survey(arena, *places, places->base + chunkSize);
    uint64_t fewest = kNobody;
    for (uint64_t files = least; files <= most; files++) {
        const uint64_t rest = room - files * kFileBytes;
        if (rest % kRecordBytes != 0) continue;
        const uint64_t misfits = survey.misfits(files, rest / kRecordBytes);
        if (misfits >= fewest) continue;
        fewest = misfits;
        places->files = files;
        places->records = rest / kRecordBytes;
    }
    return fewest != kNobody;
}

// ---- reading and checking ----

class TableReader {
public:
    TableReader(const ArenaView &arena, LockTable *table, const Places &places, Findings &findings)
        : arena_(arena), table_(table), places_(places),
          findings_(findings), files_{places.firstFile(), kFileBytes,
                                      std::vector<bool>(places.files), "file entry"},
          records_{places.firstRecord(), kRecordBytes, std::vector<bool>(places.records),
                   "lock record"} {}

    void read() {
        table_->freeFiles = walk(places_.base + offsetof(SharedFileLockHeader, freeEntries), files_,
                                 {"free file-entry list"}, [](uint64_t) {});
        table_->freeRecords = walk(places_.base + offsetof(SharedFileLockHeader, freeRecords),
                                   records_, {"free lock-record list"}, [](uint64_t) {});
        for (uint32_t i = 0; i < places_.buckets; i++) {
            walk(places_.bucketHead(i), files_, {"bucket", i},
                 [&](uint64_t offset) { readFile(offset, i); });
        }
        table_->lostFiles = checkLost(files_);
        table_->lostRecords = checkLost(records_);
        checkKeys();
    }

private:
    std::string place(const std::string &part) const {
        return "table " + quoted(table_->name) + ", " + part;
    }

    std::string filePlace(const TableFile &file, const char *field) const {
        return place(printed("file entry %" PRIu64, files_.slotAt(file.offset))) + " " +
               quoted(file.name) + ", " + field;
    }

    // Walks a circular list from its head, claims its slots and calls visit with each. Returns how
    // many there are. Ends at the first link that leads astray or to a slot claimed before: a slot
    // on two lists is the first one's, and what the second has behind it shows as lost. Only next
    // is followed; a prev that disagrees is a finding of its own and changes nothing else.
    template <class Visit>
    uint64_t walk(uint64_t head, Slots &slots, const ListName &list, Visit visit) {
        uint64_t count = 0;
        uint64_t at = head;
        for (;;) {
            const uint64_t next = arena_.load<uint64_t>(at);
            if (next != head && !claim(next, at, slots, list)) return count;
            const uint64_t back = arena_.load<uint64_t>(next + offsetof(SharedLink, prev));
            if (back != at) {
                findings_.add("back-link", next + offsetof(SharedLink, prev), 8,
                              place(list.text()) + (next == head ? ", the head's prev" : ", prev"),
                              printed("leads to 0x%" PRIx64
                                      ", but the list comes here from 0x%" PRIx64,
                                      back, at));
            }
            if (next == head) return count;
            count++;
            visit(next);
            at = next;
        }
    }

    bool claim(uint64_t offset, uint64_t from, Slots &slots, const ListName &list) {
        const uint64_t slot = slots.slotAt(offset);
        if (slot == kNobody) {
            findings_.add(
                "table-link", from, 8, place(list.text()) + ", next",
                printed("leads to 0x%" PRIx64 ", where no %s begins", offset, slots.noun));
            return false;
        }
        if (slots.claimed[slot]) {
            findings_.add("slot-twice", from, 8, place(list.text()) + ", next",
                          printed("leads to 0x%" PRIx64 ", a %s met before: it is on two lists or "
                                  "the list runs in a circle",
                                  offset, slots.noun));
            return false;
        }
        slots.claimed[slot] = true;
        return true;
    }

    void readFile(uint64_t offset, uint32_t bucket) {
        const auto entry = arena_.load<SharedFileEntry>(offset);
        const size_t nameLength = ::strnlen(entry.name, sizeof(entry.name));
        TableFile file{offset,
                       bucket,
                       entry.word0,
                       entry.word1,
                       entry.combinedMode,
                       entry.openLimit,
                       entry.openCount,
                       std::string(entry.name, nameLength),
                       {}};
        walk(offset + offsetof(SharedFileEntry, records), records_,
             {"records of file entry", files_.slotAt(offset)},
             [&](uint64_t at) { readRecord(at, &file); });
        checkFile(entry, file);
        table_->files.push_back(std::move(file));
    }

    void readRecord(uint64_t offset, TableFile *file) {
        const auto record = arena_.load<SharedLockRecord>(offset);
        const bool isOpen = isOpenRecord(record);
        file->records.push_back({offset, record.pid, record.owner, record.handle, record.start,
                                 record.end, record.mode, isOpen});
        if (record.pid == 0 || record.pid > INT32_MAX) {
            findings_.add("record-pid", offset + offsetof(SharedLockRecord, pid), 4,
                          place(printed("lock record %" PRIu64 ", pid", records_.slotAt(offset))),
                          printed("%" PRIu32 " is no process id", record.pid));
        }
        if (record.zero0 != 0 || record.zero1 != 0) {
            const size_t field = record.zero0 != 0 ? offsetof(SharedLockRecord, zero0)
                                                   : offsetof(SharedLockRecord, zero1);
            findings_.add(
                "padding", offset + field, 4,
                place(printed("lock record %" PRIu64 ", padding", records_.slotAt(offset))),
                "is not zero");
        }
    }

    void checkFile(const SharedFileEntry &entry, const TableFile &file) {
        uint32_t modes = 0;
        uint32_t opens = 0;
        for (const TableRecord &record : file.records) {
            if (!record.isOpen) continue;
            modes |= record.mode;
            opens++;
        }
        if (modes != file.combinedMode) {
            findings_.add("combined-mode", file.offset + offsetof(SharedFileEntry, combinedMode), 4,
                          filePlace(file, "combined mode"),
                          printed("0x%08" PRIx32 ", but its opens together make 0x%08" PRIx32,
                                  file.combinedMode, modes));
        }
        if (opens != file.opens) {
            findings_.add(
                "open-count", file.offset + offsetof(SharedFileEntry, openCount), 4,
                filePlace(file, "open count"),
                printed("%" PRIu32 ", but it has %" PRIu32 " open records", file.opens, opens));
        }
        const uint32_t bucket =
            static_cast<uint32_t>(((file.word0 & 0xFFFFFFFF) ^ file.word1) % places_.buckets);
        if (bucket != file.bucket) {
            findings_.add("wrong-bucket", file.offset + offsetof(SharedFileEntry, word0), 16,
                          filePlace(file, "key"),
                          printed("belongs in bucket %" PRIu32 " but hangs in bucket %" PRIu32,
                                  bucket, file.bucket));
        }
        checkName(entry, file);
    }

    void checkName(const SharedFileEntry &entry, const TableFile &file) {
        const char *const end = std::end(entry.name);
        const bool padded =
            std::all_of(entry.name + file.name.size(), end, [](char c) { return c == '\0'; });
        if (!padded) {
            findings_.add("file-name", file.offset + offsetof(SharedFileEntry, name),
                          sizeof(entry.name), filePlace(file, "name"),
                          "goes on behind its end; the rest of the field is NUL bytes");
        }
        if (entry.zero != 0) {
            findings_.add("padding", file.offset + offsetof(SharedFileEntry, zero), 4,
                          filePlace(file, "padding"), "is not zero");
        }
    }

    // Slots that no list holds. One finding for each run of them: a cut list loses many.
    std::vector<uint64_t> checkLost(const Slots &slots) {
        std::vector<uint64_t> lost;
        const uint64_t total = slots.claimed.size();
        for (uint64_t slot = 0; slot < total; slot++) {
            if (slots.claimed[slot]) continue;
            const uint64_t first = slot;
            for (; slot < total && !slots.claimed[slot]; slot++)
                lost.push_back(slots.first + slot * slots.bytes);
            findings_.add("slot-lost", slots.first + first * slots.bytes,
                          (slot - first) * slots.bytes,
                          place(printed("%s %" PRIu64, slots.noun, first)),
                          slot - first == 1 ? std::string("is on no list")
                                            : printed("and the %" PRIu64 " after it are on no list",
                                                      slot - first - 1));
        }
        return lost;
    }

    void checkKeys() {
        std::map<std::pair<uint64_t, uint64_t>, uint64_t> places;
        for (const TableFile &file : table_->files) {
            const auto [other, isNew] =
                places.emplace(std::pair(file.word0, file.word1), file.offset);
            if (isNew) continue;
            findings_.add(
                "key-twice", file.offset + offsetof(SharedFileEntry, word0), 16,
                filePlace(file, "key"),
                printed("is also the key of the file entry at 0x%" PRIx64, other->second));
        }
    }

    const ArenaView &arena_;
    LockTable *table_;
    const Places places_;
    Findings &findings_;
    Slots files_;
    Slots records_;
};

// The words of the header that never change once the table is ready.
void checkHeader(const SharedFileLockHeader &header, const LockTable &table, Findings &findings) {
    const std::string name = "table " + quoted(table.name) + ", ";
    if (header.state != SHARED_FILE_TABLE_READY) {
        findings.add("table-state", table.offset + offsetof(SharedFileLockHeader, state), 4,
                     name + "state",
                     printed("%" PRIu32 ", where a ready table has %" PRIu32, header.state,
                             SHARED_FILE_TABLE_READY));
    }
    if (header.zero0 != 0 || header.zero1 != 0) {
        const size_t field = header.zero0 != 0 ? offsetof(SharedFileLockHeader, zero0)
                                               : offsetof(SharedFileLockHeader, zero1);
        findings.add("padding", table.offset + field, 4, name + "padding", "is not zero");
    }
}

}  // namespace

bool looksLikeTable(const ArenaView &arena, const HeapBlock &chunk) {
    const uint64_t leastBytes = kHeaderBytes + kLeastBuckets * kHeadBytes;
    if (!chunk.named || !chunk.sound || chunk.chunkSize < leastBytes) return false;
    const auto header = arena.load<SharedFileLockHeader>(chunk.data());
    const auto inChunk = [&](uint64_t link) {
        return link % 8 == 0 && link >= chunk.data() && link - chunk.data() < chunk.chunkSize;
    };
    const int signs = (header.state == SHARED_FILE_TABLE_READY) +
                      plausibleBuckets(static_cast<uint32_t>(header.bucketCount), chunk.chunkSize) +
                      looksLikeMutex(header.mutex) +
                      (inChunk(header.freeEntries.next) && inChunk(header.freeEntries.prev)) +
                      (inChunk(header.freeRecords.next) && inChunk(header.freeRecords.prev));
    return signs >= 3;
}

LockTable readTable(const ArenaView &arena, const HeapBlock &chunk, Findings &findings) {
    findings.guardedBy(chunk.data());
    const auto header = arena.load<SharedFileLockHeader>(chunk.data());
    LockTable table{};
    table.offset = chunk.data();
    table.size = chunk.chunkSize;
    table.name = chunk.name;
    table.state = header.state;
    table.buckets = static_cast<uint32_t>(header.bucketCount);
    checkHeader(header, table, findings);
    Places places{table.offset, table.buckets, 0, 0};
    if (!plausibleBuckets(table.buckets, table.size)) {
        findings.add("buckets", table.offset + offsetof(SharedFileLockHeader, bucketCount), 4,
                     "table " + quoted(table.name) + ", bucket count",
                     printed("%" PRIu32 " is not a power of two from 16 up with room in a chunk of "
                             "%" PRIu64 " bytes",
                             table.buckets, table.size));
        return table;
    }
    if (!countSlots(arena, table.size, &places)) {
        findings.add("table-size", table.offset, table.size, "table " + quoted(table.name),
                     printed("no number of file entries and lock records fills a chunk of %" PRIu64
                             " bytes with %" PRIu32 " buckets",
                             table.size, table.buckets));
        return table;
    }
    table.fileEntries = places.files;
    table.lockRecords = places.records;
    table.readable = true;
    TableReader(arena, &table, places, findings).read();
    return table;
}
