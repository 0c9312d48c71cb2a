// The lock table's bytes, and the walks and primitives that its units share.
//
// A table is one chunk of an arena, mapped at another address in every process: all links are byte
// offsets from the arena's base, 0 = none. Lists are circular through a head that lies in the
// table; an empty head holds its own offset twice. The table's mutex guards every byte of it from
// creation on. Native byte order. A change of layout needs another value of
// SHARED_FILE_TABLE_READY, by which processes built for this layout would refuse the table.
#pragma once

#include "shared/shared_internal.h"

namespace iosched_lib {

// One link of a list; the first field of everything that is in one.
//
//   0x00   8  next   offset of the next element, of the head behind the last
//   0x08   8  prev   likewise backwards
//
// The next links are the truth: whoever repairs a table after a death inside its mutex can make the
// prev links, counts and combined modes anew from them. For that, at every instruction the next
// links of each list lead from its head through whole elements back to the head, and at most one
// entry and one record are on no list: an element is complete before it is linked in, keeps its own
// next link until it is out of the list, and is on another list before the next one is taken out.
// keepStoreOrder() holds the compiler to it.
struct SharedLink {
    uint64_t next;
    uint64_t prev;
};
static_assert(offsetof(SharedLink, next) == 0x00 && offsetof(SharedLink, prev) == 0x08);
static_assert(sizeof(SharedLink) == 0x10);

// The table: this header at the start of the chunk's data, and three arrays right behind it.
//
//   0x00  48  mutex          guards all that follows
//   0x30   4  state          SHARED_FILE_TABLE_READY, written last; 0 before
//   0x34   4  zero
//   0x38  16  freeEntries    head of the unused file entries
//   0x48  16  freeRecords    head of the unused lock records
//   0x58   4  bucketCount    B, signed, above 0
//   0x5C   4  zero
//   0x60      SharedLink[B], the heads of the bucket chains
//             SharedFileEntry[N]
//             SharedLockRecord[L]
//
// N and L stand nowhere: nothing but the creation needs them.
struct SharedFileLockHeader {
    SharedMutex mutex;
    uint32_t state;
    uint32_t zero0;
    SharedLink freeEntries;
    SharedLink freeRecords;
    int32_t bucketCount;
    uint32_t zero1;
};
static_assert(std::is_trivially_copyable_v<SharedFileLockHeader>);
static_assert(offsetof(SharedFileLockHeader, mutex) == 0x00);
static_assert(offsetof(SharedFileLockHeader, state) == 0x30);
static_assert(offsetof(SharedFileLockHeader, zero0) == 0x34);
static_assert(offsetof(SharedFileLockHeader, freeEntries) == 0x38);
static_assert(offsetof(SharedFileLockHeader, freeRecords) == 0x48);
static_assert(offsetof(SharedFileLockHeader, bucketCount) == 0x58);
static_assert(offsetof(SharedFileLockHeader, zero1) == 0x5C);
static_assert(sizeof(SharedFileLockHeader) == 0x60);

constexpr size_t kStoredNameBytes = 32;

// A file that somebody has open, in its bucket's chain; unused, in freeEntries.
//
//   0x00  16  link
//   0x10   8  word0         the file's key
//   0x18   8  word1
//   0x20   4  combinedMode  OR of the mode words of the open records
//   0x24   4  openLimit     set by the open that made the entry; 0 = none
//   0x28   4  openCount     number of open records
//   0x2C  32  name          its last 32 characters, NUL-padded; not terminated when all 32 are used
//   0x4C   4  zero          never written: ends a name of 32 characters
//   0x50  16  records       head of the file's records, in the order in which they were made
struct SharedFileEntry {
    SharedLink link;
    uint64_t word0;
    uint64_t word1;
    uint32_t combinedMode;
    uint32_t openLimit;
    uint32_t openCount;
    char name[kStoredNameBytes];
    uint32_t zero;
    SharedLink records;
};
static_assert(std::is_trivially_copyable_v<SharedFileEntry>);
static_assert(offsetof(SharedFileEntry, link) == 0x00);
static_assert(offsetof(SharedFileEntry, word0) == 0x10);
static_assert(offsetof(SharedFileEntry, word1) == 0x18);
static_assert(offsetof(SharedFileEntry, combinedMode) == 0x20);
static_assert(offsetof(SharedFileEntry, openLimit) == 0x24);
static_assert(offsetof(SharedFileEntry, openCount) == 0x28);
static_assert(offsetof(SharedFileEntry, name) == 0x2C);
static_assert(offsetof(SharedFileEntry, zero) == 0x4C);
static_assert(offsetof(SharedFileEntry, records) == 0x50);
static_assert(sizeof(SharedFileEntry) == 0x60);

// One open of a file or one byte-range lock on it, in the file's record list; unused, in
// freeRecords.
//
//   0x00  16  link
//   0x10   4  pid     the holder is this triple
//   0x14   4  owner
//   0x18   4  handle
//   0x1C   4  zero
//   0x20   8  start   first byte of the range, signed
//   0x28   8  end     its last byte, inclusive; an open record has start 0 and end -1
//   0x30   4  mode    an open's mode word, a lock's flags
//   0x34   4  zero
struct SharedLockRecord {
    SharedLink link;
    uint32_t pid;
    uint32_t owner;
    uint32_t handle;
    uint32_t zero0;
    int64_t start;
    int64_t end;
    uint32_t mode;
    uint32_t zero1;
};
static_assert(std::is_trivially_copyable_v<SharedLockRecord>);
static_assert(offsetof(SharedLockRecord, link) == 0x00);
static_assert(offsetof(SharedLockRecord, pid) == 0x10);
static_assert(offsetof(SharedLockRecord, owner) == 0x14);
static_assert(offsetof(SharedLockRecord, handle) == 0x18);
static_assert(offsetof(SharedLockRecord, zero0) == 0x1C);
static_assert(offsetof(SharedLockRecord, start) == 0x20);
static_assert(offsetof(SharedLockRecord, end) == 0x28);
static_assert(offsetof(SharedLockRecord, mode) == 0x30);
static_assert(offsetof(SharedLockRecord, zero1) == 0x34);
static_assert(sizeof(SharedLockRecord) == 0x38);

constexpr int64_t kOpenRecordEnd = -1;

// An empty range at 0 would be stored as {0, -1}, the mark of an open; no valid request yields this
// end.
constexpr int64_t kEmptyRangeAtZeroEnd = -2;

constexpr bool isOpenRecord(const SharedLockRecord &record) {
    return record.start == 0 && record.end == kOpenRecordEnd;
}

// Who holds a record. Whether two opens are of the same owner is another question, which leaves the
// handle out.
struct LockHolder {
    uint32_t pid;
    uint32_t owner;
    uint32_t handle;
};

constexpr bool isHeldBy(const SharedLockRecord &record, const LockHolder &holder) {
    return record.pid == holder.pid && record.owner == holder.owner &&
           record.handle == holder.handle;
}

// The elements of one list for a range-for, which may unlink the element in hand.
template <class Element>
class SharedListRange {
    static_assert(offsetof(Element, link) == 0);

public:
    class Iterator {
    public:
        Iterator(char *base, uint64_t at) : base_(base), at_(at), next_(linkAt()->next) {}
        Element &operator*() const { return *reinterpret_cast<Element *>(base_ + at_); }
        bool operator!=(const Iterator &other) const { return at_ != other.at_; }
        Iterator &operator++() {
            at_ = next_;
            next_ = linkAt()->next;
            return *this;
        }

