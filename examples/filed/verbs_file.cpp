// The verbs that work on files: each asks the lock table before it does anything.

#include "prefork/share.h"
#include "request.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kPieceBytes = size_t{64} * 1024;  // of a READ, in one pass of the loop
constexpr uint32_t kAccess = SHARED_FILE_READ | SHARED_FILE_WRITE | SHARED_FILE_DELETE;

void replyCode(Connection &connection, int code, const char *text) {
    if (code == 0)
        connection.reply("OK");
    else
        connection.reply("ERR %s %s", codeWord(code), text);
}

void replyErrno(Connection &connection, const char *what) {
    const char *why = strerror(errno);
    if (errno == EXDEV || errno == ELOOP) why = "the path leads out of the served directory";
    if (errno == EMEDIUMTYPE) why = "not a regular file";
    connection.reply("ERR FILE %s: %s", what, why);
}

// ---- arguments ----

// The handle that the line begins with. Answers and returns null if it is none.
OpenFile *takeHandle(Connection &connection, Words &words, uint32_t *handle) {
    OpenFile *file = words.number(handle) ? connection.files().find(*handle) : nullptr;
    if (!file) connection.reply("ERR HANDLE you have no open file of that number");
    return file;
}

// Offset and length; -1 is the length of everything behind the offset. The table takes any numbers,
// but a range that begins below 0 or wraps round would mean something else to it.
bool takeRange(Connection &connection, Words &words, int64_t *offset, int64_t *length) {
    const bool good = words.number(offset) && words.number(length) && *offset >= 0 &&
                      (*length == -1 || (*length > 0 && *length - 1 <= INT64_MAX - *offset));
    if (!good) connection.reply("ERR RANGE give an offset from 0 up and a length from 1 up, or -1");
    return good;
}

std::string unescape(std::string_view text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); i++) {
        const bool escaped = text[i] == '\\' && i + 1 < text.size();
        if (escaped) i++;
        plain += escaped && text[i] == 'n' ? '\n' : text[i];
    }
    return plain;
}

// "pid 17 pid 23" of the processes with an oplock on the file; empty if there is none.
std::string holders(const SharedFileKey &key) {
    uint32_t pids[32], count = 0;
    (void)GetOplockHolders(share.table, &key, pids, std::size(pids), &count);
    std::string text;
    for (uint32_t i = 0; i < count; i++)
        text += (i ? " pid " : "pid ") + std::to_string(pids[i]);
    return text;
}

// ---- reading in pieces ----

// A long READ is produced a piece in each pass, so that the other connections have their turns, and
// each piece asks the lock table anew. It waits while the client does not keep up.
class ReadJob : public Job {
public:
    ReadJob(Connection &connection, uint32_t handle, int64_t offset, int64_t length)
        : connection_(connection), handle_(handle), offset_(offset), length_(length) {}

    void turn() override {
        const OpenFile *file =
            connection_.files().find(handle_);  // one command at a time: still open
        int64_t allowed = pieceLength();
        const int64_t wanted = allowed;
        const int code = TestSharedFileRange(share.table, connection_.id(), handle_, &file->key,
                                             offset_, &allowed, SHARED_FILE_TEST_READ);
        if (code != 0) return replyCode(connection_, code, "the lock table fails");
        if (wanted > 0 && allowed == 0) return stopAtLock();
        buffer_.resize(static_cast<size_t>(allowed));
        const ssize_t got = pread(file->fd, buffer_.data(), buffer_.size(), offset_);
        if (got < 0) return replyErrno(connection_, "cannot read");
        if (got > 0) connection_.data(buffer_.data(), static_cast<size_t>(got));
        offset_ += got;
        total_ += got;
        if (length_ != -1) length_ -= got;
        // Nothing wanted: the offset is the largest that there is.
        if (got < allowed || length_ == 0 || wanted == 0)
            connection_.reply("OK %" PRId64 " bytes", total_);
        else if (allowed < wanted)
            stopAtLock();
        else
            connection_.wantTurn();
    }

private:
    int64_t pieceLength() const {
        constexpr int64_t piece = kPieceBytes;
        return std::min({length_ == -1 ? piece : length_, piece, INT64_MAX - offset_});
    }

