// The rules of the lock table: every call is made on a table and on the model, and every result and
// output has to be the same. Three kinds of calls: scenarios written by hand, with the codes that
// they must give, so that the model itself is held to something; all pairs of modes, flags and
// ranges; and random calls of three processes.

#include "iosched/shared.h"
#include "support/in_child.h"
#include "support/lock_table.h"
#include "support/lock_table_bytes.h"
#include "support/lock_table_calls.h"
#include "support/lock_table_model.h"

#include <array>
#include <cinttypes>
#include <memory>
#include <random>
#include <sys/socket.h>
#include <vector>

namespace {

constexpr int32_t kFiles = 9, kRecords = 40;  // few enough that both run out now and then
constexpr size_t kMaxBatch = 64;

// A process that answers batches of calls until its socket closes.
class Worker {
public:
    explicit Worker(SharedFileLockTable *table) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) ::abort();
        pid_ = ::fork();
        if (pid_ == 0) {
            (void)::close(ends[0]);
            serve(table, ends[1]);
            ::_exit(0);
        }
        (void)::close(ends[1]);
        socket_ = ends[0];
    }
    ~Worker() {
        (void)::close(socket_);
        EXPECT_EQ(waitForChild(pid_), 0);
    }
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;
    uint32_t pid() const { return static_cast<uint32_t>(pid_); }

    std::vector<TableAnswer> run(const std::vector<TableCall> &calls) const {
        std::vector<TableAnswer> answers(calls.size());
        const size_t asked = calls.size() * sizeof(TableCall);
        const size_t told = answers.size() * sizeof(TableAnswer);
        if (::send(socket_, calls.data(), asked, 0) != static_cast<ssize_t>(asked) ||
            ::recv(socket_, answers.data(), told, 0) != static_cast<ssize_t>(told))
            answers.clear();
        return answers;
    }

private:
    static void serve(SharedFileLockTable *table, int socket) {
        std::array<TableCall, kMaxBatch> calls;
        std::array<TableAnswer, kMaxBatch> answers;
        for (ssize_t n; (n = ::recv(socket, calls.data(), sizeof calls, 0)) > 0;) {
            const size_t count = static_cast<size_t>(n) / sizeof(TableCall);
            for (size_t i = 0; i < count; ++i)
                answers[i] = callTable(table, calls[i]);
            (void)::send(socket, answers.data(), count * sizeof(TableAnswer), 0);
        }
    }

    pid_t pid_;
    int socket_;
};

std::string describe(uint32_t pid, const TableCall &c, const TableAnswer &a) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "kind %u by %u/%u/%u on %" PRIx64 ",%" PRIx64 " mode %x max %u range %" PRId64
                  "+%" PRId64 ": code %d combined %x count %u length %" PRId64,
                  c.kind, pid, c.owner, c.handle, c.key.word0, c.key.word1, c.mode, c.maxOpens,
                  c.offset, c.length, a.code, a.combined, a.count, a.length);
    return text;
}

// A table, its model, and two processes that call the one while the other is asked beside it.
struct Play {
    ScratchTable scratch{1, kFiles, kRecords};
    LockTableModel model{kFiles, kRecords};
    const Worker workers[3] = {Worker(scratch.table), Worker(scratch.table), Worker(scratch.table)};

    std::vector<TableAnswer> calls(const Worker &worker, const std::vector<TableCall> &batch) {
        const std::vector<TableAnswer> answers = worker.run(batch);
        EXPECT_EQ(answers.size(), batch.size()) << "a worker ended";
        for (size_t i = 0; i < answers.size(); ++i) {
            const TableAnswer expected = model.run(worker.pid(), batch[i]);
            if (answers[i] == expected) continue;
            ADD_FAILURE() << "table " << describe(worker.pid(), batch[i], answers[i]) << "\n model "
                          << describe(worker.pid(), batch[i], expected);
            return {};
        }
        return answers;
    }
    int call(size_t worker, const TableCall &one) {
        const auto answers = calls(workers[worker], {one});
        return answers.empty() ? -1 : answers[0].code;
    }
};

// ---- scenarios ----

constexpr uint32_t R = SHARED_FILE_READ, W = SHARED_FILE_WRITE, D = SHARED_FILE_DELETE;
constexpr uint32_t dR = SHARED_FILE_DENY_READ, dW = SHARED_FILE_DENY_WRITE,
                   dD = SHARED_FILE_DENY_DELETE;
