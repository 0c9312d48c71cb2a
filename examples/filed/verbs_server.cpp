// The verbs that have to do with the server rather than with a file.

#include "prefork/share.h"
#include "request.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <iosched/util.h>
#include <string>

void doDf(Connection &connection, Words &) {
    FSInfo fs;
    if (GetFSInfo(-1, settings.root, 0, &fs) != 0)
        return connection.reply("ERR FILE cannot tell: %s", strerror(errno));
    connection.info("block size %" PRIu64 " bytes", fs.blockSize);
    connection.info("blocks %" PRIu64 " free of %" PRIu64 "%s", fs.freeBlocks, fs.totalBlocks,
                    fs.flags & FSINFO_QUOTA ? " (your quota)" : "");
    connection.info("files %" PRIu64 " free of %" PRIu64, fs.freeFiles, fs.totalFiles);
    connection.info("file system as a whole: %" PRIu64 " of %" PRIu64 " blocks free",
                    fs.fsFreeBlocks, fs.fsTotalBlocks);
    const uint64_t total = fs.totalBlocks ? fs.totalBlocks : 1;
    connection.reply("OK %d%% free", static_cast<int>(100.0 * static_cast<double>(fs.freeBlocks) /
                                                      static_cast<double>(total)));
}

// ---- waiting ----

namespace {

constexpr unsigned kMaxSleepMs = 10'000;
constexpr int kMaxNaps = 32;  // of each worker at a time: they nest on the stack

// Answers when its timer is due, whatever else the worker does meanwhile.
class SleepJob : public Job {
public:
    SleepJob(Connection &connection, unsigned ms) : connection_(connection), ms_(ms) {
        timer_.func = [](SchedTimer *timer) {
            const auto *job = static_cast<SleepJob *>(timer->arg);
            job->connection_.reply("OK slept %u ms", job->ms_);
        };
        timer_.arg = this;
        timer_.interval = ms;
        startTimer(&timer_);
    }
    ~SleepJob() override { (void)stopTimer(&timer_); }
    void turn() override {}

private:
    Connection &connection_;  // owns this job
    const unsigned ms_;
    SchedTimer timer_{};
};

bool takeMs(Connection &connection, Words &words, unsigned *ms) {
    if (words.number(ms) && *ms <= kMaxSleepMs) return true;
    connection.reply("ERR SYNTAX give milliseconds, at most %u", kMaxSleepMs);
    return false;
}

}  // namespace

void doSleep(Connection &connection, Words &words) {
    unsigned ms = 0;
    if (takeMs(connection, words, &ms))
        connection.start(std::make_unique<SleepJob>(connection, ms));
}

// What a wait inside a callback is like: the loop goes on below it and others are served, but it
// ends only after the waits that began below it. This connection may be closed meanwhile; whoever
// called us keeps the record alive, and reply() on a closed connection does nothing.
void doNap(Connection &connection, Words &words) {
    static int naps;
    unsigned ms = 0;
    if (!takeMs(connection, words, &ms)) return;
    if (naps >= kMaxNaps) return connection.reply("ERR LIMIT %d others are napping already", naps);
    naps++;
    (void)msleep(ms);
    naps--;
    connection.reply("OK napped %u ms", ms);
}

void doStats(Connection &connection, Words &) {
    const Board &board = *share.board;
    uint64_t accepted = board.accepted, requests = board.requests, refusals = board.refusals;
    int workers = 0;
    for (const BoardSlot &slot : board.slots) {
        if (slot.pid == 0) continue;
        workers++;
        accepted += slot.accepted;
        requests += slot.requests;
        refusals += slot.refusals;
        connection.info("worker %d connections %" PRIu64 " requests %" PRIu64 "%s", slot.pid.load(),
                        slot.connections.load(), slot.requests.load(),
                        slot.leaving ? " leaving" : "");
    }
    connection.reply("OK workers %d accepted %" PRIu64 " requests %" PRIu64 " refused %" PRIu64
                     " killed %" PRIu64 " replaced %" PRIu64 " cleaned %" PRIu64
                     " repaired %" PRIu64,
                     workers, accepted, requests, refusals, board.killed.load(),
                     board.replaced.load(), board.cleanings.load(), board.repairs.load());
}
