// Breaks a sound arena in every way that the checker knows and sees whether it names that very thing.
#include "sample_arena.h"
#include "shared/locks_internal.h"
#include "shared/shared_internal.h"

#include <algorithm>
#include <functional>
#include <stdexcept>

namespace {

// A sound arena's bytes, where its things lie, and what the scenario does to them.
struct Patient {
    Bytes bytes;
    ArenaModel model;

    template <class T>
    T get(uint64_t offset) const {
        T value;
        std::memcpy(&value, bytes.data() + offset, sizeof(T));
        return value;
    }
    template <class T>
    uint64_t put(uint64_t offset, std::type_identity_t<T> value) {
        std::memcpy(bytes.data() + offset, &value, sizeof(T));
        return offset;
    }

    const LockTable &table() const { return model.tables.at(0); }
    const TableFile &report() const { return file("report \"1\".txt"); }
    const TableFile &ledger() const { return file("\x80ledger"); }
    const HeapBlock &chunk(const std::string &name) const {
        for (const HeapBlock &block : model.blocks) {
            if (block.named && block.name == name) return block;
        }
        throw std::runtime_error("no chunk " + name);
    }
    uint64_t block(const std::string &name) const { return chunk(name).offset; }
    // The first block of the free list, and the last.
    uint64_t firstFree() const { return get<uint64_t>(offsetof(ArenaHeader, freeList)); }
    uint64_t lastFree() const { return get<uint64_t>(firstFree()); }
    uint64_t bucket(uint32_t i) const {
        return table().offset + sizeof(SharedFileLockHeader) + i * sizeof(SharedLink);
    }

private:
    const TableFile &file(const std::string &name) const {
        for (const TableFile &found : table().files) {
            if (found.name == name) return found;
        }
        throw std::runtime_error("no file " + name);
    }
};

Patient soundArena() {
    SampleArena sample;
    Patient patient{sample.bytes(), {}};
    patient.model = readArena(patient.bytes);
    return patient;
}

struct Damage {
    const char *code;
    // Breaks something and returns where the finding must point.
    std::function<uint64_t(Patient &)> inflict;
};

void expectNamed(const std::vector<Damage> &damages) {
    const Patient sound = soundArena();
    ASSERT_EQ(checkArena(sound.bytes), "");
    for (size_t i = 0; i < damages.size(); i++) {
        Patient patient = sound;
        const uint64_t place = damages[i].inflict(patient);
        const ArenaModel model = readArena(patient.bytes);
        const bool named = std::any_of(
            model.findings.list().begin(), model.findings.list().end(), [&](const Finding &f) {
                return std::string_view(f.code) == damages[i].code && f.offset == place;
            });
        EXPECT_TRUE(named) << "damage " << i << ", " << damages[i].code << " at 0x" << std::hex
                           << place << ":\n"
                           << checkArena(patient.bytes);
    }
}

constexpr uint64_t kSize = offsetof(BlockHeader, blockSize);
constexpr uint64_t kFreeRecords = offsetof(SharedFileLockHeader, freeRecords);
constexpr uint64_t kPrev = offsetof(SharedLink, prev);

}  // namespace

TEST(Checker, ReadsASoundArenaWhole) {
    const Patient sound = soundArena();
    EXPECT_EQ(sound.model.blocks.size(), 6u);
    ASSERT_EQ(sound.model.tables.size(), 1u);
    const LockTable &table = sound.table();
    EXPECT_EQ(table.fileEntries, 16u);
    EXPECT_EQ(table.lockRecords, 24u);
    EXPECT_EQ(table.freeFiles, 14u);
    EXPECT_EQ(table.freeRecords, 19u);
    ASSERT_EQ(sound.report().records.size(), 4u);
    EXPECT_EQ(sound.report().records[0].handle, 1u);
    EXPECT_EQ(sound.report().records[3].end, INT64_MAX);
    EXPECT_EQ(sound.report().opens, 2u);
}

// Seven entries take the room of twelve records, so the chunk's size alone does not tell.
TEST(Checker, WorksOutTheNumbersOfEntriesAndRecordsThatNoFieldHolds) {
    for (const auto &[files, records] :
         {std::pair(0, 24), {7, 12}, {14, 3}, {32, 30}, {33, 12}, {40, 9}, {64, 70}, {100, 300}}) {
        SampleArena sample(1 << 18);
        SharedFileLockTable *other = nullptr;
        ASSERT_EQ(AllocateSharedFileLockTable(sample.arena, "other", 1, files, records, &other), 0);
        const Bytes bytes = sample.bytes();
        const ArenaModel model = readArena(bytes);
        EXPECT_EQ(checkArena(bytes), "");
        ASSERT_EQ(model.tables.size(), 2u);
        for (const LockTable &table : model.tables) {
            if (table.name != "other") continue;
            EXPECT_EQ(table.fileEntries, static_cast<uint64_t>(files));
            EXPECT_EQ(table.lockRecords, static_cast<uint64_t>(records));
        }
        (void)FreeSharedFileLockTable(other);
    }
}

