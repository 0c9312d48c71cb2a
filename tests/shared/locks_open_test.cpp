// Opens: who shares with whom, what oplocks and limits refuse, and what the owner rule lets in.

#include "iosched/shared.h"
#include "support/in_child.h"
#include "support/lock_table.h"

#include <string>

namespace {

constexpr SharedFileKey kFile{0x1234, 0x5678};
constexpr uint32_t kCompat = SHARED_FILE_OWNER_COMPAT;
constexpr uint32_t kOverride = SHARED_FILE_OWNER_OVERRIDE;

class LocksOpen : public testing::Test {
protected:
    ScratchTable scratch;
    SharedFileLockTable *table = scratch.table;
    Opener a{table, 1, 10};
    Opener b{table, 2, 20};

    // Result and combined mode of b's open; the latter starts as a mark of "not written".
    std::pair<int, uint32_t> openByB(uint32_t mode) {
        uint32_t combined = 0xDEADBEEF;
        const int code = OpenSharedFile(table, 2, 20, &kFile, mode, 0, nullptr, &combined);
        return {code, combined};
    }
};

// Access to what is denied, written from one side: what each side may not have while the other is
// there. A side without any access has no say about deleting.
uint32_t forbiddenBy(uint32_t mode) {
    const uint32_t access = mode & 0xB, deny = mode >> 4;
    uint32_t forbidden = 0;
    if (deny & 1) forbidden |= SHARED_FILE_READ;
    if (deny & 2) forbidden |= SHARED_FILE_WRITE;
    if ((deny & 4) && access != 0) forbidden |= SHARED_FILE_DELETE;
    return forbidden;
}

uint32_t shareMode(uint32_t six) {
    return (six & 1 ? 1u : 0) | (six & 2 ? 2u : 0) | (six & 4 ? 8u : 0) | ((six >> 3) << 4);
}

TEST_F(LocksOpen, EveryPairOfAccessAndDenyBitsIsJudgedByTheShareTest) {
    for (uint32_t i = 0; i < 64; ++i) {
        for (uint32_t j = 0; j < 64; ++j) {
            const uint32_t first = shareMode(i), second = shareMode(j);
            ASSERT_EQ(a.open(kFile, first), 0);
            const bool clash = (forbiddenBy(first) & second) || (forbiddenBy(second) & first);
            const auto [code, combined] = openByB(second);
            EXPECT_EQ(code, clash ? SHARED_ERR_DENIED : 0) << first << " then " << second;
            EXPECT_EQ(combined, clash ? first : first | second);
            EXPECT_EQ(opensOf(table, kFile), clash ? 1u : 2u);
            (void)b.close(kFile);
            (void)a.close(kFile);
        }
    }
}

TEST_F(LocksOpen, ARequestIsTestedAgainstTheUnionOfAllOpens) {
    // Neither open alone denies deleting with access of its own: 0x40 has none, 0x1 denies nothing.
    ASSERT_EQ(a.open(kFile, SHARED_FILE_DENY_DELETE), 0);
    EXPECT_EQ(openByB(SHARED_FILE_DELETE | 0).first, 0);
    ASSERT_EQ(b.close(kFile), 0);
    ASSERT_EQ(b.open(kFile, SHARED_FILE_READ), 0);
    EXPECT_EQ((Opener{table, 3, 30}).open(kFile, SHARED_FILE_DELETE), SHARED_ERR_DENIED);
}

TEST_F(LocksOpen, ExclusiveAndBatchOplocksRefuseEveryOpenThatDoesNotIgnoreThem) {
    for (uint32_t oplock : {SHARED_FILE_OPLOCK_EXCLUSIVE, SHARED_FILE_OPLOCK_BATCH}) {
        ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | oplock), 0);
        EXPECT_EQ(combinedModeOf(table, kFile), SHARED_FILE_READ | oplock);
        EXPECT_EQ(openByB(SHARED_FILE_READ),
                  std::pair(SHARED_ERR_OPLOCK, SHARED_FILE_READ | oplock));
        EXPECT_EQ(a.open(kFile, SHARED_FILE_READ), SHARED_ERR_OPLOCK) << "its own holder";
        EXPECT_EQ(openByB(SHARED_FILE_WRITE | SHARED_FILE_IGNORE_OPLOCKS),
                  std::pair(0, SHARED_FILE_READ | SHARED_FILE_WRITE | oplock));
        ASSERT_EQ(b.close(kFile), 0);
        ASSERT_EQ(a.close(kFile), 0);
    }
}