    void stopAtLock() {
        if (total_ == 0)
            connection_.reply("ERR LOCKED byte %" PRId64 " is locked", offset_);
        else
            connection_.reply("OK %" PRId64 " bytes, what follows is locked", total_);
    }

    Connection &connection_;  // owns this job
    const uint32_t handle_;
    int64_t offset_, length_, total_ = 0;
    std::vector<char> buffer_;
};

}  // namespace

// ---- opens ----

void doOpen(Connection &connection, Words &words) {
    ModeWords mode;
    if (!parseMode(words.next(), &mode) || words.empty())
        return connection.reply("ERR SYNTAX OPEN words path, words like read,write,deny-write");
    if (!(mode.mode & kAccess))
        return connection.reply("ERR SYNTAX name an access: read, write or delete");
    if (connection.files().size() >= kMaxOpenFiles)
        return connection.reply("ERR LIMIT you have %u files open, as many as you may",
                                kMaxOpenFiles);
    uint32_t combined = 0;
    OpenRefusal refusal;
    const uint32_t handle =
        connection.files().open(std::string(words.rest()), mode, &combined, &refusal);
    if (handle != 0) return connection.reply("OK %u %s", handle, modeText(combined).c_str());
    if (refusal.code == 0) return replyErrno(connection, "cannot open");
    if (refusal.code == SHARED_ERR_OPLOCK) {
        const std::string pids = holders(refusal.key);
        return connection.reply("ERR OPLOCK held by %s (in use: %s)",
                                pids.empty() ? "nobody any more" : pids.c_str(),
                                modeText(refusal.inUse).c_str());
    }
    if (refusal.code == SHARED_ERR_DENIED)
        return connection.reply("ERR DENIED in use: %s", modeText(refusal.inUse).c_str());
    replyCode(connection, refusal.code, "the lock table cannot take another open");
}

void doClose(Connection &connection, Words &words) {
    uint32_t handle = 0;
    if (!takeHandle(connection, words, &handle)) return;
    replyCode(connection, connection.files().close(handle), "the file was not in the lock table");
}

void doMode(Connection &connection, Words &words) {
    uint32_t handle = 0;
    OpenFile *file = takeHandle(connection, words, &handle);
    if (!file) return;
    ModeWords mode;
    constexpr uint32_t kSettable = SHARED_FILE_DENY_READ | SHARED_FILE_DENY_WRITE |
                                   SHARED_FILE_DENY_DELETE | SHARED_FILE_OPLOCK_MASK;
    if (words.empty() || !parseMode(words.next(), &mode) || (mode.mode & ~kSettable) || mode.create)
        return connection.reply(
            "ERR SYNTAX MODE handle words, deny and oplock words only, or none");
    // The access stays what the file was opened with.
    const uint32_t settled = (file->mode & kAccess) | mode.mode;
    const int code = SetSharedFileMode(share.table, connection.id(), handle, &file->key, settled);
    if (code == 0) file->mode = settled;
    replyCode(connection, code, "you hold no oplock on it that you could keep or change");
}

// ---- ranges ----

void doRead(Connection &connection, Words &words) {
    uint32_t handle = 0;
    int64_t offset = 0, length = 0;
    const OpenFile *file = takeHandle(connection, words, &handle);
    if (!file || !takeRange(connection, words, &offset, &length)) return;
    if (!(file->mode & SHARED_FILE_READ))
        return connection.reply("ERR ACCESS not opened for reading");
    connection.start(std::make_unique<ReadJob>(connection, handle, offset, length));
}

void doWrite(Connection &connection, Words &words) {
    uint32_t handle = 0;
    int64_t offset = 0;
    const OpenFile *file = takeHandle(connection, words, &handle);
    if (!file) return;
    if (!words.number(&offset) || offset < 0 || words.text().empty())
        return connection.reply("ERR SYNTAX WRITE handle offset text");
    if (!(file->mode & SHARED_FILE_WRITE))
        return connection.reply("ERR ACCESS not opened for writing");
    const std::string bytes = unescape(words.text());
    const auto wanted = static_cast<int64_t>(bytes.size());
    int64_t allowed = wanted;
    if (offset > INT64_MAX - wanted) return connection.reply("ERR RANGE beyond the largest file");
    const int code = TestSharedFileRange(share.table, connection.id(), handle, &file->key, offset,
                                         &allowed, SHARED_FILE_TEST_WRITE);
    if (code != 0) return replyCode(connection, code, "the lock table fails");
    if (allowed < wanted)
        return connection.reply("ERR LOCKED byte %" PRId64 " is locked", offset + allowed);
    errno = ENOSPC;  // what it means when not all is written; an error of its own replaces it
    if (pwrite(file->fd, bytes.data(), bytes.size(), offset) != wanted)
        return replyErrno(connection, "cannot write it all");
    connection.reply("OK %zu bytes", bytes.size());
}

