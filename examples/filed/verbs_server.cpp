// The verbs that have to do with the server rather than with a file.

#include "request.h"
#include "share.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <iosched/util.h>

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

// Sleeps right here, in a callback, while the loop goes on: other connections are served, and this
// one may be closed meanwhile. Whoever called us keeps the record alive, and reply() on a closed
// connection does nothing. Sleeps nest, hence the limits: an outer one ends after the inner ones.
void doSleep(Connection &connection, Words &words) {
    static int sleepers;
    unsigned ms = 0;
    if (!words.number(&ms) || ms > kMaxSleepMs)
        return connection.reply("ERR SYNTAX SLEEP ms, at most %d", static_cast<int>(kMaxSleepMs));
    if (sleepers >= kMaxSleepers)
        return connection.reply("ERR LIMIT %d others are asleep already", sleepers);
    sleepers++;
    (void)msleep(ms);
    sleepers--;
    connection.reply("OK slept %u ms", ms);
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
                     " killed %" PRIu64 " replaced %" PRIu64 " cleaned %" PRIu64,
                     workers, accepted, requests, refusals, board.killed.load(),
                     board.replaced.load(), board.cleanings.load());
}