TEST_F(LocksOpen, ASharedOplockStopsNobody) {
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_SHARED), 0);
    EXPECT_EQ(openByB(SHARED_FILE_READ).first, 0);
}

TEST_F(LocksOpen, AnOpenThatJoinsLosesTheOplockBitsAndTheFourAboveThemAndNoOthers) {
    const uint32_t everything = 0x1FEFFF8Fu & ~0x20u;  // no deny bit, no request flag, no owner bit
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ), 0);
    const uint32_t kept = everything & ~0x7F00u;
    EXPECT_EQ(openByB(everything), std::pair(0, SHARED_FILE_READ | kept));
    ASSERT_EQ(b.close(kFile), 0);
    ASSERT_EQ(a.close(kFile), 0);
    EXPECT_EQ(openByB(everything | SHARED_FILE_IGNORE_OPLOCKS), std::pair(0, everything))
        << "the first open keeps all but the request flag";
}

TEST_F(LocksOpen, TheLimitOfTheFirstOpenCountsAndOnlyTheOwnerRulePassesIt) {
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | kOverride, 2), 0);
    ASSERT_EQ(b.open(kFile, SHARED_FILE_READ, 50), 0);
    EXPECT_EQ(openByB(SHARED_FILE_READ), std::pair(SHARED_ERR_DENIED, 1u | kOverride));
    EXPECT_EQ(a.open(kFile, SHARED_FILE_READ), SHARED_ERR_DENIED) << "no owner bit in the request";
    EXPECT_EQ(a.open(kFile, SHARED_FILE_READ | kCompat), 0);
    EXPECT_EQ(opensOf(table, kFile), 3u);
    ASSERT_EQ(b.close(kFile), 0);
    EXPECT_EQ(b.open(kFile, SHARED_FILE_READ), SHARED_ERR_DENIED) << "two opens are left";
}

// One earlier open by owner 1 and a request by the owner given, which the share test refuses.
struct OwnerCase {
    uint32_t standing;
    uint32_t request;
    uint32_t owner;
    int code;
};

TEST_F(LocksOpen, TheOwnerRuleLooksAtTheBitsOfBothOpens) {
    const uint32_t closed = SHARED_FILE_READ | SHARED_FILE_DENY_READ | SHARED_FILE_DENY_WRITE;
    const uint32_t read = SHARED_FILE_READ, write = SHARED_FILE_WRITE;
    const OwnerCase cases[] = {
        {closed | kOverride, read | kOverride, 1, 0},
        {closed | kOverride, write | kCompat, 1, 0},
        {closed | kOverride, read, 1, SHARED_ERR_DENIED},
        {closed, read | kOverride, 1, SHARED_ERR_DENIED},
        {closed | kOverride, read | kOverride, 2, SHARED_ERR_DENIED},
        {closed | kCompat, read | kCompat, 1, 0},
        {closed | kCompat, write | kCompat, 1, SHARED_ERR_DENIED},
        {closed | write | kCompat, write | kCompat, 1, 0},
        {closed | kCompat, read | kOverride, 1, SHARED_ERR_DENIED},
        {closed | kCompat | kOverride, write | kOverride, 1, 0},
        {closed | kCompat, write | kCompat | kOverride, 1, SHARED_ERR_DENIED},
    };
    for (const OwnerCase &c : cases) {
        ASSERT_EQ(a.open(kFile, c.standing), 0);
        EXPECT_EQ((Opener{table, c.owner, 99}).open(kFile, c.request), c.code)
            << std::hex << c.standing << " then " << c.request << " by owner " << c.owner;
        (void)(Opener{table, c.owner, 99}).close(kFile);
        (void)a.close(kFile);
    }
}

