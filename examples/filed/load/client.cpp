#include "client.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iosched/sched.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

int64_t nowUs() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{1000000} * now.tv_sec + now.tv_nsec / 1000;
}

namespace {

constexpr size_t kMaxOpens = 2;       // at a time
constexpr size_t kMaxLocks = 4;       // of each open
constexpr uint32_t kSecondOpen = 12;  // one request in so many opens a second file
constexpr uint32_t kFileBytes = 4096;

constexpr struct {
    const char *words;
    uint32_t bits;
} kAccess[] = {{"read", 1}, {"read", 1}, {"read,write", 3}, {"write", 2}},
  kDeny[] = {{"", 0}, {"", 0}, {",deny-write", 8}, {",deny-read,deny-write", 12}},
  kOplock[] = {{"", 0},
               {"", 0},
               {"", 0},
               {",oplock-shared", 16},
               {",oplock-exclusive", 32},
               {",oplock-batch", 32}};
constexpr uint32_t kReads = 1, kWrites = 2, kDenyReads = 4, kDenyWrites = 8, kAnyOplock = 16 | 32,
                   kSoleOplock = 32;

// The number behind a word of the line; 0 if there is none.
int numberBehind(const std::string &line, const char *word) {
    const size_t at = line.find(word);
    if (at == std::string::npos) return 0;
    return static_cast<int>(strtol(line.c_str() + at + strlen(word), nullptr, 10));
}

std::string fileName(int file) {
    return "load-" + std::to_string(file);
}

}  // namespace

// ---- the connection ----

void Client::connect() {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(load_.port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ < 0 || (::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0 &&
                    errno != EINPROGRESS)) {
        perror("filed-load: connect");
        exit(2);
    }
    load_.sockets++;
    (void)registerOutput(fd_, onConnected, this);
}

void Client::onConnected(void *arg, int fd) {
    auto *client = static_cast<Client *>(arg);
    (void)registerOutput(fd, nullptr, nullptr);
    int error = 0;
    socklen_t length = sizeof error;
    (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error != 0) {
        if (client->load_.report.connects == 0) {
            (void)fprintf(stderr, "filed-load: no server at 127.0.0.1:%d: %s\n", client->load_.port,
                          strerror(error));
            exit(2);
        }
        client->load_.report.refusedConnects++;
        client->disconnect();
        if (!client->load_.finishing) client->connect();
        return;
    }
    client->load_.report.connects++;
    client->load_.connected++;
    client->connected_ = true;
    (void)registerInput(fd, onInput, client);
}

void Client::disconnect() {
    if (fd_ < 0) return;
    load_.witness->forget(number_);
    (void)registerInput(fd_, nullptr, nullptr);
    (void)registerOutput(fd_, nullptr, nullptr);
    (void)close(fd_);
    fd_ = -1;
    workerPid_ = 0;
    pending_ = false;
    skipBytes_ = 0;
    input_.clear();
    opens_.clear();
    load_.sockets--;
    if (std::exchange(connected_, false)) load_.connected--;
}

// The server process has been killed or has sent its goodbye: what it had granted is gone.
void Client::lose() {
    load_.report.lost++;
    disconnect();
    if (!load_.finishing) connect();
}

void Client::finish() {
    if (fd_ >= 0 && !pending_) disconnect();
}

// The master removes a dead worker's records only after it has reaped it, and from then on the
// process does not exist. A worker that says goodbye sends the line before it releases anything.
bool Client::stillHolds() const {
    if (fd_ < 0 || (kill(workerPid_, 0) < 0 && errno == ESRCH)) return false;
    char waiting[4096];
    const ssize_t got = recv(fd_, waiting, sizeof waiting, MSG_PEEK | MSG_DONTWAIT);
    if (got < 0) return errno == EAGAIN;
    const std::string text = input_ + std::string(waiting, static_cast<size_t>(got));
    return got > 0 && text.find("ERR RESTART") == std::string::npos &&
           text.find("ERR IDLE") == std::string::npos;
}

