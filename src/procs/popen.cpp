// Commands at the other end of a stream.
//
// An entry stays listed from ZORpopen to ZORpclose and keeps the status of a command that has ended
// in between. What can fail is done before the command starts: afterwards there would be a child
// that nobody waits for.

#include "procs/procs_internal.h"

#include "support/guards.h"
#include "support/hash_table.h"

#include "iosched/sched.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

struct PopenEntry {
    PopenEntry *newer;  // another stream under the same descriptor, opened later
    int32_t fd;         // the parent's end of the pipe, under the stream; the key
    int32_t status;     // the command's status word, valid once done is set
    int32_t done;       // 0 until the command has ended
    OwnChild child;
};

// By descriptor the oldest entry. It has newer ones where the program has closed a stream past
// ZORpclose and its descriptor came round again.
constinit HashTable<PopenEntry> popenStreams;

void childDone(void *arg, const ChildStatus *status) {
    auto *entry = static_cast<PopenEntry *>(arg);
    entry->status = buildStatus(status);
    entry->done = 1;
}

// Needs room in the table.
void listEntry(PopenEntry *entry) {
    PopenEntry *last = popenStreams.find(entry->fd);
    if (last == nullptr) {
        popenStreams.insert(entry->fd, entry);
        return;
    }
    while (last->newer != nullptr)
        last = last->newer;
    last->newer = entry;
}

// Takes the oldest entry of a descriptor out of the table. Null if there is none.
PopenEntry *unlistEntry(int fd) {
    PopenEntry *entry = popenStreams.remove(fd);
    if (entry != nullptr && entry->newer != nullptr) popenStreams.insert(fd, entry->newer);
    return entry;
}

// Starts the command with its end of the pipe as standard output (when it is read) or input.
int startCommand(PopenEntry *entry, const char *command, bool reading, int fd) {
    SpawnOptions options{};
    options.flags = reading ? SPAWN_STDOUT : SPAWN_STDIN;
    (reading ? options.stdoutFd : options.stdinFd) = fd;
    return startOwnChild(&entry->child, &options, command, childDone, entry);
}

}  // namespace

FILE *ZORpopen(const char *command, const char *mode) {
    if (command == nullptr || mode == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    HeapGuard<PopenEntry> entry(newRecord<PopenEntry>());
    if (entry.get() == nullptr || !popenStreams.reserve()) return nullptr;
    int ends[2];
    if (::pipe(ends) == -1) return nullptr;
    const bool reading = mode[0] == 'r';
    FdGuard ours(ends[reading ? 0 : 1]), theirs(ends[reading ? 1 : 0]);
    // Otherwise the commands of later streams would hold this one open.
    (void)::fcntl(ours.get(), F_SETFD, FD_CLOEXEC);

    FILE *stream = ::fdopen(ours.get(), mode);
    if (stream == nullptr) return nullptr;
    entry->fd = ours.release();
    if (startCommand(entry.get(), command, reading, theirs.get()) == -1) {
        ErrnoGuard keep;
        (void)std::fclose(stream);  // nothing has been written to it
        return nullptr;
    }
    listEntry(entry.release());
    return stream;
}

int ZORpclose(FILE *stream) {
    const int fd = ::fileno(stream);
    (void)std::fclose(stream);  // the command's status is the result, whatever became of the data
    // Before the loop runs: a callback may open a stream on the same descriptor.
    HeapGuard<PopenEntry> entry(unlistEntry(fd));
    if (entry.get() == nullptr) {
        errno = ECHILD;
        return -1;
    }
    if (!waitForOwnChild(&entry->child, entry->done)) return -1;
    return entry->status;
}