TEST_F(LocksOpen, TheFirstRecordWithAVerdictDecidesForTheOwner) {
    const uint32_t closed = SHARED_FILE_READ | SHARED_FILE_DENY_READ | SHARED_FILE_DENY_WRITE;
    // A compatibility open that refuses writers stands before an override that would let them in.
    ASSERT_EQ(a.open(kFile, closed | kCompat), 0);
    ASSERT_EQ((Opener{table, 1, 11}).open(kFile, SHARED_FILE_READ | kCompat | kOverride), 0);
    EXPECT_EQ((Opener{table, 1, 12}).open(kFile, SHARED_FILE_WRITE | kCompat), SHARED_ERR_DENIED);
    // A request without the compatibility bit passes the first record by and meets the second.
    EXPECT_EQ((Opener{table, 1, 12}).open(kFile, SHARED_FILE_WRITE | kOverride), 0);
}

TEST_F(LocksOpen, AnotherProcessIsAnotherOwner) {
    const uint32_t closed = SHARED_FILE_READ | SHARED_FILE_DENY_READ;
    ASSERT_EQ(a.open(kFile, closed | kOverride), 0);
    EXPECT_CHILD_OK([&] { EXPECT_EQ(a.open(kFile, 1 | kOverride), SHARED_ERR_DENIED); });
    EXPECT_EQ(a.open(kFile, SHARED_FILE_READ | kOverride), 0);
}

TEST_F(LocksOpen, AnOpenLetInByItsOwnerKeepsItsOplockBits) {
    const uint32_t closed = SHARED_FILE_READ | SHARED_FILE_DENY_READ | kOverride;
    ASSERT_EQ(a.open(kFile, closed), 0);
    const uint32_t request = SHARED_FILE_READ | kOverride | SHARED_FILE_OPLOCK_SHARED | 0x4000;
    ASSERT_EQ(a.open(kFile, request), 0);
    EXPECT_EQ(combinedModeOf(table, kFile), closed | request);
}

TEST_F(LocksOpen, AnOwnersRangeLockIsNoOpenThatTheOwnerRuleMayLookAt) {
    ASSERT_EQ(b.open(kFile, SHARED_FILE_READ | SHARED_FILE_DENY_READ | kOverride), 0);
    ASSERT_EQ(a.lock(kFile, 5, 5, SHARED_FILE_LOCK_SHARED | kOverride), 0);
    EXPECT_EQ(a.open(kFile, SHARED_FILE_READ | kOverride), SHARED_ERR_DENIED);
}

TEST_F(LocksOpen, ClosingEndsAllThatTheHolderHasAndNothingElse) {
    const Opener sibling{table, 1, 11};
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | 0x8000), 0);
    ASSERT_EQ(a.open(kFile, SHARED_FILE_DELETE), 0);
    ASSERT_EQ(sibling.open(kFile, SHARED_FILE_WRITE), 0);
    ASSERT_EQ(a.lock(kFile, 0, 10, SHARED_FILE_LOCK_EXCLUSIVE), 0);
    EXPECT_CHILD_OK([&] { EXPECT_EQ(a.close(kFile), 0) << "nothing of the child's to close"; });
    EXPECT_EQ(opensOf(table, kFile), 3u);

    EXPECT_EQ(a.close(kFile), 0);
    EXPECT_EQ(opensOf(table, kFile), 1u);
    EXPECT_EQ(combinedModeOf(table, kFile), SHARED_FILE_WRITE);
    EXPECT_EQ(a.unlock(kFile, 0, 10), SHARED_ERR_NOTLOCKED);
    EXPECT_EQ(sibling.close(kFile), 0);
    EXPECT_EQ(SharedFileIsOpen(table, &kFile), 0);
    EXPECT_EQ(sibling.close(kFile), SHARED_ERR_NOTOPEN);
}

