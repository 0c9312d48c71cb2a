// Breaks a sound arena in every way that the checker knows and sees whether it names that very
// thing, and whether a repair keeps its promise.
#include "repair_rules.h"
#include "sample_arena.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace {

// The places and sizes of the things in a sound arena, by name.
using Numbers = std::map<std::string, uint64_t>;

Numbers numbersOf(const std::string &bytes) {
    const ArenaModel model = readArena(bytesOf(bytes));
    const LockTable &table = model.tables.at(0);
    Numbers numbers{{"0", 0}, {"table", table.offset}};
    for (const HeapBlock &block : model.blocks) {
        if (block.allocated && !block.named) continue;
        const std::string name = block.allocated ? block.name : numbers["free"] ? "last" : "free";
        numbers[name] = block.offset;
        numbers[name + ".size"] = block.size;
        numbers[name + ".end"] = block.offset + block.size;
        numbers[name + ".name"] = block.data() + block.chunkSize;
    }
    for (const TableFile &file : table.files) {
        const std::string name = file.opens == 2 ? "report" : "ledger";
        const bool isFirst = &file == table.files.data();
        numbers[name] = numbers[isFirst ? "first" : "second"] = file.offset;
        numbers[name + ".word0"] = file.word0;
        if (isFirst) numbers["first.word1"] = file.word1;
        for (size_t i = 0; i < file.records.size(); i++)
            numbers[name + "." + std::to_string(i)] = file.records[i].offset;
    }
    return numbers;
}

// A damage a line: the finding's code, where it points, and changes: at, bytes, value. Numbers are
// places or sizes by their names above, with so much added.
constexpr const char *kDamages = R"(
magic            0+0x30          0+0x30 4 0+1
version          0+0x34          0+0x34 4 0+2
mutex-kind       0+0x10          0+0x10 4 0
mutex-word       0               0 4 0+77
mutex-holder     0+0x28          0+0x28 4 0+4711
mutex-holder     0+8             0+8 4 0+4711
padding          0+0x2C          0+0x2C 4 0+1
block-link       0+0x38          0+0x38 8 0+0x4C
block-link       0+0x40          0+0x40 8 0+0x40
block-link       0+0x40          0+0x40 8 0-8
block-link       tally           tally 8 0+0x100000
block-twice      last            last 8 free
block-twice      tally           tally 8 free
heap-gap         free            0+0x38 8 last
free-order       last            0+0x38 8 last  free 8 0  last 8 free
free-neighbours  last+48         last+16 8 0+48  last 8 last+48  last+48 8 0  last+64 8 last.size-48
block-size       tally+16        tally+16 8 0
block-size       tally+16        tally+16 8 0+113
block-size       tally+16        tally+16 8 0-8
heap-overlap     tally.end       tally+16 8 tally.size+8
heap-gap         tally.end-8     tally+16 8 tally.size-8
references       tally+32        tally+32 4 0
chunk-size       tally+24        tally+24 8 0+4096
chunk-size       tally+24        tally+24 8 0-1
block-surplus    tally+16        tally+8 8 0  tally+24 8 0+8
name-place       tally+8         tally+8 8 0+0x48
name-end         tally.name      tally.name 8 0+0x7878787878787878
name-twice       locks.name      tally.name 8 0+0x736B636F6C
table-state      table+48        table+48 4 0
padding          table+52        table+52 4 0+9
mutex-kind       table+16        table+16 4 0+1
buckets          table+88        table+88 4 0+17
buckets          table+88        table+88 4 0+0x80000000
table-link       table+72        table+72 8 0+0x48
table-link       report+80       report+80 8 0+3
table-link       table+112       table+112 8 table+128
slot-twice       report.1        report.1 8 report.0
slot-twice       report+80       table+72 8 report.0
slot-lost        ledger.0        ledger+80 8 ledger+80  ledger+88 8 ledger+80
back-link        report.2+8      report.2+8 8 0+0x48
back-link        table+152       table+152 8 0
combined-mode    report+32       report+32 4 0+1
open-count       report+40       report+40 4 0+3
wrong-bucket     report+16       report+16 8 report.word0+1
file-name        ledger+44       ledger+64 1 0+0x78
padding          ledger+76       ledger+76 4 0+1
record-pid       ledger.0+16     ledger.0+16 4 0
padding          ledger.0+28     ledger.0+28 4 0+1
padding          ledger.0+52     ledger.0+52 4 0+1
key-twice        second+16       second+16 8 0+0x801  second+24 8 first.word1
)";

uint64_t valueOf(const Numbers &numbers, const std::string &text) {
    const size_t end = std::min(text.find_first_of("+-"), text.size());
    const auto plus = static_cast<uint64_t>(std::strtoll(text.c_str() + end, nullptr, 0));
    return numbers.at(text.substr(0, end)) + plus;
}

}  // namespace

TEST(Checker, NamesEveryDamageAndWhereItIs) {
    const std::string sound = SampleArena().bytes();
    ASSERT_EQ(checkArena(bytesOf(sound)), "");
    const Numbers numbers = numbersOf(sound);
    std::istringstream damages(kDamages + 1);
    for (std::string damage; std::getline(damages, damage);) {
        std::istringstream words(damage);
        std::string bytes = sound, code, place, at, value;
        words >> code >> place;
        for (size_t count; words >> at >> count >> value;) {
            const uint64_t number = valueOf(numbers, value);
            std::memcpy(bytes.data() + valueOf(numbers, at), &number, count);
        }
        const ArenaModel model = readArena(bytesOf(bytes));
        const auto &list = model.findings.list();
        EXPECT_TRUE(std::any_of(list.begin(), list.end(),
                                [&](const Finding &f) {
                                    return f.code == code && f.offset == valueOf(numbers, place);
                                }))
            << damage << '\n'
            << checkArena(bytesOf(bytes));
        EXPECT_EQ(brokenPromise(bytesOf(bytes)), "") << damage;
    }
    for (const size_t size : {size_t{71}, sound.size() - 8})
        EXPECT_NE(checkArena(bytesOf(sound.substr(0, size))).find("file: "), std::string::npos);
}

// Seven entries take the room of twelve records, so the chunk's size alone does not tell.
TEST(Checker, WorksOutTheNumbersOfEntriesAndRecordsThatNoFieldHolds) {
    for (const auto &[files, records] :
         {std::pair(0, 24), {7, 12}, {14, 3}, {32, 30}, {33, 12}, {40, 9}, {64, 70}, {100, 300}}) {
        const ScratchTable scratch(1, files, records);
        const ArenaModel model = readArena(bytesOf(readFile(scratch.path())));
        EXPECT_TRUE(model.findings.empty());
        EXPECT_EQ(model.tables.at(0).fileEntries, static_cast<uint64_t>(files));
        EXPECT_EQ(model.tables.at(0).lockRecords, static_cast<uint64_t>(records));
    }
}

// A list that holds as many blocks as fit, each claiming the rest of the arena as its own: whoever
// read every chunk or name of it would take the square of its size.
TEST(Checker, TakesBlocksThatAllOverlapInItsStride) {
    constexpr uint64_t kBytes = 4 << 20;
    std::vector<std::byte> bytes(kBytes);
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
