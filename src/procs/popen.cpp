// Commands at the other end of a stream.
//
// An entry stays listed from ZORpopen to ZORpclose and keeps the status of a command that has ended
// in between. What can fail is done before the command starts: afterwards there would be a child that
// nobody waits for.

#include "procs/procs_internal.h"

#include "support/guards.h"
#include "support/list.h"

#include "iosched/sched.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

struct PopenEntry : ListLink {
    int32_t fd;      // the parent's end of the pipe, under the stream; the key
    int32_t status;  // the command's status word, valid once done is set
    int32_t done;    // 0 until the command has ended
    pid_t owner;     // the process whose child the command is
};

constinit ListLink popenHead{&popenHead, &popenHead};

void childDone(void *arg, const ChildStatus *status) {
    auto *entry = static_cast<PopenEntry *>(arg);
    entry->status = buildStatus(status);
    entry->done = 1;
}

PopenEntry *findEntry(int fd) {
    for (ListLink *link = popenHead.next; link != &popenHead; link = link->next) {
        auto *entry = static_cast<PopenEntry *>(link);
        if (entry->fd == fd) return entry;
    }
    return nullptr;
}

// Starts the command with its end of the pipe as standard output (when it is read) or input.
pid_t startCommand(const char *command, bool reading, int fd) {
    SpawnOptions options{};
    options.flags = reading ? SPAWN_STDOUT : SPAWN_STDIN;
    (reading ? options.stdoutFd : options.stdinFd) = fd;
    return spawnProcess(&options, command);
}

}  // namespace

FILE *ZORpopen(const char *command, const char *mode) {
    if (command == nullptr || mode == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    HeapGuard<PopenEntry> entry(newRecord<PopenEntry>());
    if (entry.get() == nullptr) return nullptr;
    int ends[2];
    if (::pipe(ends) == -1) return nullptr;
    const bool reading = mode[0] == 'r';
    FdGuard ours(ends[reading ? 0 : 1]), theirs(ends[reading ? 1 : 0]);
    // Otherwise the commands of later streams would hold this one open.
    (void)::fcntl(ours.get(), F_SETFD, FD_CLOEXEC);

    ChildRecord *reserved = reserveChild();
    if (reserved == nullptr) return nullptr;
    FILE *stream = ::fdopen(ours.get(), mode);
    if (stream == nullptr) {
        dropReservation(reserved);
        return nullptr;
    }
    entry->fd = ours.release();
    // Let in now, SIGCHLD would reap a quick child before it is registered.
    (void)disableSignals();
    const pid_t pid = startCommand(command, reading, theirs.get());
    if (pid == -1) {
        ErrnoGuard keep;
        dropReservation(reserved);
        (void)std::fclose(stream);  // nothing has been written to it
        return nullptr;
    }
    entry->owner = ::getpid();
    commitChild(reserved, pid, childDone, entry.get());
    appendToList(&popenHead, entry.release());
    return stream;
}

int ZORpclose(FILE *stream) {
    const int fd = ::fileno(stream);
    (void)std::fclose(stream);  // the command's status is the result, whatever became of the data
    PopenEntry *unlisted = findEntry(fd);
    if (unlisted == nullptr) {
        errno = ECHILD;
        return -1;
    }
    // Out of the list before the loop runs: a callback may open a stream on the same descriptor.
    unlinkNode<ListLink>(unlisted);
    HeapGuard<PopenEntry> entry(unlisted);
    if (!waitForOwnChild(entry->done, entry->owner)) return -1;
    return entry->status;
}
