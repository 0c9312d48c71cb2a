// Back-pressure: the output callback is registered only while there is something to send, and input
// is neither read nor served while the client leaves much of our output unread.
//
// Lines are served in descriptor callbacks only, never in a delayed call. A command may sleep, that
// is, run passes of the loop; in a delayed call that would hold up the rest of its batch, which the
// nested passes do not see, and with it other connections.

#include "connection.h"
#include "request.h"
#include "worker.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kReadBytes = size_t{16} * 1024;
constexpr size_t kInputLimit = size_t{64} * 1024;  // buffered while a command is under way
constexpr size_t kHighWater = size_t{256} * 1024;  // output: no more is produced above
constexpr size_t kLowWater = size_t{64} * 1024;    // and again below
constexpr int64_t kLingerMs = 1000;
constexpr int kLinesPerPass = 32;  // of one connection; then the others have their turns

std::map<uint32_t, std::shared_ptr<Connection>> connections;  // those that are not closed
uint32_t lastId;

}  // namespace

// ---- the table of connections ----

void startConnection(int fd) {
    // Refused connections linger in the table for a moment; too many of them get no answer.
    if (connections.size() > 2 * static_cast<size_t>(settings.maxConnections)) {
        (void)close(fd);
        return;
    }
    const auto connection = std::make_shared<Connection>(fd, ++lastId);
    connections[connection->id()] = connection;
    worker::counters->accepted++;
    worker::counters->connections = connections.size();
    connection->begin();
}

size_t connectionCount() {
    return connections.size();
}

void closeAllConnections(const char *line) {
    const auto all = connections;  // closing takes them out of the table
    for (const auto &[id, connection] : all) {
        connection->closeWith(line);
        connection->close();
    }
}

Connection::Connection(int fd, uint32_t id) : fd_(fd), id_(id), files_(id) {
    idle_.func = onIdle;
    idle_.arg = this;
    idle_.interval = settings.idleMs;
    turn_.func = onTurn;
    turn_.connection = this;
}

Connection::~Connection() {
    close();
}

void Connection::begin() {
    const auto self = shared_from_this();
    startTimer(&idle_);
    if (connections.size() > static_cast<size_t>(settings.maxConnections)) {
        closeWith("ERR LIMIT this server process has all the connections that it may have");
        return;
    }
    append("OK filed ready, worker=" + std::to_string(getpid()) +
           " master=" + std::to_string(getppid()) + "; HELP lists the requests\n");
    settle();
}

void Connection::close() {
    if (closed()) return;
    watch(false, false);
    (void)stopTimer(&idle_);
    job_.reset();
    files_.closeAll();
    (void)::close(fd_);
    fd_ = -1;
    connections.erase(id_);  // may be the last reference but the caller's
    worker::counters->connections = connections.size();
    worker::connectionEnded();
}

void Connection::closeWith(const char *line) {
    if (closed() || lingering_) return;
    job_.reset();
    append(std::string(line) + '\n');
    // The client hears of it before its locks can be granted to anybody else.
    const bool alive = flush();
    if (!alive) return close();
    linger();
}

// Closing with unread input would reset the connection, and the client might never see the last
// replies. So only our half is closed, and what still comes is thrown away for a moment.
void Connection::linger() {
    files_.closeAll();
    lingering_ = true;
    (void)shutdown(fd_, SHUT_WR);
    watch(false, false);
    (void)registerInput(fd_, onLinger, this);
    inputOn_ = true;
    idle_.interval = kLingerMs;
    (void)restartTimer(&idle_);
}

void Connection::onLinger(void *arg, int fd) {
    const auto self = static_cast<Connection *>(arg)->shared_from_this();
    char scrap[kReadBytes];
    const ssize_t got = read(fd, scrap, sizeof scrap);
    if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) return;
    self->close();
}

void Connection::onIdle(SchedTimer *timer) {
    const auto self = static_cast<Connection *>(timer->arg)->shared_from_this();
    if (self->lingering_) return self->close();
    // A client whose command is under way waits for us; one that does not read keeps us waiting.
    if (self->busy_ && self->output_.size() == self->outputSent_) return startTimer(timer);
    self->closeWith("ERR IDLE nothing has been heard of you for too long");
}

// ---- output ----

// What a job adds has nobody up the stack who is going to send it.
void Connection::append(std::string_view text) {
    output_ += text;
    if (!serving_ && !closed()) watch(inputOn_, true);
}

bool Connection::outputFull() const {
    return output_.size() - outputSent_ >= kHighWater;
}

void Connection::info(const char *format, ...) {
    char text[kMaxLineBytes];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(text, sizeof text, format, args);
    va_end(args);
    append("- ");
    append(text);
    append("\n");
}

void Connection::data(const void *bytes, size_t count) {
    append("DATA " + std::to_string(count) + '\n');
    append({static_cast<const char *>(bytes), count});
    append("\n");
}

void Connection::reply(const char *format, ...) {
    if (closed() || lingering_ || !busy_) return;
    char text[kMaxLineBytes];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(text, sizeof text, format, args);
    va_end(args);
    worker::counters->requests++;
    if (strncmp(text, "ERR", 3) == 0) worker::counters->refusals++;
    append(text);
    append("\n");
    // A job ends its command by calling this function, so it must outlive the call: it is destroyed
    // when the next command starts. The next command is started by serveLines(), which either is on
    // the stack now or is called by the output callback, which append() has asked for.
    busy_ = false;
    turnWanted_ = false;
}