    private:
        const SharedLink *linkAt() const { return reinterpret_cast<SharedLink *>(base_ + at_); }

        char *base_;
        uint64_t at_;
        uint64_t next_;  // read before the element in hand may go to another list
    };

    SharedListRange(char *base, uint64_t head) : base_(base), head_(head) {}
    Iterator begin() const {
        return Iterator(base_, reinterpret_cast<SharedLink *>(base_ + head_)->next);
    }
    Iterator end() const { return Iterator(base_, head_); }

private:
    char *base_;
    uint64_t head_;
};

// A table as this process sees it: turns offsets into addresses and back, and moves elements from
// list to list. Cheap to copy; only for the holder of the table's mutex.
class TableView {
public:
    explicit TableView(const SharedFileLockTable *table)
        : base_(static_cast<char *>(table->arena->base)),
          header_(static_cast<SharedFileLockHeader *>(table->header)) {}

    SharedFileLockHeader *header() const { return header_; }
    uint32_t bucketCount() const { return static_cast<uint32_t>(header_->bucketCount); }
    SharedLink *bucket(uint64_t index) const {
        return reinterpret_cast<SharedLink *>(header_ + 1) + index;
    }

    SharedListRange<SharedFileEntry> entries(const SharedLink *bucket) const {
        return {base_, offsetOf(bucket)};
    }
    SharedListRange<SharedLockRecord> records(const SharedFileEntry &entry) const {
        return {base_, offsetOf(&entry.records)};
    }