// ---- replies ----

void Client::onInput(void *arg, int fd) {
    auto *client = static_cast<Client *>(arg);
    char bytes[8192];
    const ssize_t got = read(fd, bytes, sizeof bytes);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got <= 0) return client->lose();
    client->input_.append(bytes, static_cast<size_t>(got));
    client->takeLines();
}

void Client::takeLines() {
    while (fd_ >= 0) {
        if (skipBytes_ > 0) {
            if (input_.size() < skipBytes_) return;
            input_.erase(0, skipBytes_);
            skipBytes_ = 0;
        }
        const size_t end = input_.find('\n');
        if (end == std::string::npos) return;
        const std::string line = input_.substr(0, end);
        input_.erase(0, end + 1);
        if (line.starts_with("- ")) continue;
        if (line.starts_with("DATA "))
            skipBytes_ = strtoul(line.c_str() + 5, nullptr, 10) + 1;
        else if (line.starts_with("ERR RESTART") || line.starts_with("ERR IDLE"))
            return lose();
        else if (workerPid_ == 0)
            greeted(line);
        else
            answered(line);
    }
}

void Client::greeted(const std::string &line) {
    const int worker = numberBehind(line, "worker="), master = numberBehind(line, "master=");
    if (!line.starts_with("OK") || worker <= 0 || master <= 0) {
        load_.report.badReplies++;
        return lose();
    }
    workerPid_ = worker;
    load_.masterPid = master;
    next();
}

void Client::answered(const std::string &line) {
    const bool ok = line.starts_with("OK"), refused = line.starts_with("ERR ");
    if (!pending_ || (!ok && !refused)) {
        load_.report.badReplies++;
        return lose();
    }
    pending_ = false;
    const std::string code = refused ? line.substr(4, line.find(' ', 4) - 4) : "";
    load_.report.answered(request_.kind, static_cast<uint32_t>(nowUs() - request_.sentUs), code);
    if (ok) granted(line);
    next();
}

void Client::granted(const std::string &line) {
    Witness &witness = *load_.witness;
    const Request &sent = request_;
    if ((sent.kind == kOpen || sent.kind == kLock) && load_.killedUs != 0 &&
        sent.sentUs > load_.killedUs) {
        load_.worstGrantUs = std::max(load_.worstGrantUs, nowUs() - load_.killedUs);
        load_.killedUs = 0;
    }
    if (sent.kind == kOpen) {
        const auto handle = static_cast<uint32_t>(strtoul(line.c_str() + 3, nullptr, 10));
        // An open that joins others gets no oplock. The combined mode in the reply tells: while a
        // sole oplock stands nobody joins, so one that shows there is ours.
        const bool sole =
            (sent.words & kSoleOplock) && (line.find("oplock-exclusive") != std::string::npos ||
                                           line.find("oplock-batch") != std::string::npos);
        const bool oplock = (sent.words & kAnyOplock) && line.find("oplock-") != std::string::npos;
        const bool reads = sent.words & kReads, writes = sent.words & kWrites;
        opens_.push_back({sent.file, handle, reads, writes, oplock, {}});
        witness.opened(sent.file, {number_, handle, reads, writes, (sent.words & kDenyReads) != 0,
                                   (sent.words & kDenyWrites) != 0, sole});
        return;
    }
    const int64_t last = sent.offset + sent.length - 1;
    if (sent.kind == kLock) {
        Open &open = opens_[sent.open];
        open.locks.push_back({sent.offset, sent.length});
        witness.locked(open.file, {number_, open.handle, sent.offset, last, sent.exclusive, 0});
    } else if (sent.kind == kWrite || sent.kind == kRead) {
        const Open &open = opens_[sent.open];
        const int64_t bytes = strtoll(line.c_str() + 3, nullptr, 10);
        if (bytes > 0)
            witness.transferred(open.file, number_, open.handle, sent.offset,
                                sent.offset + bytes - 1, sent.kind == kWrite, sent.sentTick);
    }
}