TEST(Checker, NamesDamageToTheHeader) {
    expectNamed({
        {"magic", [](Patient &p) { return p.put<uint32_t>(0x30, 1); }},
        {"version", [](Patient &p) { return p.put<uint32_t>(0x34, 2); }},
        {"mutex-kind", [](Patient &p) { return p.put<uint32_t>(0x10, 0); }},
        {"mutex-word", [](Patient &p) { return p.put<uint32_t>(0x00, 77); }},
        {"mutex-holder", [](Patient &p) { return p.put<uint32_t>(0x28, 4711); }},
        {"mutex-holder", [](Patient &p) { return p.put<uint32_t>(0x08, 4711); }},
        {"padding", [](Patient &p) { return p.put<uint32_t>(0x2C, 1); }},
        {"short", [](Patient &p) { return p.bytes.resize(71), 0; }},
        {"file-size", [](Patient &p) { return p.bytes.resize(p.bytes.size() + 8), 0; }},
    });
}

TEST(Checker, NamesDamageToTheListsOfTheHeap) {
    expectNamed({
        {"block-link", [](Patient &p) { return p.put<uint64_t>(0x38, 0x4C); }},
        {"block-link", [](Patient &p) { return p.put<uint64_t>(0x40, 0x40); }},
        {"block-link", [](Patient &p) { return p.put<uint64_t>(p.block("tally"), 1 << 20); }},
        {"block-link", [](Patient &p) { return p.put<uint64_t>(0x40, ~uint64_t{7}); }},
        {"block-twice", [](Patient &p) { return p.put<uint64_t>(p.lastFree(), p.firstFree()); }},
        {"block-twice",
         [](Patient &p) { return p.put<uint64_t>(p.block("tally"), p.firstFree()); }},
        {"heap-gap",
         [](Patient &p) {
             const uint64_t lost = p.firstFree();
             p.put<uint64_t>(0x38, p.get<uint64_t>(lost));
             return lost;
         }},
        {"free-order",
         [](Patient &p) {
             const uint64_t first = p.firstFree(), last = p.lastFree();
             p.put<uint64_t>(0x38, last);
             p.put<uint64_t>(first, 0);
             return p.put<uint64_t>(last, first);
         }},
        {"free-neighbours",
         [](Patient &p) {
             const uint64_t last = p.lastFree(), size = p.get<uint64_t>(last + kSize);
             p.put<uint64_t>(last + kSize, 48);
             p.put<uint64_t>(last, last + 48);
             p.put<uint64_t>(last + 48, 0);
             p.put<uint64_t>(last + 48 + kSize, size - 48);
             return last + 48;
         }},
    });
}

TEST(Checker, NamesDamageToBlocks) {
    expectNamed({
        {"block-size", [](Patient &p) { return p.put<uint64_t>(p.block("tally") + kSize, 0); }},
        {"block-size", [](Patient &p) { return p.put<uint64_t>(p.block("tally") + kSize, 113); }},
        {"block-size", [](Patient &p) { return p.put<uint64_t>(p.block("tally") + kSize, ~7ull); }},
        {"heap-overlap",
         [](Patient &p) {
             const HeapBlock &tally = p.chunk("tally");
             p.put<uint64_t>(tally.offset + kSize, tally.size + 8);
             return tally.offset + tally.size;
         }},
        {"heap-gap",
         [](Patient &p) {
             const HeapBlock &tally = p.chunk("tally");
             p.put<uint64_t>(tally.offset + kSize, tally.size - 8);
             return tally.offset + tally.size - 8;
         }},
        {"references", [](Patient &p) { return p.put<uint32_t>(p.block("tally") + 0x20, 0); }},
        {"chunk-size", [](Patient &p) { return p.put<uint64_t>(p.block("tally") + 0x18, 4096); }},
        {"chunk-size", [](Patient &p) { return p.put<uint64_t>(p.block("tally") + 0x18, ~0ull); }},
        {"block-surplus",
         [](Patient &p) {
             const uint64_t locks = p.block("tally");
             p.put<uint64_t>(locks + 8, 0);
             p.put<uint64_t>(locks + 0x18, 8);
             return locks + kSize;
         }},
        {"name-place", [](Patient &p) { return p.put<uint64_t>(p.block("tally") + 8, 0x48); }},
        {"name-end",
         [](Patient &p) {
             const HeapBlock &tally = p.chunk("tally");
             const uint64_t name = tally.data() + tally.chunkSize;
             std::memset(p.bytes.data() + name, 'x', tally.offset + tally.size - name);
             return name;
         }},
        {"name-twice",
         [](Patient &p) {
             const HeapBlock &tally = p.chunk("tally"), &locks = p.chunk("locks");
             std::memcpy(p.bytes.data() + tally.data() + tally.chunkSize, "locks", 6);
             return locks.data() + locks.chunkSize;
         }},
    });
}