constexpr uint32_t X = SHARED_FILE_OPLOCK_EXCLUSIVE, S = SHARED_FILE_OPLOCK_SHARED;
constexpr uint32_t B = SHARED_FILE_OPLOCK_BATCH, kIgnore = SHARED_FILE_IGNORE_OPLOCKS;
constexpr uint32_t C = SHARED_FILE_OWNER_COMPAT, O = SHARED_FILE_OWNER_OVERRIDE;
constexpr uint32_t kSh = SHARED_FILE_LOCK_SHARED, kEx = SHARED_FILE_LOCK_EXCLUSIVE;

TableCall simple(TableCall::Kind kind, uint32_t mode = 0, uint32_t limit = 4) {
    return {kind, 0, 0, {}, mode, limit, 0, 0, 40, {}};
}
const auto open = [](uint32_t m, uint32_t limit = 0) { return simple(TableCall::Open, m, limit); };
const auto setMode = [](uint32_t mode) { return simple(TableCall::SetMode, mode); };
template <TableCall::Kind kind>
const auto onRange = [](int64_t offset, int64_t length, uint32_t flags = 0) {
    return TableCall{kind, 0, 0, {}, flags, 0, offset, length, 0, {}};
};
const auto lock = onRange<TableCall::Lock>;
const auto unlock = onRange<TableCall::Unlock>;
const auto test = onRange<TableCall::Test>;
const TableCall close = simple(TableCall::Close), info = simple(TableCall::Info);
const TableCall isOpen = simple(TableCall::IsOpen), holders = simple(TableCall::Holders);

// Who calls: a and A are two handles of one owner, b is another owner; x is a in another process.
struct Step {
    char who;
    TableCall call;
    int code = 0;
};
struct Scenario {
    const char *rule;
    std::vector<Step> steps;
};

constexpr int kDenied = SHARED_ERR_DENIED, kOplock = SHARED_ERR_OPLOCK, kLocked = SHARED_ERR_LOCKED;
constexpr int kSelf = SHARED_ERR_SELFLOCKED, kNone = SHARED_ERR_NOTLOCKED,
              kShut = SHARED_ERR_NOTOPEN;