// ---- requests ----

void Client::send(const std::string &line) {
    pending_ = true;
    request_.sentUs = nowUs();
    request_.sentTick = load_.witness->tick();
    // A line is far smaller than a socket buffer that holds nothing else.
    const ssize_t sent = ::send(fd_, (line + '\n').c_str(), line.size() + 1, MSG_NOSIGNAL);
    if (sent < 0) lose();
}

void Client::next() {
    if (load_.finishing) return disconnect();
    if (opens_.empty() || (opens_.size() < kMaxOpens && dice(kSecondOpen) == 0)) return sendOpen();
    sendOnOpen(dice(static_cast<uint32_t>(opens_.size())));
}

void Client::sendOpen() {
    const auto &access = kAccess[dice(std::size(kAccess))];
    const auto &deny = kDeny[dice(std::size(kDeny))];
    const auto &oplock = kOplock[dice(std::size(kOplock))];
    request_ = {};
    request_.kind = kOpen;
    request_.file = static_cast<int>(dice(static_cast<uint32_t>(load_.files)));
    request_.words = access.bits | deny.bits | oplock.bits;
    send(std::string("OPEN create,") + access.words + deny.words + oplock.words + " " +
         fileName(request_.file));
}

void Client::sendOnOpen(size_t index) {
    const Open &open = opens_[index];
    request_ = {};
    request_.open = index;
    const uint32_t choice = dice(100);
    if (open.oplock && choice < 40) return sendMode(index);
    if (choice < 25 && open.locks.size() < kMaxLocks) return sendRange(kLock, index);
    if (choice < 45 && !open.locks.empty()) return sendUnlock(index);
    if (choice < 55) return sendRange(kTest, index);
    if (choice < 68 && open.reads) return sendRange(kRead, index);
    if (choice < 80 && open.writes) return sendRange(kWrite, index);
    if (choice < 84) {
        request_.kind = choice < 82 ? kInfo : kHolders;
        return send((choice < 82 ? "INFO " : "HOLDERS ") + fileName(open.file));
    }
    sendClose(index);
}

void Client::sendRange(Kind kind, size_t index) {
    const uint32_t handle = opens_[index].handle;
    request_.kind = kind;
    request_.offset = dice(kFileBytes);
    request_.length = 1 + dice(kFileBytes / 8);
    request_.exclusive = dice(2) == 0;
    const std::string range =
        " " + std::to_string(request_.offset) + " " + std::to_string(request_.length);
    const std::string start = std::to_string(handle);
    switch (kind) {
    case kLock:
        return send("LOCK " + start + (request_.exclusive ? " exclusive" : " shared") + range);
    case kTest:
        return send("TEST " + start + (request_.exclusive ? " write" : " read") + range);
    case kRead:
        return send("READ " + start + range);
    default:
        send("WRITE " + start + " " + std::to_string(request_.offset) + " " +
             std::string(static_cast<size_t>(request_.length), 'x'));
    }
}

// What is given up is given up before the server hears of it.

void Client::sendUnlock(size_t index) {
    Open &open = opens_[index];
    const Held held = open.locks.back();
    open.locks.pop_back();
    request_.kind = kUnlock;
    load_.witness->unlocked(open.file, number_, open.handle, held.offset,
                            held.offset + held.length - 1);
    send("UNLOCK " + std::to_string(open.handle) + " " + std::to_string(held.offset) + " " +
         std::to_string(held.length));
}

void Client::sendMode(size_t index) {
    Open &open = opens_[index];
    open.oplock = false;
    request_.kind = kMode;
    load_.witness->modeGivenUp(open.file, number_, open.handle);
    send("MODE " + std::to_string(open.handle) + " none");
}

void Client::sendClose(size_t index) {
    const Open open = opens_[index];
    opens_.erase(opens_.begin() + static_cast<std::ptrdiff_t>(index));
    request_.kind = kClose;
    load_.witness->closed(open.file, number_, open.handle);
    send("CLOSE " + std::to_string(open.handle));
}