void Connection::quit() {
    input_.clear();
    inputUsed_ = 0;
    ended_ = quitting_ = true;
}

// Sends what the socket takes. Returns false when the client is gone.
bool Connection::flush() {
    while (outputSent_ < output_.size()) {
        const ssize_t sent = send(fd_, output_.data() + outputSent_, output_.size() - outputSent_,
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) return errno == EAGAIN || errno == EINTR;
        outputSent_ += static_cast<size_t>(sent);
        if (!lingering_) (void)restartTimer(&idle_);
    }
    output_.clear();
    outputSent_ = 0;
    return true;
}

void Connection::onOutput(void *arg, int fd) {
    const auto self = static_cast<Connection *>(arg)->shared_from_this();
    (void)enableSched(fd);  // a command may sleep below, and its output must go out meanwhile
    if (!self->flush()) return self->close();
    self->serveLines();
    self->settle();
}

// ---- input ----

// Reads once. Returns false when the connection is broken.
bool Connection::fillInput() {
    char bytes[kReadBytes];
    const ssize_t got = read(fd_, bytes, sizeof bytes);
    if (got < 0) return errno == EAGAIN || errno == EINTR;
    if (got == 0)
        ended_ = true;
    else
        input_.append(bytes, static_cast<size_t>(got));
    (void)restartTimer(&idle_);
    return true;
}

void Connection::onInput(void *arg, int fd) {
    const auto self = static_cast<Connection *>(arg)->shared_from_this();
    // While a command sleeps, nested passes go on buffering this client's lines and notice its end;
    // with the direction suspended they would find it ready again and again, and spin.
    (void)enableSched(fd);
    if (!self->fillInput()) return self->close();
    self->serveLines();
    self->settle();
}

// Takes the next line out of the buffer, without its end. An over-long one is answered here, once,
// and skipped.
bool Connection::takeLine(std::string *line) {
    for (;;) {
        const size_t end = input_.find('\n', inputUsed_);
        const size_t length = (end == std::string::npos ? input_.size() : end) - inputUsed_;
        const bool tooLong = length > kMaxLineBytes;
        if (tooLong && !skipping_) {
            busy_ = true;
            reply("ERR LINE longer than %zu bytes, skipped", kMaxLineBytes);
        }
        if (end == std::string::npos) {
            if (tooLong || skipping_) {
                skipping_ = true;
                input_.clear();
                inputUsed_ = 0;
            }
            return false;
        }
        const bool good = !tooLong && !skipping_;
        skipping_ = false;
        if (good) line->assign(input_, inputUsed_, length);
        inputUsed_ = end + 1;
        if (!good) continue;
        if (line->ends_with('\r')) line->pop_back();
        return true;
    }
}

void Connection::serveLines() {
    if (serving_) return;  // a command of this connection sleeps further up; it goes on there
    serving_ = true;
    std::string line;
    for (int lines = 0; lines < kLinesPerPass; lines++) {
        if (closed() || lingering_ || busy_ || outputFull() || !takeLine(&line)) break;
        busy_ = true;
        job_.reset();
        runRequest(*this, line);
    }
    serving_ = false;
    if (closed()) return;
    input_.erase(0, inputUsed_);
    inputUsed_ = 0;
}

// The client has closed its half of the connection, and all that it asked for has been done.
bool Connection::finished() {
    if (!ended_ || busy_ || input_.find('\n') != std::string::npos) return false;
    if (!input_.empty()) append("ERR LINE the last line has no end\n");
    input_.clear();
    return true;
}

// After every event: sends what can be sent, and tells the loop what is to be watched from now on.
void Connection::settle() {
    if (closed() || lingering_) return;
    const bool last = finished();
    if (!flush()) return close();
    const size_t waiting = output_.size() - outputSent_;
    if (last && waiting == 0) return quitting_ ? linger() : close();
    if (turnWanted_ && waiting < kLowWater) wantTurn();
    const bool moreLines = !busy_ && input_.find('\n', inputUsed_) != std::string::npos;
    watch(!ended_ && waiting < kHighWater && input_.size() < kInputLimit, waiting > 0 || moreLines);
}

void Connection::watch(bool input, bool output) {
    if (input != inputOn_) (void)registerInput(fd_, input ? onInput : nullptr, this);
    if (output != outputOn_) (void)registerOutput(fd_, output ? onOutput : nullptr, this);
    inputOn_ = input;
    outputOn_ = output;
}

// ---- jobs ----

void Connection::start(std::unique_ptr<Job> job) {
    job_ = std::move(job);
    wantTurn();
}

void Connection::wantTurn() {
    if (closed()) return;
    turnWanted_ = outputFull();
    if (turnWanted_) return;  // settle() asks again when the client has caught up
    turn_.keep = shared_from_this();
    registerDelayedCall(&turn_);
}

void Connection::onTurn(DelayedCall *call) {
    const auto turn = static_cast<TurnCall *>(call);
    const auto self = std::move(turn->keep);
    if (self->closed() || self->lingering_ || !self->busy_) return;
    if (self->job_) self->job_->turn();
    self->settle();
}