    void makeEmpty(SharedLink *head) const { head->next = head->prev = offsetOf(head); }
    bool isEmpty(const SharedLink *head) const { return head->next == offsetOf(head); }

    void pushFront(SharedLink *head, SharedLink *link) const { insertBefore(at(head->next), link); }
    void append(SharedLink *head, SharedLink *link) const { insertBefore(head, link); }
    void unlink(SharedLink *link) const {
        const SharedLink gone = *link;
        keepStoreOrder();  // the element taken out before is on its list
        at(gone.prev)->next = gone.next;
        keepStoreOrder();  // from here on the element's own links may change
        at(gone.next)->prev = gone.prev;
    }

    // Takes the first element out of a list; null when the list is empty.
    template <class Element>
    Element *takeFirst(SharedLink *head) const {
        if (isEmpty(head)) return nullptr;
        SharedLink *first = at(head->next);
        unlink(first);
        return reinterpret_cast<Element *>(first);
    }

private:
    SharedLink *at(uint64_t offset) const { return reinterpret_cast<SharedLink *>(base_ + offset); }
    uint64_t offsetOf(const void *address) const {
        return static_cast<uint64_t>(static_cast<const char *>(address) - base_);
    }
    void insertBefore(SharedLink *place, SharedLink *link) const {
        const uint64_t before = place->prev;
        *link = {offsetOf(place), before};
        keepStoreOrder();  // the element is whole
        at(before)->next = offsetOf(link);
        place->prev = offsetOf(link);
    }

    char *base_;
    SharedFileLockHeader *header_;
};

// Runs operation(TableView) under the table's mutex, which it releases however the operation
// returns. Returns the mutex's error, else the operation's result. The operation must not call an
// exported function: the mutex is not recursive. Nor may it follow a pointer of the caller's: where
// that leads nowhere, the process would die with the mutex locked. Keys and names are copied
// before, outputs written after.
template <class Operation>
int underTableMutex(const SharedFileLockTable *table, Operation operation) {
    const TableView view(table);
    SharedMutex *mutex = &view.header()->mutex;
    if (const uint32_t failed = AquireSharedMutex(mutex)) return static_cast<int>(failed);
    const int result = operation(view);
    if (const uint32_t failed = ReleaseSharedMutex(mutex)) return static_cast<int>(failed);
    return result;
}

// The primitives of all operations, for the holder of the table's mutex.

// The entry in use with this key, or null.
SharedFileEntry *findEntry(TableView view, const SharedFileKey &key);
// The chain that an entry with this key is in or goes to.
SharedLink *bucketOf(TableView view, const SharedFileKey &key);
// Appends a record to the entry's list. Returns 0, or SHARED_ERR_NOLOCKS after a line in the system
// log and with nothing changed. The caller keeps the entry's mode and count true.
int addRangeLock(TableView view, const LockHolder &holder, SharedFileEntry *entry, uint32_t mode,
                 int64_t start, int64_t end);
// Gives a record back, lowering its entry's open count when it was an open.
void releaseRecord(TableView view, SharedFileEntry *entry, SharedLockRecord *record);
// Gives an entry back. Its record list must be empty.
void releaseEntry(TableView view, SharedFileEntry *entry);
// Gives back an entry that has lost its last record, else recomputes its combined mode.
void settleEntry(TableView view, SharedFileEntry *entry);
void rebuildMode(TableView view, SharedFileEntry *entry);

}  // namespace iosched_lib

using namespace iosched_lib;