TEST_F(LocksOpen, AFileStaysWhileALockOfAnotherHolderIsOnIt) {
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ), 0);
    ASSERT_EQ(b.lock(kFile, 0, 10, SHARED_FILE_LOCK_SHARED), 0);
    ASSERT_EQ(a.close(kFile), 0);
    EXPECT_EQ(SharedFileIsOpen(table, &kFile), 1);
    EXPECT_EQ(opensOf(table, kFile), 0u);
    // The unlock leaves the entry without a record; an open then joins it and gets no oplock.
    ASSERT_EQ(b.unlock(kFile, 0, 10), 0);
    EXPECT_EQ(SharedFileIsOpen(table, &kFile), 1);
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | SHARED_FILE_OPLOCK_BATCH), 0);
    EXPECT_EQ(combinedModeOf(table, kFile), SHARED_FILE_READ);
    ASSERT_EQ(a.close(kFile), 0);
    EXPECT_EQ(SharedFileIsOpen(table, &kFile), 0);
}

TEST_F(LocksOpen, InfoNeverReportsTheHighestModeBitOfTheLowHalf) {
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ | 0x8000), 0);
    EXPECT_EQ(openByB(SHARED_FILE_WRITE).second, 0x8003u) << "an open does report it";
    EXPECT_EQ(combinedModeOf(table, kFile), 0x3u);
}

TEST_F(LocksOpen, InfoOnAFileThatNobodyHasOpenReportsZeros) {
    uint32_t combined = 7, opens = 7;
    char name[4] = "abc";
    EXPECT_EQ(SharedFileInfo(table, &kFile, &combined, &opens, name, sizeof name),
              SHARED_ERR_NOTOPEN);
    EXPECT_EQ(combined, 0u);
    EXPECT_EQ(opens, 0u);
    EXPECT_STREQ(name, "abc");
}

// What SharedFileInfo writes into a buffer of so many bytes that is full of '#'.
std::string reportedName(SharedFileLockTable *table, uint64_t nameSize) {
    std::string buffer(40, '#');
    uint32_t combined = 0, opens = 0;
    EXPECT_EQ(SharedFileInfo(table, &kFile, &combined, &opens, buffer.data(), nameSize), 0);
    return buffer;
}

TEST_F(LocksOpen, TheLast32CharactersOfTheFirstNameAreKept) {
    const std::string longName = "01234567ABCDEFGHIJKLMNOPQRSTUVWXYZabcdef";  // 40 characters
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ, 0, longName.c_str()), 0);
    ASSERT_EQ(b.open(kFile, SHARED_FILE_READ, 0, "another"), 0);
    const std::string kept = longName.substr(8);
    const std::string nul(1, '\0');
    EXPECT_EQ(reportedName(table, 40), kept + nul + std::string(7, '#'));
    EXPECT_EQ(reportedName(table, 33), kept + nul + std::string(7, '#'));
    EXPECT_EQ(reportedName(table, 32), kept.substr(0, 31) + nul + std::string(8, '#'));
    EXPECT_EQ(reportedName(table, 10), kept.substr(0, 9) + nul + std::string(30, '#'));
    EXPECT_EQ(reportedName(table, 1), nul + std::string(39, '#'));
    EXPECT_EQ(reportedName(table, 0), std::string(40, '#'));
}

TEST_F(LocksOpen, AShortNameReplacesTheLongOneThatTheEntryHadBefore) {
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ, 0, "a name of exactly 32 characters."), 0);
    ASSERT_EQ(a.close(kFile), 0);
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ, 0, "short"), 0);
    EXPECT_EQ(reportedName(table, 12), "short" + std::string(7, '\0') + std::string(28, '#'));
    ASSERT_EQ(a.close(kFile), 0);
    ASSERT_EQ(a.open(kFile, SHARED_FILE_READ, 0, nullptr), 0);
    EXPECT_EQ(reportedName(table, 3), std::string(3, '\0') + std::string(37, '#'));
}

TEST_F(LocksOpen, KeysAreComparedWhole) {
    // All four fall into the same bucket of a table with 16 or 32.
    const SharedFileKey keys[] = {{1, 2}, {1ull << 32 | 1, 2}, {2, 1}, {1, 2 + (1ull << 40)}};
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ((Opener{table, 1, i}).open(keys[i], SHARED_FILE_READ | 0x10000u << i), 0);
    for (uint32_t i = 0; i < 4; ++i)
        EXPECT_EQ(combinedModeOf(table, keys[i]), SHARED_FILE_READ | 0x10000u << i);
}

}  // namespace
