// A filed of the test's own, and clients that talk to it.
//
// Everything waits for events, with a deadline: a reply, the end of a connection, the end of a
// process. What misses the deadline fails the test and reads as "<no reply>".
#pragma once

#include "support/in_child.h"
#include "support/scratch_dir.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

constexpr int kDeadlineMs = 30000;

inline bool readable(int fd, int timeoutMs) {
    pollfd waiter{fd, POLLIN, 0};
    return ::poll(&waiter, 1, timeoutMs) == 1;
}

// Waits until a process, which need not be ours, has ended.
inline bool waitUntilGone(pid_t pid) {
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) return errno == ESRCH;
    const bool gone = readable(fd, kDeadlineMs);
    ::close(fd);
    return gone;
}

inline int startProgram(const std::vector<std::string> &words, int stdoutFd) {
    std::vector<char *> argv;
    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);  // also when the test crashes
    ::dup2(stdoutFd, STDOUT_FILENO);
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

class FiledServer {
public:
    explicit FiledServer(const std::vector<std::string> &options = {}) {
        (void)::mkdir(root().c_str(), 0700);
        std::vector<std::string> words = {FILED_PROGRAM, "-p", "0",          "-r", root(),   "-a",
                                          arena(),       "-l", dir_ / "log", "-P", pidFile()};
        words.insert(words.end(), options.begin(), options.end());
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) std::abort();
        pid_ = startProgram(words, out[1]);
        ::close(out[1]);
        port_ = readPort(out[0]);
        ::close(out[0]);
    }
    ~FiledServer() {
        if (pid_ > 0) (void)stop(SIGKILL);
        if (::testing::Test::HasFailure()) std::fprintf(stderr, "%s", log().c_str());
    }
    FiledServer(const FiledServer &) = delete;
    FiledServer &operator=(const FiledServer &) = delete;

    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    std::string root() const { return dir_ / "root"; }
    std::string arena() const { return dir_ / "arena"; }
    std::string pidFile() const { return dir_ / "pid"; }
    std::string path(const std::string &name) const { return root() + "/" + name; }
    std::string log() const {
        std::ifstream file(dir_ / "log");
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    // Ends the server and returns its wait status.
    int stop(int sig = SIGTERM) {
        (void)::kill(pid_, sig);
        return waitForEnd();
    }
    int waitForEnd() {
        const int status = waitForChild(pid_, kDeadlineMs);
        pid_ = -1;
        return status;
    }

private:
    static int readPort(int fd) {
        std::string line;
        for (char byte; readable(fd, kDeadlineMs) && ::read(fd, &byte, 1) == 1 && byte != '\n';)
            line += byte;
        EXPECT_NE(line.find("127.0.0.1:"), std::string::npos) << line;
        return std::atoi(line.substr(line.rfind(':') + 1).c_str());
    }

    ScratchDir dir_;
    pid_t pid_ = -1;
    int port_ = 0;
};

// Everything up to the line that ends a reply.
struct Reply {
    std::vector<std::string> info;
    std::string data;
    std::string last;
};

class FiledClient {
public:
    explicit FiledClient(const FiledServer &server) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(server.port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        greeting = line();
        (void)std::sscanf(greeting.c_str(), "OK filed ready, worker=%d", &worker);
    }
    ~FiledClient() { close(); }
    FiledClient(FiledClient &&other) noexcept
        : greeting(std::move(other.greeting)), worker(other.worker),
          fd_(std::exchange(other.fd_, -1)), buffer_(std::move(other.buffer_)) {}

    void send(const std::string &bytes) const {
        EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    std::string line() {
        while (buffer_.find('\n') == std::string::npos)
            if (!fill()) return "<no reply>";
        const std::string text = buffer_.substr(0, buffer_.find('\n'));
        buffer_.erase(0, text.size() + 1);
        return text;
    }
    Reply reply() {
        Reply reply;
        for (;;) {
            reply.last = line();
            if (reply.last.starts_with("- "))
                reply.info.push_back(reply.last.substr(2));
            else if (reply.last.starts_with("DATA "))
                reply.data += block(std::stoul(reply.last.substr(5)));
            else
                return reply;
        }
    }
    std::string data() { return block(std::stoul(line().substr(5))); }  // of one DATA block
    Reply askAll(const std::string &request) {
        send(request + "\n");
        return reply();
    }
    std::string ask(const std::string &request) { return askAll(request).last; }

    bool quiet() const { return buffer_.empty() && !readable(fd_, 0); }
    bool atEnd() { return buffer_.empty() && !fill() && ended_; }
    void halfClose() const { (void)::shutdown(fd_, SHUT_WR); }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    void reset() {  // as a crashed client's system does
        const linger abort{1, 0};
        (void)::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        close();
    }

    std::string greeting;
    pid_t worker = 0;  // that serves this connection

private:
    bool fill() {
        char bytes[65536];
        if (!readable(fd_, kDeadlineMs)) return false;
        const ssize_t got = ::recv(fd_, bytes, sizeof bytes, 0);
        ended_ = got == 0 || (got < 0 && errno == ECONNRESET);
        if (got > 0) buffer_.append(bytes, static_cast<size_t>(got));
        return got > 0;
    }
    std::string block(size_t count) {
        while (buffer_.size() < count + 1)
            if (!fill()) return "<no data>";
        const std::string bytes = buffer_.substr(0, count);
        buffer_.erase(0, count + 1);
        return bytes;
    }

    int fd_ = -1;
    bool ended_ = false;
    std::string buffer_;
};

// A client that another worker serves.
inline FiledClient clientOfAnotherWorker(const FiledServer &server, pid_t than) {
    for (;;) {
        FiledClient client(server);
        if (client.worker != than || ::testing::Test::HasFailure()) return client;
    }
}
