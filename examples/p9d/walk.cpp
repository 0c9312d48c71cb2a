// Beginning and ending: versions, trees, walks, fids that go.

#include "session.h"

#include "identity.h"
#include "p9d.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace {

constexpr uint16_t kMostNames = 16;  // of one walk

}  // namespace

int Session::version(Reader &in, Writer &out) {
    const uint32_t wanted = in.u32();
    const std::string dialect = in.string();
    if (wanted < kSmallestMessage) return EINVAL;
    while (!fids_.empty())
        (void)dropFid(fids_.begin()->first);
    messageSize_ = std::min(wanted, kLargestMessage);
    out.u32(messageSize_).string(dialect == "9P2000.L" ? dialect : "unknown");
    return 0;
}

// An error of 0 is how a server says that nobody need prove who he is.
int Session::auth(Reader &, Writer &out) {
    out.fail(0);
    return 0;
}

int Session::attach(Reader &in, Writer &out) {
    const uint32_t number = in.u32();
    (void)in.u32();     // of authentication
    (void)in.string();  // the user's name: the number counts
    (void)in.string();  // the tree: there is one
    const uint32_t uid = in.u32();
    struct stat info;
    const int fd = fcntl(rootFd, F_DUPFD_CLOEXEC, 3);
    if (fd < 0) return errno;
    const uint32_t nobody = 65534;  // who does not say
    if (!addFid(number, fd, uid == kNoNumber ? nobody : uid) || fstat(fd, &info) != 0) return errno;
    out.qid(qidOf(info));
    return 0;
}

// Each step opens one name in one directory and follows nothing, so no walk leaves the tree.
int Session::walk(Reader &in, Writer &out) {
    const uint32_t from = in.u32(), to = in.u32();
    const uint16_t count = in.u16();
    const Fid *start = fid(from);
    if (!start || start->attribute != Fid::Attribute::kNone) return EBADF;
    if (count > kMostNames) return EINVAL;
    if (from != to && fids_.contains(to)) return EBADF;
    const uint32_t uid = start->uid;
    uint16_t done = 0;
    int error = 0;
    int at = -1;  // where the walk has come to; before the first step, the fid itself
    out.u16(0);
    for (; done < count; done++) {
        const std::string name = in.string();
        if ((error = checkName(name)) != 0) break;
        struct stat info;
        const int next =
            openat(at < 0 ? start->fd : at, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
        error = next < 0 || fstat(next, &info) != 0 ? errno : 0;
        if (at >= 0 && next >= 0) (void)close(at);
        if (next >= 0) at = next;
        if (error != 0) break;
        out.qid(qidOf(info));
    }
    // A walk that got somewhere, but not to its end, tells how far and makes no fid.
    if (done < count) {
        if (at >= 0) (void)close(at);
        if (done == 0) return error;
    } else {
        // Without a step it is a clone. That of an open fid is not open: it is taken anew through
        // its link, which names this inode.
        if (at < 0) {
            at = start->isOpen() ? open(procPath(start->fd).c_str(), O_PATH | O_CLOEXEC)
                                 : fcntl(start->fd, F_DUPFD_CLOEXEC, 3);
        }
        if (at < 0) return errno;
        if (from == to) (void)dropFid(from);
        if (!addFid(to, at, uid)) return errno;
    }
    out.patch(kHeaderBytes, done);
    return 0;
}

int Session::flush(Reader &in, Writer &) {
    (void)in.u16();  // answered long ago
    return 0;
}

int Session::clunk(Reader &in, Writer &) {
    return dropFid(in.u32());
}
