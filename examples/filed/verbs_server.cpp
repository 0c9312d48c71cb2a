// The verbs that have to do with the server rather than with a file.

#include "request.h"
#include "share.h"

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <iosched/procs.h>
#include <iosched/util.h>
#include <string>
#include <sys/wait.h>

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

// SLEEP and SYSTEM wait right here, in a callback, while the loop goes on: other connections are
// served, and this one may be closed meanwhile. Whoever called us keeps the record alive, and
// reply() on a closed connection does nothing. The waits nest, hence the limits: an outer one ends
// after the inner ones.
namespace {

int waiters;

bool mayWait(Connection &connection) {
    if (waiters < kMaxSleepers) return true;
    connection.reply("ERR LIMIT %d others are waiting already", waiters);
    return false;
}

}  // namespace

void doSleep(Connection &connection, Words &words) {
    unsigned ms = 0;
    if (!words.number(&ms) || ms > kMaxSleepMs)
        return connection.reply("ERR SYNTAX SLEEP ms, at most %d", static_cast<int>(kMaxSleepMs));
    if (!mayWait(connection)) return;
    waiters++;
    (void)msleep(ms);
    waiters--;
    connection.reply("OK slept %u ms", ms);
}

// The command goes through the environment, where nothing in it can end the quoting.
void doSystem(Connection &connection, Words &words) {
    if (!settings.allowRun) return connection.reply("ERR OFF this server was started without -R");
    if (words.empty()) return connection.reply("ERR SYNTAX SYSTEM command line");
    if (!mayWait(connection)) return;
    char command[128];
    (void)snprintf(command, sizeof command,
                   "exec timeout -k 1 %d sh -c \"$FILED_COMMAND\" </dev/null >/dev/null 2>&1",
                   static_cast<int>(kMaxSleepMs / 1000));
    if (setenv("FILED_COMMAND", std::string(words.rest()).c_str(), 1) != 0)
        return connection.reply("ERR SYSTEM cannot start it: %s", strerror(errno));
    waiters++;
    const int status = ZORsystem(command);
    waiters--;
    (void)unsetenv("FILED_COMMAND");  // no business of the programs that RUN starts
    if (status == -1)
        connection.reply("ERR SYSTEM cannot wait for it: %s", strerror(errno));
    else if (WIFSIGNALED(status))
        connection.reply("OK signal %d", WTERMSIG(status));
    else
        connection.reply("OK exit %d", WEXITSTATUS(status));
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