// A rule reads better in two lines than in ten.
// clang-format off
const Scenario kScenarios[] = {
    {"a request is tested against the union of all opens",
     {{'a', open(dD)}, {'b', open(D)}, {'b', close}, {'b', open(R)}, {'A', open(D), kDenied}}},
    {"exclusive and batch oplocks refuse all that do not ignore them",
     {{'a', open(R | X)}, {'b', open(R), kOplock}, {'a', open(R), kOplock},
      {'b', open(W | kIgnore)}, {'b', close}, {'a', close}, {'a', open(R | B)},
      {'b', open(R), kOplock}}},
    {"a shared oplock stops nobody",
     {{'a', open(R | S)}, {'b', open(R)}, {'b', holders}}},
    {"an open that joins loses the oplock bits and the four above",
     {{'a', open(R)}, {'b', open(0x1FEFFF8F & ~dW)}, {'b', info}, {'b', setMode(R | S), kOplock}}},
    {"the first open keeps them",
     {{'a', open(0x1FEFFF8F & ~dW)}, {'a', info}}},
    {"the limit of the first open counts; the owner rule passes it",
     {{'a', open(R | O, 2)}, {'b', open(R, 50)}, {'b', open(R), kDenied}, {'a', open(R), kDenied},
      {'a', open(R | C)}, {'b', close}, {'b', open(R), kDenied}}},
    {"override lets its owner in",
     {{'a', open(R | dR | dW | O)}, {'A', open(R | O)}}},
    {"override lets in who asks for compatibility",
     {{'a', open(R | dR | dW | O)}, {'A', open(W | C)}}},
    {"the request needs a bit",
     {{'a', open(R | dR | O)}, {'A', open(R), kDenied}}},
    {"the standing open needs a bit",
     {{'a', open(R | dR)}, {'A', open(R | O), kDenied}}},
    {"another owner is refused",
     {{'a', open(R | dR | O)}, {'b', open(R | O), kDenied}}},
    {"another process is another owner",
     {{'a', open(R | dR | O)}, {'x', open(R | O), kDenied}}},
    {"compatibility lets readers in and writers beside writers",
     {{'a', open(R | dR | dW | C)}, {'A', open(R | C)}, {'A', close}, {'A', open(W | C), kDenied},
      {'A', open(R | O), kDenied}, {'a', close}, {'a', open(R | W | dR | C)}, {'A', open(W | C)}}},
    {"the first record with a verdict decides",
     {{'a', open(R | dR | dW | C)}, {'A', open(R | C | O)}, {'A', open(W | C), kDenied},
      {'A', open(W | O)}}},
    {"who is let in by its owner keeps its oplock",
     {{'a', open(R | dR | O)}, {'a', open(R | O | S)}, {'a', info}}},
    {"a lock is no open that the owner rule may look at",
     {{'b', open(R | dR | O)}, {'a', lock(5, 5, kSh | O)}, {'a', open(R | O), kDenied}}},
    {"closing ends all of the holder and nothing else",
     {{'a', open(R | 0x8000)}, {'a', open(D)}, {'A', open(W)}, {'a', lock(0, 10, kEx)},
      {'x', close}, {'a', close}, {'a', info}, {'a', unlock(0, 10), kNone}, {'A', close},
      {'a', isOpen}, {'A', close, kShut}}},
    {"a file stays while a lock is on it, and an open then joins",
     {{'a', open(R)}, {'b', lock(0, 10, kSh)}, {'a', close}, {'a', isOpen, 1}, {'b', unlock(0, 10)},
      {'a', isOpen, 1}, {'a', open(R | B)}, {'a', info}, {'a', close}, {'a', isOpen}}},
    {"holders are listed in the order of opens, locks never",
     {{'a', open(R | O | S, 1)}, {'b', lock(5, 5, 0x700)}, {'a', open(R | O | B)},
      {'a', holders}}},
    {"an oplock can be kept, changed and given up, but not taken",
     {{'a', open(R | S)}, {'a', setMode(R | X)}, {'a', setMode(W)}, {'a', setMode(R | S), kOplock},
      {'b', setMode(R), kDenied}, {'A', setMode(R), kDenied}, {'x', setMode(R), kDenied}}},
    {"a new mode is stored whole, untested, and counts for later opens",
     {{'a', open(R)}, {'b', open(W)}, {'a', setMode(dW | kIgnore | 0x80000800)}, {'a', info},
      {'A', open(W), kDenied}}},
    {"only the oldest record changes",
     {{'a', open(R)}, {'a', open(W)}, {'a', setMode(D)}, {'a', info}}},
    {"nobody's file",
     {{'a', setMode(R), kShut}, {'a', info, kShut}, {'a', lock(0, 1, kSh), kShut},
      {'a', unlock(0, 1), kNone}, {'a', test(0, -1, 3)}, {'a', close, kShut}}},
    {"an open of somebody else's will do for a lock",
     {{'a', open(R)}, {'b', lock(0, 1, kSh)}}},
    {"the oldest conflicting lock decides",
     {{'a', open(R)}, {'a', lock(0, 10, kSh)}, {'b', lock(0, 10, kSh)},
      {'a', lock(0, 10, kEx), kSelf}, {'b', lock(0, 10, kEx), kLocked},
      {'b', lock(0, 10, kEx | kSh), kLocked}}},
    {"a holder is process, owner and handle",
     {{'a', open(R)}, {'a', lock(0, 10, kEx)}, {'A', lock(0, 1, kSh), kLocked},
      {'b', lock(0, 1, kSh), kLocked}, {'x', lock(0, 1, kSh), kLocked}, {'x', unlock(0, 10), kNone},
      {'A', test(0, 10, 1)}}},
    {"stacked locks go one by one, the oldest first",
     {{'a', open(R)}, {'a', lock(0, 10, kEx)}, {'a', lock(0, 10, kSh)}, {'a', unlock(0, 5), kNone},
      {'a', unlock(0, 10)}, {'b', lock(0, 10, kSh)}, {'a', unlock(0, 10)},
      {'a', unlock(0, 10), kNone}}},
    {"no bytes at offset 0 is never an open",
     {{'a', open(R | W)}, {'b', open(R)}, {'a', unlock(0, 0), kNone},
      {'A', lock(0, 0, kEx | B | dR)}, {'A', lock(0, 0, kEx)}, {'a', lock(0, -1, kEx)},
      {'b', test(0, 0, 3)}, {'a', holders}, {'b', close}, {'a', info}, {'A', unlock(0, 0)},
      {'A', close}, {'a', info}}},
    {"a test finds the nearest lock, whatever the order",
     {{'a', open(R)}, {'b', lock(500, 10, kEx)}, {'b', lock(100, 50, kEx)},
      {'b', lock(300, 10, kEx)}, {'a', test(0, -1, 1)}, {'a', test(120, 9, 1)},
      {'a', test(150, 999, 1)}, {'b', test(0, -1, 3)}}},
};
// clang-format on

TEST(LocksRules, ScenariosEndAsWritten) {
    constexpr SharedFileKey kFile{0x1234, 0x5678};
    for (const Scenario &scenario : kScenarios) {
        Play play;
        for (size_t i = 0; i < scenario.steps.size() && !HasFailure(); ++i) {
            const Step &step = scenario.steps[i];
            TableCall call = step.call;
            call.key = kFile;
            call.owner = step.who == 'b' ? 2 : 1;
            call.handle = step.who == 'A' ? 11 : 10;
            EXPECT_EQ(play.call(step.who == 'x', call), step.code)
                << scenario.rule << ", step " << i + 1;
        }
    }
}

