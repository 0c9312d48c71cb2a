// The table beside its model: 300,000 random calls from three processes, every result and output
// compared, and the table's bytes compared with what the model holds as it goes.
//
// A coordinator deals out batches of calls, one worker at a time, and replays each batch on the
// model. So the order of calls is known, while each call comes from a real process of its own.

#include "iosched/shared.h"
#include "support/in_child.h"
#include "support/lock_table.h"
#include "support/lock_table_bytes.h"
#include "support/lock_table_calls.h"
#include "support/lock_table_model.h"

#include <array>
#include <cinttypes>
#include <random>
#include <sys/socket.h>
#include <syslog.h>
#include <vector>

namespace {

constexpr int kCalls = 300000;
constexpr size_t kMaxBatch = 64;
constexpr int32_t kFiles = 9, kRecords = 40;  // few enough that both run out now and then

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
            ::recv(socket_, answers.data(), told, 0) != static_cast<ssize_t>(told)) {
            answers.clear();
        }
        return answers;
    }

private:
    static void serve(SharedFileLockTable *table, int socket) {
        (void)::setlogmask(LOG_MASK(LOG_EMERG));  // a full table is no news for this machine's log
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

class CallSource {
public:
    explicit CallSource(uint64_t seed) : random_(seed) {}

    uint32_t below(uint32_t n) {
        return std::uniform_int_distribution<uint32_t>(0, n - 1)(random_);
    }

    TableCall next(const std::vector<uint32_t> &pids) {
        static constexpr TableCall::Kind kKinds[] = {
            TableCall::Open,    TableCall::Open,   TableCall::Open,   TableCall::Open,
            TableCall::Close,   TableCall::Lock,   TableCall::Lock,   TableCall::Lock,
            TableCall::Lock,    TableCall::Unlock, TableCall::Test,   TableCall::Unlock,
            TableCall::Unlock,  TableCall::Info,   TableCall::IsOpen, TableCall::Test,
            TableCall::SetMode, TableCall::Holders};
        TableCall call{};
        call.kind = kKinds[below(std::size(kKinds))];
        call.owner = below(2);
        call.handle = below(2);
        // Key pairs share a bucket; two differ in the high half of word0 alone.
        const uint32_t file = below(12);
        call.key = {file % 3 | uint64_t{file % 2} << 32, file / 3 * 16};
        call.offset = offset();
        call.length = length(call.offset);
        if (call.kind == TableCall::Open || call.kind == TableCall::SetMode)
            call.mode = openMode();
        else
            call.mode = below(4);
        call.maxOpens = call.kind == TableCall::Holders ? below(5) : below(4);
        call.nameSize = below(41);
        const size_t nameLength = below(2) * below(sizeof call.name);
        for (size_t i = 0; i < nameLength; ++i)
            call.name[i] = static_cast<char>('a' + below(26));
        if (below(400) == 0) {
            call.kind = TableCall::Clean;
            call.mode = pids[below(static_cast<uint32_t>(pids.size()))];
        }
        return call;
    }

private:
    // Every bit that means something turns up, the refusing ones more seldom than the others.
    uint32_t openMode() {
        uint32_t mode = 0;
        for (uint32_t bit : {0x1u, 0x2u, 0x8u})
            if (below(3) == 0) mode |= bit;
        for (uint32_t bit : {0x10u, 0x20u, 0x40u, 0x100u, 0x200u, 0x400u, 0x800u, 0x4000u, 0x8000u,
                             0x10000u, 0x100000u})
            if (below(12) == 0) mode |= bit;
        for (uint32_t bit : {0x20000000u, 0x40000000u})
            if (below(4) == 0) mode |= bit;
        return mode;
    }
    int64_t offset() {
        static constexpr int64_t kEdges[] = {0, 1, INT64_MAX - 1, INT64_MAX};
        return below(6) == 0 ? kEdges[below(4)] : below(24);
    }
    int64_t length(int64_t from) {
        if (below(12) == 0) return -1;
        const int64_t wanted = below(10);
        return from == 0 ? wanted : std::min(wanted, INT64_MAX - from + 1 - (from == 1));
    }

    std::mt19937_64 random_;
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

bool sameAnswer(const TableAnswer &a, const TableAnswer &b) {
    return a.code == b.code && a.combined == b.combined && a.count == b.count &&
           a.length == b.length && std::equal(std::begin(a.pids), std::end(a.pids), b.pids) &&
           std::equal(std::begin(a.name), std::end(a.name), b.name);
}

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

TEST(LocksModel, RandomCallsOfThreeProcessesEndAsTheModelSays) {
    const uint64_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    ScratchTable scratch(1, kFiles, kRecords);
    LockTableModel model(kFiles, kRecords);
    const Worker workers[] = {Worker(scratch.table), Worker(scratch.table), Worker(scratch.table)};
    const std::vector<uint32_t> pids{workers[0].pid(), workers[1].pid(), workers[2].pid()};
    CallSource source(seed);
    std::vector<int> refusals;  // how often each kind of result came up

    for (int done = 0; done < kCalls;) {
        const Worker &worker = workers[source.below(3)];
        std::vector<TableCall> calls(1 + source.below(kMaxBatch));
        for (TableCall &call : calls)
            call = source.next(pids);
        const std::vector<TableAnswer> answers = worker.run(calls);
        ASSERT_EQ(answers.size(), calls.size()) << "a worker ended";
        for (size_t i = 0; i < calls.size(); ++i) {
            const TableAnswer expected = model.run(worker.pid(), calls[i]);
            ASSERT_TRUE(sameAnswer(answers[i], expected))
                << "call " << done + static_cast<int>(i) << "\n table "
                << describe(worker.pid(), calls[i], answers[i]) << "\n model "
                << describe(worker.pid(), calls[i], expected);
            if (expected.code > SHARED_ERR_DENIED - 1) {
                const auto kind = static_cast<size_t>(expected.code - SHARED_ERR_DENIED);
                refusals.resize(std::max(refusals.size(), kind + 1));
                ++refusals[kind];
            }
        }
        ASSERT_NO_FATAL_FAILURE(expectTableHolds(scratch.table, model));
        done += static_cast<int>(calls.size());
    }
    // A run that never met a refusal would prove little. BADTABLE is not for these calls.
    ASSERT_EQ(refusals.size(), size_t{SHARED_ERR_OPLOCK - SHARED_ERR_DENIED + 1});
    for (int code = SHARED_ERR_DENIED; code <= SHARED_ERR_OPLOCK; ++code) {
        const int times = refusals[static_cast<size_t>(code - SHARED_ERR_DENIED)];
        if (code == SHARED_ERR_BADTABLE)
            EXPECT_EQ(times, 0);
        else
            EXPECT_GT(times, 500) << code;
    }
}

}  // namespace