TEST(Checker, NamesDamageToTheHeaderAndTheListsOfATable) {
    expectNamed({
        {"table-state", [](Patient &p) { return p.put<uint32_t>(p.table().offset + 48, 0); }},
        {"padding", [](Patient &p) { return p.put<uint32_t>(p.table().offset + 52, 9); }},
        {"mutex-kind", [](Patient &p) { return p.put<uint32_t>(p.table().offset + 16, 1); }},
        {"buckets", [](Patient &p) { return p.put<uint32_t>(p.table().offset + 88, 17); }},
        {"buckets", [](Patient &p) { return p.put<uint32_t>(p.table().offset + 88, 1u << 31); }},
        {"table-link",
         [](Patient &p) { return p.put<uint64_t>(p.table().offset + kFreeRecords, 0x48); }},
        {"table-link", [](Patient &p) { return p.put<uint64_t>(p.report().offset + 80, 3); }},
        {"table-link", [](Patient &p) { return p.put<uint64_t>(p.bucket(1), p.bucket(2)); }},
        {"slot-twice",
         [](Patient &p) {
             const TableFile &report = p.report();
             return p.put<uint64_t>(report.records[1].offset, report.records[0].offset);
         }},
        {"slot-twice",
         [](Patient &p) {
             p.put<uint64_t>(p.table().offset + kFreeRecords, p.report().records[0].offset);
             return p.report().offset + offsetof(SharedFileEntry, records);
         }},
        {"slot-lost",
         [](Patient &p) {
             const uint64_t records = p.ledger().offset + 80;
             p.put<uint64_t>(records, records);
             p.put<uint64_t>(records + kPrev, records);
             return p.ledger().records[0].offset;
         }},
        {"back-link",
         [](Patient &p) { return p.put<uint64_t>(p.report().records[2].offset + kPrev, 0x48); }},
        {"back-link", [](Patient &p) { return p.put<uint64_t>(p.bucket(3) + kPrev, 0); }},
    });
}

TEST(Checker, NamesDamageToFilesAndRecords) {
    expectNamed({
        {"combined-mode", [](Patient &p) { return p.put<uint32_t>(p.report().offset + 32, 1); }},
        {"open-count", [](Patient &p) { return p.put<uint32_t>(p.report().offset + 40, 3); }},
        {"wrong-bucket",
         [](Patient &p) { return p.put<uint64_t>(p.report().offset + 16, p.report().word0 ^ 1); }},
        {"file-name",
         [](Patient &p) {
             p.put<char>(p.ledger().offset + 44 + 20, 'x');
             return p.ledger().offset + 44;
         }},
        {"padding", [](Patient &p) { return p.put<uint32_t>(p.ledger().offset + 76, 1); }},
        {"record-pid",
         [](Patient &p) { return p.put<uint32_t>(p.ledger().records[0].offset + 16, 0); }},
        {"padding",
         [](Patient &p) { return p.put<uint32_t>(p.ledger().records[0].offset + 28, 1); }},
        {"padding",
         [](Patient &p) { return p.put<uint32_t>(p.ledger().records[0].offset + 52, 1); }},
        {"key-twice",
         [](Patient &p) {
             // Whichever file comes second in the order of the buckets is the one that is named.
             const TableFile &first = p.table().files[0], &second = p.table().files[1];
             p.put<uint64_t>(second.offset + 16, first.word0);
             p.put<uint64_t>(second.offset + 24, first.word1);
             return second.offset + 16;
         }},
    });
}

// A list that holds as many blocks as fit, each claiming the rest of the arena as its own: whoever
// read every chunk or name of it would take the square of its size.
TEST(Checker, TakesBlocksThatAllOverlapInItsStride) {
    constexpr uint64_t kBytes = 4 << 20;
    Bytes bytes(kBytes);
    ArenaHeader header{};
    header.magic = kArenaMagic;
    header.version = kArenaVersion;
    header.allocatedList = kHeapOffset;
    std::memcpy(bytes.data(), &header, sizeof(header));
    for (uint64_t at = kHeapOffset; at + 48 <= kBytes; at += 48) {
        const uint64_t next = at + 96 <= kBytes ? at + 48 : 0;
        const BlockHeader block{next, at + 41, kBytes - at, 1, 1, 0x01010101};
        std::memcpy(bytes.data() + at, &block, sizeof(block));
        std::memset(bytes.data() + at + 40, 'x', 8);
    }
    const ArenaModel model = readArena(bytes);
    EXPECT_EQ(model.findings.list().size(), Findings::kListed);
    EXPECT_GT(model.findings.unlisted(), kBytes / 48 / 2);
}