// ---- all pairs ----

TEST(LocksRules, EveryPairOfModesFlagsAndRanges) {
    Play play;
    const auto pair = [&](size_t second, TableCall one, TableCall two) {
        (void)play.call(0, open(0));  // keeps the file there for the locks
        for (const TableCall &call : {one, close}) {
            (void)play.call(0, one);
            (void)play.call(second, two);
            (void)play.call(second, close);
            (void)play.call(0, call);
        }
        (void)play.call(0, close);
    };
    for (uint32_t i = 0; i < 4096 && !HasFailure(); ++i) {
        const auto mode = [](uint32_t six) { return (six & 3) | (six & 4) << 1 | six >> 3 << 4; };
        (void)play.call(0, open(mode(i % 64)));
        (void)play.call(1, open(mode(i / 64)));
        (void)play.call(1, close);
        (void)play.call(0, close);
    }
    for (uint32_t i = 0; i < 32 && !HasFailure(); ++i)
        pair(i / 16, lock(0, 10, i % 4), lock(5, 10, i / 4 % 4));
    std::vector<TableCall> ranges;  // that end at the last byte there can be, at the latest
    for (const int64_t offset : {int64_t{0}, int64_t{1}, int64_t{2}, INT64_MAX - 1, INT64_MAX})
        for (const int64_t length : {int64_t{0}, int64_t{1}, int64_t{2}, int64_t{-1}, INT64_MAX})
            if (offset == 0 || length <= INT64_MAX - offset + 1)
                ranges.push_back(lock(offset, length, kEx));
    for (const TableCall &first : ranges)
        for (const TableCall &second : ranges)
            if (!HasFailure()) pair(1, first, second);
}

// ---- random calls ----

// Whether a record of the table is what the model has at its place.
bool isRecord(const TableRecord &found, const ModelRecord &r) {
    int64_t end = static_cast<int64_t>(r.stop - 1);
    if (r.isOpen)
        end = -1;
    else if (r.start == 0 && r.stop == 0)
        end = -2;
    return found.pid == r.pid && found.owner == r.owner && found.handle == r.handle &&
           found.start == static_cast<int64_t>(r.start) && found.end == end && found.mode == r.mode;
}

void expectTableHolds(const SharedFileLockTable *table, const LockTableModel &model) {
    const TableBytes bytes = readTableBytes(table, kFiles, kRecords);
    ASSERT_EQ(bytes.fault, "");
    ASSERT_EQ(bytes.entries.size(), model.files().size());
    for (const TableFile &entry : bytes.entries) {
        const auto file =
            std::find_if(model.files().begin(), model.files().end(), [&](const ModelFile &f) {
                return f.key.word0 == entry.word0 && f.key.word1 == entry.word1;
            });
        ASSERT_NE(file, model.files().end());
        EXPECT_EQ(entry.name, file->name);
        EXPECT_EQ(entry.openLimit, file->limit);
        ASSERT_TRUE(std::equal(entry.records.begin(), entry.records.end(), file->records.begin(),
                               file->records.end(), isRecord));
    }
}

TEST(LocksRules, RandomCallsOfThreeProcesses) {
    const uint64_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto below = [&random](uint32_t n) {
        return std::uniform_int_distribution<uint32_t>(0, n - 1)(random);
    };
    Play play;
    std::array<int, 9> refusals{};  // a run that never met one would prove little
    for (int done = 0; done < 300000 && !HasFailure();) {
        const Worker &worker = play.workers[below(3)];
        std::vector<TableCall> calls(1 + below(kMaxBatch));
        for (TableCall &call : calls)
            call = anyTableCall(below, play.workers[below(3)].pid());
        for (const TableAnswer &answer : play.calls(worker, calls))
            if (answer.code >= SHARED_ERR_DENIED)
                ++refusals[static_cast<size_t>(answer.code - SHARED_ERR_DENIED)];
        ASSERT_NO_FATAL_FAILURE(expectTableHolds(play.scratch.table, play.model));
        done += static_cast<int>(calls.size());
    }
    for (int code = SHARED_ERR_DENIED; code <= SHARED_ERR_OPLOCK; ++code)
        EXPECT_GT(refusals[static_cast<size_t>(code - SHARED_ERR_DENIED)],
                  code == SHARED_ERR_BADTABLE ? -1 : 500)
            << code;
}

}  // namespace