void doLock(Connection &connection, Words &words) {
    uint32_t handle = 0;
    int64_t offset = 0, length = 0;
    const OpenFile *file = takeHandle(connection, words, &handle);
    if (!file) return;
    const std::string_view kind = words.next();
    if (kind != "shared" && kind != "exclusive")
        return connection.reply("ERR SYNTAX LOCK handle shared|exclusive offset length");
    if (!takeRange(connection, words, &offset, &length)) return;
    const uint32_t flags = kind == "shared" ? SHARED_FILE_LOCK_SHARED : SHARED_FILE_LOCK_EXCLUSIVE;
    const int code = LockSharedFileRange(share.table, connection.id(), handle, &file->key, offset,
                                         length, flags);
    replyCode(connection, code, "the range is not free");
}

void doUnlock(Connection &connection, Words &words) {
    uint32_t handle = 0;
    int64_t offset = 0, length = 0;
    const OpenFile *file = takeHandle(connection, words, &handle);
    if (!file) return;
    if (!takeRange(connection, words, &offset, &length)) return;
    const int code =
        UnlockSharedFileRange(share.table, connection.id(), handle, &file->key, offset, length);
    replyCode(connection, code, "you hold no lock of exactly this range");
}

void doTest(Connection &connection, Words &words) {
    uint32_t handle = 0;
    int64_t offset = 0, length = 0;
    const OpenFile *file = takeHandle(connection, words, &handle);
    if (!file) return;
    const std::string_view access = words.next();
    if (access != "read" && access != "write")
        return connection.reply("ERR SYNTAX TEST handle read|write offset length");
    if (!takeRange(connection, words, &offset, &length)) return;
    int64_t allowed = length;
    const uint32_t flags = access == "read" ? SHARED_FILE_TEST_READ : SHARED_FILE_TEST_WRITE;
    const int code = TestSharedFileRange(share.table, connection.id(), handle, &file->key, offset,
                                         &allowed, flags);
    if (code != 0) return replyCode(connection, code, "the lock table fails");
    if (allowed == length)
        connection.reply("OK free");
    else
        connection.reply("OK %" PRId64 " bytes free, what follows is locked", allowed);
}

// ---- what is known of a file, whoever has it open ----

namespace {

// Looks a file up by its path. Answers and returns false if there is none.
bool takeFile(Connection &connection, Words &words, SharedFileKey *key, struct stat *info) {
    const int fd = openServedFile(std::string(words.rest()), O_RDONLY, key);
    const bool good = fd >= 0 && fstat(fd, info) == 0;
    if (!good) replyErrno(connection, "cannot look at it");
    if (fd >= 0) (void)close(fd);
    return good;
}

}  // namespace

void doInfo(Connection &connection, Words &words) {
    SharedFileKey key{};
    struct stat info {};
    if (!takeFile(connection, words, &key, &info)) return;
    uint32_t combined = 0, opens = 0;
    char name[64] = "";
    const int code = SharedFileInfo(share.table, &key, &combined, &opens, name, sizeof name);
    if (code != 0 && code != SHARED_ERR_NOTOPEN)
        return replyCode(connection, code, "the lock table fails");
    connection.info("size %" PRId64, static_cast<int64_t>(info.st_size));
    connection.info("key %" PRIx64 ":%" PRIx64, key.word0, key.word1);
    if (opens > 0) connection.info("first opened as %s", name);
    connection.reply("OK opens %u, %s", opens, modeText(combined).c_str());
}

void doHolders(Connection &connection, Words &words) {
    SharedFileKey key{};
    struct stat info {};
    if (!takeFile(connection, words, &key, &info)) return;
    const std::string pids = holders(key);
    connection.reply("OK %s", pids.empty() ? "nobody" : pids.c_str());
}
