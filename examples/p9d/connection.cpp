// Back-pressure in both directions: requests are answered as long as the answers that wait for the
// client stay below a mark; above it nothing is read from it either, until it has read.

#include "connection.h"

#include "p9d.h"

#include <cerrno>
#include <iosched/sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t kHighWater = 2 * size_t{kLargestMessage};
constexpr int kAnswersPerPass = 64;  // then others have their turn

size_t connections;

}  // namespace

size_t Connection::count() {
    return connections;
}

Connection::Connection(int socket, uint32_t id)
    : socket_(socket), session_(id), input_(kLargestMessage) {
    connections++;
    (void)registerInput(socket_, onInput, this);
}

Connection::~Connection() {
    (void)registerInput(socket_, nullptr, nullptr);
    (void)registerOutput(socket_, nullptr, nullptr);
    (void)close(socket_);
    connections--;
    connectionEnded();
}

void Connection::start(int socket, uint32_t id) {
    (void)new Connection(socket, id);
}

// False at the end of the client's input.
bool Connection::receive() {
    if (begin_ > 0 && end_ == input_.size()) {
        std::memmove(input_.data(), input_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    const ssize_t got = ::read(socket_, input_.data() + end_, input_.size() - end_);
    if (got > 0) end_ += static_cast<size_t>(got);
    return got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
}

bool Connection::hasWholeFrame() const {
    uint32_t size = 0;
    if (end_ - begin_ < sizeof size) return false;
    std::memcpy(&size, input_.data() + begin_, sizeof size);
    return end_ - begin_ >= size;
}

// False, with a line in the log, at what is no request.
bool Connection::answerAll() {
    for (int i = 0; i < kAnswersPerPass && outbox_.waiting() < kHighWater; i++) {
        uint32_t size = 0;
        if (end_ - begin_ < sizeof size) break;
        std::memcpy(&size, input_.data() + begin_, sizeof size);
        if (size < kHeaderBytes || size > session_.messageSize()) {
            logLine("a client sent a message of %u bytes, where %u are agreed on", size,
                    session_.messageSize());
            return false;
        }
        if (end_ - begin_ < size) break;
        const std::string_view request(input_.data() + begin_ + sizeof size, size - sizeof size);
        if (!session_.answer(request, &outbox_)) {
            logLine("a client sent a message that is no request");
            return false;
        }
        begin_ += size;
    }
    if (begin_ == end_) begin_ = end_ = 0;
    return true;
}

// False if the client is gone. What it does not take waits.
bool Connection::send() {
    while (outbox_.waiting() > 0) {
        const ssize_t sent =
            ::send(socket_, outbox_.data(), outbox_.waiting(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) return errno == EAGAIN || errno == EINTR;
        outbox_.sent(static_cast<size_t>(sent));
    }
    return true;
}

// Output is watched while answers wait, or whole requests do; input while there is room for answers
// and nothing whole waits to be answered.
void Connection::goOn() {
    if (!answerAll() || !send()) {
        delete this;
        return;
    }
    const bool more = hasWholeFrame();
    const bool reading = outbox_.waiting() < kHighWater && !more;
    const bool writing = outbox_.waiting() > 0 || more;
    if (reading != reading_) (void)registerInput(socket_, reading ? onInput : nullptr, this);
    if (writing != writing_) (void)registerOutput(socket_, writing ? onOutput : nullptr, this);
    reading_ = reading;
    writing_ = writing;
}

void Connection::onInput(void *arg, int) {
    auto *self = static_cast<Connection *>(arg);
    if (self->receive())
        self->goOn();
    else
        delete self;
}

void Connection::onOutput(void *arg, int) {
    static_cast<Connection *>(arg)->goOn();
}
