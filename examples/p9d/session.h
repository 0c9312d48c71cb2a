// What one client has negotiated and holds: its fids, its opens, its locks. Answers one request at
// a time, at once: nothing here waits, so a flush finds every earlier request answered.
#pragma once

#include "locks.h"
#include "wire.h"

#include <fcntl.h>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>

// A fid is a descriptor: O_PATH until the client opens it, so that no path is ever built from
// strings, renames above it do not matter, and a file that is unlinked while it is open goes on.
struct Fid {
    ~Fid();
    bool isOpen() const { return flags >= 0; }

    int fd = -1;
    int flags = -1;    // as opened; -1: not open
    uint32_t uid = 0;  // who attached
    // A fid may stand for an extended attribute instead, read whole or written whole.
    enum class Attribute { kNone, kRead, kWrite } attribute = Attribute::kNone;
    std::string attributeName, value;
    size_t written = 0;
    int attributeFlags = 0;
};

class Session {
public:
    explicit Session(uint32_t id) : id_(id), locks_(2 * id + 1) {}
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    uint32_t messageSize() const { return messageSize_; }

    // Appends the answer to a whole request, without its size field, to the outbox. False, with
    // nothing done or appended, if the bytes are no request.
    bool answer(std::string_view request, Outbox *out);

private:
    // Takes a request's fields off, which are all there, and fills in the answer. Returns 0, or the
    // errno to send in its place.
    using Handler = int (Session::*)(Reader &in, Writer &out);
    struct Row;
    static const Row *rowFor(uint8_t type);

    // Null with errno EBADF. The identity is the fid's user's from then on.
    Fid *fid(uint32_t number, uint32_t group = kNoNumber);
    Fid *openFid(uint32_t number);
    Fid *unopenedFid(uint32_t number, uint32_t group = kNoNumber);
    Fid *addFid(uint32_t number, int fd, uint32_t uid);
    int dropFid(uint32_t number);
    int finishAttribute(const Fid &it);
    int recordOpen(uint32_t number, Fid *it, int fd, int flags);

    // walk.cpp
    int version(Reader &in, Writer &out);
    int auth(Reader &in, Writer &out);
    int attach(Reader &in, Writer &out);
    int walk(Reader &in, Writer &out);
    int flush(Reader &in, Writer &out);
    int clunk(Reader &in, Writer &out);
    // files.cpp
    int statfs(Reader &in, Writer &out);
    int lopen(Reader &in, Writer &out);
    int lcreate(Reader &in, Writer &out);
    int read(Reader &in, Writer &out);
    int write(Reader &in, Writer &out);
    int readdir(Reader &in, Writer &out);
    int fsync(Reader &in, Writer &out);
    int lock(Reader &in, Writer &out);
    int getlock(Reader &in, Writer &out);
    // names.cpp
    int symlink(Reader &in, Writer &out);
    int mknod(Reader &in, Writer &out);
    int mkdir(Reader &in, Writer &out);
    int link(Reader &in, Writer &out);
    int readlink(Reader &in, Writer &out);
    int rename(Reader &in, Writer &out);
    int renameat(Reader &in, Writer &out);
    int unlinkat(Reader &in, Writer &out);
    int remove(Reader &in, Writer &out);
    // attributes.cpp
    int getattr(Reader &in, Writer &out);
    int setattr(Reader &in, Writer &out);
    int xattrwalk(Reader &in, Writer &out);
    int xattrcreate(Reader &in, Writer &out);

    const uint32_t id_;
    uint32_t messageSize_ = kSmallestMessage;  // until a version is agreed on
    std::map<uint32_t, std::unique_ptr<Fid>> fids_;
    LockSet locks_;
};

// What the request files share.
Qid qidOf(const struct stat &info);
std::string procPath(int fd);            // for calls that take no descriptor of this kind
int checkName(const std::string &name);  // 0 for one name in a directory, else its errno
int appendQid(int dir, const std::string &name, Writer &out);
