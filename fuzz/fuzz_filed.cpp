// A client's bytes to a connection of filed, in pieces: the lines are answered or refused, and
// nothing is left of the connection when the client has gone.

#include "filed/connection.h"
#include "filed/filed.h"
#include "filed/worker.h"
#include "fuzz_input.h"

#include <algorithm>
#include <csignal>
#include <sys/socket.h>
#include <syslog.h>

namespace {

BoardSlot slot;
Board board;

void start() {
    require(InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, nullptr, 0) == 0, "a loop");
    (void)::setlogmask(LOG_UPTO(LOG_EMERG));
    share.board = &board;
    worker::counters = &slot;
    static const FuzzDirectory directory;
    worker::rootFd = directory.open();
    settings.allowRun = false;
}

}  // namespace

// The fuzzer's own thread inherits this mask. A signal of the loop's that came there would run its
// callback there.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sigset_t all;
    (void)sigfillset(&all);
    return ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool started = (start(), true);
    (void)started;
    // A wait that nobody cuts short.
    const char nap[] = "nap";
    const auto sameLetter = [](uint8_t a, char b) { return (a | 0x20) == b; };
    if (std::search(data, data + size, nap, nap + 3, sameLetter) != data + size) return 0;
    FuzzArena arena(65536);
    require(AllocateSharedFileLockTable(arena.get(), "locks", 1, 16, 64, &share.table) == 0,
            "a table can be made");
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0,
            "a connection");
    startConnection(ends[0]);
    FuzzInput input(data, size);
    while (!input.empty()) {
        std::string piece(1 + input.below(100), '\0');
        for (char &byte : piece)
            byte = input.take<char>();
        (void)!::write(ends[1], piece.data(), piece.size());
        char replies[4096];
        for (int pass = 0; pass < 4; ++pass) {
            (void)iosched(0);
            (void)!::read(ends[1], replies, sizeof replies);
        }
    }
    (void)::close(ends[1]);
    closeAllConnections("ERR RESTART");  // a command may be under way, whose reply would come
    for (int pass = 0; pass < 1000 && connectionCount() > 0; ++pass)
        (void)iosched(0);
    require(connectionCount() == 0, "the connection ends");
    require(FreeSharedFileLockTable(share.table) == 0, "the table can be given back");
    return 0;
}
